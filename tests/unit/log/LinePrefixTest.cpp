#include <climits>
#include <utility>

#include "src/log/log.h"
#include "tests/unit/log/Interposed.h"
#include "tests/unit/log/LogFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using LinePrefix = StartedLog;

constexpr char kLogFile[] = "src/VexoZceUpdmaImpl";

void Log(std::uint8_t level) {
    elog_output(level, "fpga", "src/dma/VexoZceUpdmaImpl", "HandleUpSubsResult", 156, "text");
}

TEST_F(LinePrefix, EveryMaskWritesItsPartsInOrder) {
    const FakeIds ids(42, 7);
    const std::string level[] = {"", "[INFO   ]"};
    const std::string tag[] = {"", "[fpga]"};
    const std::string time[] = {
        "",           "[20250303-10:00:00]",          "[pid:0042]",          "[20250303-10:00:00 pid:0042]",
        "[tid:0007]", "[20250303-10:00:00 tid:0007]", "[pid:0042 tid:0007]", "[20250303-10:00:00 pid:0042 tid:0007]"};
    const std::string source[] = {
        "",      "(VexoZceUpdmaImpl)",     "(HandleUpSubsResult)",     "(VexoZceUpdmaImpl HandleUpSubsResult)",
        "(156)", "(VexoZceUpdmaImpl:156)", "(HandleUpSubsResult:156)", "(VexoZceUpdmaImpl HandleUpSubsResult:156)"};
    std::vector<std::string> expected;
    for (unsigned int mask = 0; mask < 256; ++mask) {
        expected.push_back(level[mask & 1] + time[mask >> 2 & 7] + tag[mask >> 1 & 1] + source[mask >> 5] + "text");
    }

    const std::string printed = Printed([] {
        for (unsigned int mask = 0; mask < 256; ++mask) {
            elog_set_fmt(kInfo, mask);
            Log(kInfo);
        }
    });

    EXPECT_EQ(Lines(printed), expected);
    EXPECT_EQ(dir.Read(kToday), printed);
}

TEST_F(LinePrefix, BitsAboveTheEighthMeanNothing) {
    elog_set_fmt(kInfo, ~std::uint64_t{255});

    EXPECT_EQ(Printed([] { Log(kInfo); }), "text\n");
}

TEST_F(LinePrefix, EachLevelHasItsTagAndItsFormatAfterSetUp) {
    const FakeIds ids(4242, 4243);
    clock.SetLocal(2026, 11, 15, 9, 12, 34);

    const std::string printed = Printed([] {
        for (std::uint8_t level = 0; level < ELOG_LVL_TOTAL; ++level) Log(level);
    });

    EXPECT_THAT(
        Lines(printed),
        ElementsAre("[ASSERT ][20261115-09:12:34 pid:4242 tid:4243][fpga](VexoZceUpdmaImpl HandleUpSubsResult:156)text",
                    "[ERROR  ][20261115-09:12:34][fpga]text", "[WARN   ][20261115-09:12:34][fpga]text",
                    "[EVENT  ][20261115-09:12:34][fpga]text", "[INFO   ][20261115-09:12:34][fpga]text",
                    "[DEBUG  ][20261115-09:12:34 pid:4242 tid:4243][fpga](VexoZceUpdmaImpl:156)text",
                    "[VERBOSE][20261115-09:12:34 pid:4242 tid:4243][fpga](VexoZceUpdmaImpl:156)text"));
}

TEST_F(LinePrefix, AMaskBelongsToItsLevelAlone) {
    for (std::uint8_t level = 0; level < ELOG_LVL_TOTAL; ++level) elog_set_fmt(level, 0);
    elog_set_fmt(ELOG_LVL_WARN, ELOG_FMT_LVL);

    const std::string printed = Printed([] {
        for (std::uint8_t level = 0; level < ELOG_LVL_TOTAL; ++level) Log(level);
    });

    EXPECT_THAT(Lines(printed), ElementsAre("text", "text", "[WARN   ]text", "text", "text", "text", "text"));
}

