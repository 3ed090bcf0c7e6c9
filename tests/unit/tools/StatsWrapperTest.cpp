// The wrapper around an application's callbacks, and the file of its page.

#include <VexoZceMdStats.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <numeric>

#include "tests/support/TempDir.h"
#include "tools/vexo/stat/Pages.h"

using namespace vexo::stat;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace fs = std::filesystem;

namespace {

class Quotes final : public IVexoZceMdSpi {
public:
    int OnUpSubsResult17(const unsigned char* data) override { return take(17, data); }
    int OnUpSubsResult18(const unsigned char* data) override { return take(18, data); }
    int OnUpSubsResult19(const unsigned char* data) override { return take(19, data); }
    int OnUpSubsResult20(const unsigned char* data) override { return take(20, data); }

    std::vector<std::pair<int, const unsigned char*>> taken;
    std::function<void()> during = [] {};

private:
    int take(int type, const unsigned char* data) {
        taken.emplace_back(type, data);
        during();
        return 0;
    }
};

// The sequence number is the whole payload.
struct PlainSequence {
    static constexpr bool kIsKnown = true;
    static std::uint64_t of(const unsigned char* payload) {
        std::uint64_t sequence;
        std::memcpy(&sequence, payload, sizeof sequence);
        return sequence;
    }
};

const unsigned char* payloadOf(const std::uint64_t& sequence) {
    return reinterpret_cast<const unsigned char*>(&sequence);
}

template <std::size_t n>
std::uint64_t sum(const std::uint64_t (&words)[n]) {
    return std::accumulate(std::begin(words), std::end(words), std::uint64_t{0});
}

// A page belongs to a process for as long as it lives, so each test has a process of its own.
class StatsWrapper : public ::testing::Test {
protected:
    StatsWrapper() { ::setenv("VEXO_STATS_DIR", dir.Path("pages").c_str(), 1); }
    ~StatsWrapper() override {
        ::unsetenv("VEXO_STATS_DIR");
        ::unsetenv("VEXO_STATS_KEEP");
    }

    // Runs @p work in a child, which then ends in order; its page stays.
    Page pageOf(const std::function<void()>& work) {
        ::setenv("VEXO_STATS_KEEP", "1", 1);
        runInChild(work);
        const Found found = findPages(dir.Path("pages"));
        EXPECT_THAT(found.faults, IsEmpty());
        EXPECT_THAT(found.pages, SizeIs(1));
        return found.pages.empty() ? Page{} : found.pages[0];
    }
    static int runInChild(const std::function<void()>& work) {
        const pid_t child = ::fork();
        if (child == 0) {
            work();
            std::exit(::testing::Test::HasFailure() ? 1 : 0);
        }
        int status = -1;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        return status;
    }

    test_support::TempDir dir;
};

}  // namespace

TEST_F(StatsWrapper, CountsWhatItHandsOn) {
    const Page page = pageOf([] {
        Quotes quotes;
        VexoZceMdStats<Quotes> counted(quotes, 5);
        IVexoZceMdSpi& spi = counted;
        const unsigned char data[4] = {};
        for (int n = 0; n < 3; ++n) spi.OnUpSubsResult17(data);
        spi.OnUpSubsResult18(data + 1);
        spi.OnUpSubsResult19(data + 2);
        for (int n = 0; n < 2; ++n) spi.OnUpSubsResult20(data + 3);
        using Taken = std::vector<std::pair<int, const unsigned char*>>;
        const Taken expected = {{17, data},     {17, data},     {17, data},    {18, data + 1},
                                {19, data + 2}, {20, data + 3}, {20, data + 3}};
        EXPECT_EQ(quotes.taken, expected);
        EXPECT_EQ(VexoZceMdStats<Quotes>::error(), "");
    });
    EXPECT_EQ(page.process.writer, vexo_stats::kApplication);
    EXPECT_EQ(page.life, Life::kEnded);
    ASSERT_THAT(page.streams, SizeIs(1));
    const vexo_stats::Stream& stream = page.streams[0];
    EXPECT_EQ(stream.channel, 5U);
    EXPECT_EQ(stream.state, vexo_stats::kClosed);
    EXPECT_EQ(stream.packets[17], 3U);
    EXPECT_EQ(stream.packets[18], 1U);
    EXPECT_EQ(stream.packets[19], 1U);
    EXPECT_EQ(stream.packets[20], 2U);
    EXPECT_EQ(sum(stream.callbacks), 7U);
    EXPECT_EQ(stream.gaps[vexo_stats::kFirstBucket], 1U);
    EXPECT_EQ(sum(stream.gaps), 7U);
    EXPECT_EQ(stream.pollsKnown, 0U);
    EXPECT_EQ(page.process.steps[vexo_stats::kFirstQuote], stream.firstPacket);
    EXPECT_FALSE(lossOf(stream)[vexo::data::LossCause::kBeforeCard]);
    EXPECT_FALSE(lossOf(stream)[vexo::data::LossCause::kByRing]);
}

