// Memory that runs out while the configuration is loaded: it is loaded as a whole or not at all.

#include <gmock/gmock.h>
#include <malloc.h>

#include <limits>
#include <map>

#include "tests/support/FailingMemory.h"
#include "tests/support/Sanitizers.h"
#include "tests/unit/config/ConfigFixture.h"

namespace {

constexpr std::uint32_t kFailure = 0xFFFFFFFF;
constexpr std::size_t kFromThenOn = std::numeric_limits<std::size_t>::max();

std::map<std::string, std::string> Entries(const dictionary* dict) {
    std::map<std::string, std::string> entries;
    for (int i = 0; dict != nullptr && i < dict->n; ++i) {
        entries[dict->key[i]] = dict->val[i] != nullptr ? dict->val[i] : "(a section)";
    }
    return entries;
}

class ConfigMemory : public ConfigTest {
protected:
    /// Init with memory that runs out; false once it does not need that much.
    bool FailsAt(std::size_t nth, std::size_t calls, Lines& output) {
        config = std::make_unique<Config>(EXAMPLE_INI, &drv, nullptr);
        bool failed = false;
        output = OutputOf([&] {
            const test_support::FailingMemory memory(nth, calls);
            result = config->Init();
            failed = memory.HasFailed();
        });
        return failed;
    }

    std::uint32_t result = 0;
};

TEST_F(ConfigMemory, TheConfigurationIsLoadedWholeOrTheStartFailsWhereverMemoryRunsOut) {
    if (kWithAddressSanitizer || kWithThreadSanitizer) GTEST_SKIP() << "the sanitizer has the allocator";
    Config undisturbed(EXAMPLE_INI, &drv, nullptr);
    ASSERT_EQ(undisturbed.Init(), 0U);
    const auto complete = Entries(undisturbed.m_pDict);
    for (const std::size_t calls : {std::size_t{1}, kFromThenOn}) {
        Lines output;
        std::size_t points = 0;
        for (std::size_t nth = 1; FailsAt(nth, calls, output); ++nth, ++points) {
            SCOPED_TRACE(testing::Message() << "allocation " << nth << (calls == 1 ? " alone" : " and all behind it"));
            if (result == 0) {
                EXPECT_EQ(Entries(config->m_pDict), complete);
                EXPECT_EQ(config->m_strDmaChanName, undisturbed.m_strDmaChanName);
                continue;
            }
            EXPECT_EQ(result, kFailure);
            EXPECT_EQ(config->m_pDict, nullptr);
            EXPECT_EQ(output, (Lines{"ERROR config file " EXAMPLE_INI " is not used, memory is short.",
                                     "ERROR Failed to load file " EXAMPLE_INI}));
        }
        EXPECT_EQ(result, 0U);
        EXPECT_EQ(Entries(config->m_pDict), complete);
        EXPECT_GT(points, complete.size());
    }
}

TEST_F(ConfigMemory, AStartThatFailedForMemoryCanBeRepeated) {
    if (kWithAddressSanitizer || kWithThreadSanitizer) GTEST_SKIP() << "the sanitizer has the allocator";
    Lines output;
    for (std::size_t nth = 1; FailsAt(nth, kFromThenOn, output); ++nth) {
        OutputOf([this] { result = config->Init(); });

        EXPECT_EQ(result, 0U);
        EXPECT_EQ(config->m_strDmaChanName, "CUSTOM_CHAN0_DATA") << "after allocation " << nth;
    }
}

TEST_F(ConfigMemory, AStartThatFailedForMemoryKeepsNone) {
    if (kWithAddressSanitizer || kWithThreadSanitizer) GTEST_SKIP() << "the sanitizer has the allocator";
    constexpr std::size_t kStarts = 32;
    Lines output;
    for (std::size_t nth = 1; FailsAt(nth, 1, output); ++nth) {
        for (std::size_t i = 0; i < kStarts; ++i) FailsAt(nth, 1, output);  // what the allocator keeps for later
        const std::size_t before = mallinfo2().uordblks;
        for (std::size_t i = 0; i < kStarts; ++i) FailsAt(nth, 1, output);
        const std::size_t after = mallinfo2().uordblks;

        // The smallest block of the C library's allocator has 32 bytes.
        EXPECT_LT(after, before + kStarts * 32) << "after allocation " << nth;
    }
}

}  // namespace