TEST_F(LinePrefix, AMaskForALevelThatDoesNotExistIsIgnored) {
    for (std::uint8_t level = 0; level < ELOG_LVL_TOTAL; ++level) elog_set_fmt(level, 0);

    for (unsigned int level = ELOG_LVL_TOTAL; level < 256; ++level) elog_set_fmt(static_cast<std::uint8_t>(level), 255);

    EXPECT_EQ(Printed([] { Log(ELOG_LVL_VERBOSE); }), "text\n");
}

TEST_F(LinePrefix, IdsOfMoreThanFourDigitsAreWrittenWhole) {
    const FakeIds ids(4194303, 12345);
    elog_set_fmt(kInfo, ELOG_FMT_PID | ELOG_FMT_TID);

    EXPECT_EQ(Printed([] { Log(kInfo); }), "[pid:4194303 tid:12345]text\n");
}

TEST_F(LinePrefix, OnlyTheFirstFourCharactersOfALineNumberAreKept) {
    const std::vector<std::pair<long, std::string>> cases = {
        {0, "(0)"},   {7, "(7)"},       {1234, "(1234)"},   {9999, "(9999)"},     {12345, "(1234)"},
        {-1, "(-1)"}, {-999, "(-999)"}, {-12345, "(-123)"}, {LONG_MAX, "(9223)"}, {LONG_MIN, "(-922)"},
    };
    elog_set_fmt(kInfo, ELOG_FMT_LINE);
    std::vector<std::string> expected;
    for (const auto& entry : cases) expected.push_back(entry.second);

    const std::string printed = Printed([&cases] {
        for (const auto& entry : cases) elog_output(kInfo, "fpga", "file", "func", entry.first, "%s", "");
    });

    EXPECT_EQ(Lines(printed), expected);
}

TEST_F(LinePrefix, ALineWithoutLocalTimeKeepsTheBracketsAndTheBlank) {
    const FakeIds ids(42, 7);
    clock.FailLocaltime(true);

    const std::string printed = Printed([] {
        for (const unsigned int mask : {7U, 12U, 20U, 28U}) {
            elog_set_fmt(kInfo, mask);
            Log(kInfo);
        }
    });

    EXPECT_THAT(Lines(printed),
                ElementsAre("[INFO   ][][fpga]text", "[ pid:0042]text", "[ tid:0007]text", "[ pid:0042 tid:0007]text"));
}

TEST_F(LinePrefix, ALineWithATimeMovesTheTimeCache) {
    clock.Advance(5);

    Printed([] { Log(kInfo); });

    EXPECT_EQ(time_cache, clock.NowNs() / 1000000000);
}

TEST_F(LinePrefix, ALineWithoutATimeLeavesTheTimeCacheAlone) {
    const std::time_t before = time_cache;
    elog_set_fmt(kInfo, 255 & ~ELOG_FMT_TIME);
    clock.Advance(5);

    Printed([] { Log(kInfo); });

    EXPECT_EQ(time_cache, before);
}

TEST_F(LinePrefix, ALineWhoseTimeCannotBeHadLeavesTheTimeCacheAlone) {
    const std::time_t before = time_cache;
    clock.FailLocaltime(true);
    clock.Advance(5);

    Printed([] { Log(kInfo); });

    EXPECT_EQ(time_cache, before);
}

TEST_F(LinePrefix, AMessageIsFormattedWithItsArguments) {
    elog_set_fmt(kInfo, ELOG_FMT_TAG);

    const std::string printed = Printed(
        [] { elog_output(kInfo, "fpga", "file", "func", 1, "[channel:%d] %s:%lu%%", 3, "rows", 4095UL); });

    EXPECT_EQ(printed, "[fpga][channel:3] rows:4095%\n");
}