TEST_F(StatsWrapper, ALongCallbackIsInTheBucketOfItsLength) {
    const Page page = pageOf([] {
        Quotes quotes;
        VexoZceMdStats<> counted(quotes);
        quotes.during = [] { ::usleep(20'000); };
        counted.OnUpSubsResult17(nullptr);
    });
    const vexo_stats::Stream& stream = page.streams.at(0);
    for (std::size_t b = 0; b < vexo_stats::kBuckets; ++b) {
        if (stream.callbacks[b] == 0) continue;
        EXPECT_GE(page.seconds(std::uint64_t{2} << b), 0.020);
        EXPECT_LE(page.seconds(std::uint64_t{1} << b), page.seconds(stream.callbackClock));
    }
    EXPECT_GE(page.seconds(stream.callbackClock), 0.0199);
}

TEST_F(StatsWrapper, SequenceNumbersTellLostRepeatedAndRestartedQuotes) {
    const Page page = pageOf([] {
        Quotes quotes;
        VexoZceMdStats<IVexoZceMdSpi, PlainSequence> counted(quotes);
        for (const std::uint64_t sequence :
             {5100UL, 5101UL, 5105UL, 5105UL, 5106UL, 1UL, 2UL, 4UL, 1UL << 40, 5UL, 6UL}) {
            counted.OnUpSubsResult18(payloadOf(sequence));
        }
    });
    const vexo_stats::Stream& stream = page.streams.at(0);
    EXPECT_EQ(stream.sequenceKnown, 1U);
    EXPECT_EQ(packetsOf(stream), 11U);
    EXPECT_EQ(stream.sequenceGaps, 2U);  // 5102 to 5104, 3
    EXPECT_EQ(stream.sequenceLost, 4U);
    EXPECT_EQ(stream.sequenceLate, 1U);      // 5105 again
    EXPECT_EQ(stream.sequenceRestarts, 3U);  // back to 1; to the number that is none, and back
}

TEST_F(StatsWrapper, TheFirstSequenceNumberMayBeZero) {
    const Page page = pageOf([] {
        Quotes quotes;
        VexoZceMdStats<IVexoZceMdSpi, PlainSequence> counted(quotes);
        for (const std::uint64_t sequence : {0UL, 1UL, 2UL, 5UL}) counted.OnUpSubsResult18(payloadOf(sequence));
    });
    const vexo_stats::Stream& stream = page.streams.at(0);
    EXPECT_NE(stream.firstPacket, 0U);
    EXPECT_EQ(stream.gaps[vexo_stats::kFirstBucket], 1U);
    EXPECT_EQ(stream.sequenceGaps, 1U);
    EXPECT_EQ(stream.sequenceLost, 2U);
}

TEST_F(StatsWrapper, AWrapperGoesOnInTheBlockOfAnEarlierOneOfItsChannel) {
    const Page page = pageOf([] {
        Quotes quotes;
        for (std::uint64_t n = 0; n < 100; ++n) {
            VexoZceMdStats<IVexoZceMdSpi, PlainSequence> counted(quotes, 5);
            counted.OnUpSubsResult18(payloadOf(1000 * n));
            counted.OnUpSubsResult18(payloadOf(1000 * n + 2));
        }
    });
    ASSERT_THAT(page.streams, SizeIs(1));
    const vexo_stats::Stream& stream = page.streams[0];
    EXPECT_EQ(packetsOf(stream), 200U);
    EXPECT_EQ(stream.gaps[vexo_stats::kFirstBucket], 100U);  // the time without a wrapper is no gap
    EXPECT_EQ(stream.sequenceLost, 100U);                    // and what was sent in that time is not lost
    EXPECT_EQ(stream.sequenceRestarts, 0U);
}

TEST_F(StatsWrapper, ABlockThatIsLeftGoesToAnotherChannelWhenThereIsNoOther) {
    const Page page = pageOf([] {
        Quotes quotes;
        for (std::uint64_t n = 0; n < 100; ++n) {
            VexoZceMdStats<> counted(quotes, n);
            for (std::uint64_t packet = 0; packet <= n; ++packet) counted.OnUpSubsResult17(nullptr);
        }
    });
    ASSERT_THAT(page.streams, SizeIs(vexo_stats::kStreams));
    std::uint64_t newest = 0;
    for (const vexo_stats::Stream& stream : page.streams) {
        EXPECT_EQ(packetsOf(stream), stream.channel + 1);
        newest = std::max(newest, stream.channel);
    }
    EXPECT_EQ(newest, 99U);
}

TEST_F(StatsWrapper, EachWrapperOfAProcessHasABlockUntilThereIsNoneLeft) {
    const Page page = pageOf([] {
        Quotes quotes;
        std::vector<std::unique_ptr<VexoZceMdStats<>>> all;
        for (std::uint64_t n = 0; n < vexo_stats::kStreams + 2; ++n) {
            all.push_back(std::make_unique<VexoZceMdStats<>>(quotes, n));
            all.back()->OnUpSubsResult17(nullptr);
        }
        EXPECT_THAT(quotes.taken, SizeIs(vexo_stats::kStreams + 2));
    });
    ASSERT_THAT(page.streams, SizeIs(vexo_stats::kStreams));
    for (std::size_t n = 0; n < page.streams.size(); ++n) {
        EXPECT_EQ(page.streams[n].channel, n);
        EXPECT_EQ(packetsOf(page.streams[n]), 1U);
    }
}

TEST_F(StatsWrapper, AChildOfForkCountsForNobody) {
    const Page page = pageOf([] {
        Quotes quotes;
        VexoZceMdStats<> counted(quotes);
        counted.OnUpSubsResult17(nullptr);
        EXPECT_EQ(runInChild([&] {
                      for (int n = 0; n < 5; ++n) counted.OnUpSubsResult17(nullptr);
                  }),
                  0);
        counted.OnUpSubsResult17(nullptr);
    });
    EXPECT_EQ(packetsOf(page.streams.at(0)), 2U);
    EXPECT_EQ(page.life, Life::kEnded);
}

TEST_F(StatsWrapper, ThePageOfAKilledProcessCanBeReadAndIsRemovedByTheNextOne) {
    const int status = runInChild([] {
        Quotes quotes;
        VexoZceMdStats<> counted(quotes);
        counted.OnUpSubsResult17(nullptr);
        ::raise(SIGKILL);
    });
    EXPECT_TRUE(WIFSIGNALED(status));
    const Found found = findPages(dir.Path("pages"));
    ASSERT_THAT(found.pages, SizeIs(1));
    EXPECT_EQ(found.pages[0].life, Life::kDied);
    EXPECT_EQ(packetsOf(found.pages[0].streams.at(0)), 1U);
    const Page next = pageOf([] {
        Quotes quotes;
        VexoZceMdStats<> counted(quotes);
    });
    EXPECT_NE(next.process.pid, found.pages[0].process.pid);
    EXPECT_FALSE(fs::exists(found.pages[0].file));
}

TEST_F(StatsWrapper, ARunningProcessIsShownAsRunningAndItsPageIsRemovedAtItsEnd) {
    int ready[2], go[2];
    ASSERT_EQ(::pipe(ready) + ::pipe(go), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        Quotes quotes;
        VexoZceMdStats<> counted(quotes);
        char c = 'x';
        if (::write(ready[1], &c, 1) != 1 || ::read(go[0], &c, 1) != 1) ::_exit(1);
        std::exit(0);
    }
    char c = 0;
    ASSERT_EQ(::read(ready[0], &c, 1), 1);
    const Found found = findPages(dir.Path("pages"));
    ASSERT_THAT(found.pages, SizeIs(1));
    EXPECT_EQ(found.pages[0].life, Life::kRunning);
    EXPECT_EQ(found.pages[0].process.pid, static_cast<std::uint32_t>(child));
    struct ::stat file {};
    ASSERT_EQ(::stat(found.pages[0].file.c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 07777, 0644U);
    ASSERT_EQ(::write(go[1], &c, 1), 1);
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(fs::exists(found.pages[0].file));
}

TEST_F(StatsWrapper, ADirectoryThatOthersCouldChangeIsRefused) {
    fs::create_directory(dir.Path("open"));
    fs::permissions(dir.Path("open"), fs::perms::all);
    fs::create_directory(dir.Path("real"));
    fs::create_directory_symlink(dir.Path("real"), dir.Path("link"));
    const struct {
        const char* name;
        const char* error;
    } cases[] = {{"open", "other users can write to the directory"}, {"link", ": Not a directory"}};
    for (const auto& c : cases) {
        ::setenv("VEXO_STATS_DIR", dir.Path(c.name).c_str(), 1);
        EXPECT_EQ(runInChild([&] {
                      Quotes quotes;
                      VexoZceMdStats<> counted(quotes);
                      counted.OnUpSubsResult17(nullptr);
                      EXPECT_THAT(quotes.taken, SizeIs(1));
                      EXPECT_THAT(VexoZceMdStats<>::error(), HasSubstr(c.error));
                  }),
                  0);
        EXPECT_TRUE(fs::is_empty(dir.Path(c.name))) << c.name;
    }
}

TEST_F(StatsWrapper, NoFileOfThePageGetsTheNumberOfAClosedStandardStream) {
    EXPECT_EQ(runInChild([] {
                  ::close(STDIN_FILENO);
                  Quotes quotes;
                  VexoZceMdStats<> counted(quotes);
                  if (::fcntl(STDIN_FILENO, F_GETFD) != -1) ::_exit(1);
              }),
              0);
}