TEST_F(LinePrefix, TheMacrosOfTheLibraryCarryItsTagAndThePlaceOfTheCall) {
    for (std::uint8_t level = 0; level < ELOG_LVL_TOTAL; ++level)
        elog_set_fmt(level, 255 & ~(ELOG_FMT_TIME | ELOG_FMT_PID | ELOG_FMT_TID));
    const std::string line = std::to_string(__LINE__ + 5);

    // The three calls have to stand on one line, which they name.
    // clang-format off
    const std::string printed = Printed([] {
        LOG_ERROR("a %d", 1); LOG_WARN("b %d", 2); LOG_INFO("c %d", 3);
    });
    // clang-format on

    EXPECT_THAT(Lines(printed), ElementsAre("[ERROR  ][fpga](VexoZceUpdmaImpl operator():" + line + ")a 1",
                                            "[WARN   ][fpga](VexoZceUpdmaImpl operator():" + line + ")b 2",
                                            "[INFO   ][fpga](VexoZceUpdmaImpl operator():" + line + ")c 3"));
}

// ---- which messages are written ----

TEST_F(LinePrefix, LevelsAboveTheFilterLevelAreDropped) {
    for (std::uint8_t level = 0; level < ELOG_LVL_TOTAL; ++level) elog_set_fmt(level, 0);
    for (std::uint8_t filter = 0; filter < ELOG_LVL_TOTAL; ++filter) {
        elog_set_filter_lvl(filter);
        std::vector<std::string> expected;
        for (unsigned int level = 0; level <= filter; ++level) expected.push_back(std::to_string(level));

        const std::string printed = Printed([] {
            for (std::uint8_t level = 0; level < ELOG_LVL_TOTAL; ++level)
                elog_output(level, "fpga", "file", "func", 1, "%d", level);
        });

        EXPECT_EQ(Lines(printed), expected) << "filter level " << static_cast<int>(filter);
    }
}

TEST(LogLevels, AreNumberedFromTheGravest) {
    EXPECT_THAT((std::vector<int>{ELOG_LVL_ASSERT, ELOG_LVL_ERROR, ELOG_LVL_WARN, ELOG_LVL_EVENT, ELOG_LVL_INFO,
                                  ELOG_LVL_DEBUG, ELOG_LVL_VERBOSE, ELOG_LVL_TOTAL}),
                ElementsAre(0, 1, 2, 3, 4, 5, 6, 7));
}

TEST_F(LinePrefix, LevelsThatDoNotExistAreDroppedWhateverTheFilterLevel) {
    elog_set_filter_lvl(255);

    const std::string printed = Printed([] {
        for (unsigned int level = ELOG_LVL_TOTAL; level < 256; ++level) Log(static_cast<std::uint8_t>(level));
    });

    EXPECT_THAT(printed, IsEmpty());
}

TEST_F(LinePrefix, NothingIsWrittenWhileOutputIsDisabled) {
    elog_set_output_enabled(false);

    EXPECT_THAT(Printed([] { Log(ELOG_LVL_ASSERT); }), IsEmpty());
    EXPECT_THAT(dir.Read(kToday), IsEmpty());
    EXPECT_FALSE(elog_get_output_enabled());
}

// ---- parts of a path, hook ----

TEST(TruncFilename, IsThePartBehindTheLastSlash) {
    EXPECT_STREQ(trunc_filename("/a/b/elog.cpp"), "elog.cpp");
    EXPECT_STREQ(trunc_filename("b/elog.cpp"), "elog.cpp");
    EXPECT_STREQ(trunc_filename("elog.cpp"), "elog.cpp");
    EXPECT_STREQ(trunc_filename("a/"), "");
    EXPECT_STREQ(trunc_filename(""), "");
}

TEST_F(LogCore, TheAssertHookIsKept) {
    const elog_assert_hook_t hook = [](const char*, const char*, std::size_t) {};

    elog_assert_set_hook(hook);

    EXPECT_EQ(elog_assert_hook, hook);
}

}  // namespace
