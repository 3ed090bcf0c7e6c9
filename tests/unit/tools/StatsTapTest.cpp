// The tap's stats-only mode, in front of a hardware library that it has never seen.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <cstdlib>
#include <numeric>

#include "tests/support/TempDir.h"
#include "tests/unit/tools/Program.h"
#include "tools/vexo/stat/Pages.h"

using namespace capture;
using namespace vexo::stat;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

class StatsTap : public ::testing::Test {
protected:
    ProgramResult run(const std::string& way, const std::string& settings = "SCRIPTED_PACKETS=10",
                      const std::string& app = VEXO_TAP_APP) {
        return runWith(VEXO_STATS_LIBRARY, way, settings, app);
    }
    // The same program, recorded.
    ProgramResult record(const std::string& way, const std::string& settings) {
        return runWith(VEXO_TAP_LIBRARY, way, settings);
    }
    ProgramResult runWith(const std::string& library, const std::string& way, const std::string& settings,
                          const std::string& app = VEXO_TAP_APP) {
        return runProgram(tapSettings(dir.Path("none.pcapng")) +
                          "export VEXO_STATS_KEEP=1 VEXO_STATS_DIR=" + word(dir.Path("pages")) + "; " + settings + " " +
                          preloading(library) + word(app) + " " + way);
    }
    // The only page of the last run.
    Page page() {
        const Found found = findPages(dir.Path("pages"));
        EXPECT_THAT(found.faults, IsEmpty());
        EXPECT_THAT(found.pages, SizeIs(1));
        if (found.pages.size() != 1) return {};
        std::filesystem::remove(found.pages[0].file);
        return found.pages[0];
    }

    test_support::TempDir dir;
};

template <std::size_t n>
std::uint64_t sum(const std::uint64_t (&words)[n]) {
    return std::accumulate(std::begin(words), std::end(words), std::uint64_t{0});
}

}  // namespace

// The scripted card's packets begin with their number, so that packet n is of type n.
TEST_F(StatsTap, CountsPacketsBytesPollsAndTimes) {
    const ProgramResult program = run("receive", "SCRIPTED_PACKETS=1000 SCRIPTED_SIZE=301");
    EXPECT_EQ(program.output, "received 1000\n");
    const Page page = this->page();
    EXPECT_EQ(page.program(), "vexo_tap_app");
    EXPECT_EQ(page.process.writer, vexo_stats::kTap);
    EXPECT_EQ(page.life, Life::kEnded);
    ASSERT_THAT(page.streams, SizeIs(1));
    const vexo_stats::Stream& stream = page.streams[0];
    EXPECT_EQ(stream.channel, 3U);
    EXPECT_EQ(stream.state, vexo_stats::kClosed);
    EXPECT_EQ(packetsOf(stream), 1000U);
    EXPECT_EQ(bytesOf(stream), 301'000U);
    for (std::size_t type = 1; type < 32; ++type) EXPECT_EQ(stream.packets[type], 1U) << type;
    EXPECT_EQ(stream.packets[vexo_stats::kOtherType], 969U);
    EXPECT_EQ(stream.idlePolls, 1U);
    EXPECT_EQ(stream.failedPolls, 0U);
    EXPECT_EQ(sum(stream.callbacks), 1000U);
    EXPECT_EQ(sum(stream.gaps), 1000U);
    EXPECT_EQ(stream.gaps[vexo_stats::kFirstBucket], 1U);
    EXPECT_EQ(stream.sequenceKnown, 0U);  // nobody knows this card's packets
    EXPECT_EQ(stream.backPressure, vexo_stats::kUnknown);
    EXPECT_LT(stream.callbackClock, stream.lastPacket - stream.firstPacket + page.process.clockPerSecond);
}

TEST_F(StatsTap, CountsAPacketThatIsTooShortForAType) {
    EXPECT_EQ(run("receive", "SCRIPTED_PACKETS=5 SCRIPTED_SIZE=3").output, "received 5\n");
    const Page page = this->page();
    ASSERT_THAT(page.streams, SizeIs(1));
    EXPECT_EQ(page.streams[0].packets[vexo_stats::kNoType], 5U);
    EXPECT_EQ(page.streams[0].bytes[vexo_stats::kNoType], 15U);
}

TEST_F(StatsTap, NotesTheStepsOfAStart) {
    run("receive", "SCRIPTED_PACKETS=20");
    const Page received = page();
    const auto& steps = received.process.steps;
    EXPECT_LE(steps[vexo_stats::kBegun], steps[vexo_stats::kCardLookedUp]);
    EXPECT_LT(steps[vexo_stats::kCardLookedUp], steps[vexo_stats::kStreamOpened]);
    EXPECT_LT(steps[vexo_stats::kStreamOpened], steps[vexo_stats::kFirstPoll]);
    EXPECT_LT(steps[vexo_stats::kFirstPoll], steps[vexo_stats::kFirstPacket]);
    EXPECT_LT(steps[vexo_stats::kFirstPacket], steps[vexo_stats::kFirstQuote]);  // the 17th
    EXPECT_LT(steps[vexo_stats::kFirstQuote], steps[vexo_stats::kEnded]);
    EXPECT_EQ(steps[vexo_stats::kReset], 0U);
    EXPECT_EQ(run("registers").status, 0);
    const Page accessed = page();
    EXPECT_NE(accessed.process.steps[vexo_stats::kReset], 0U);
    EXPECT_LT(accessed.process.steps[vexo_stats::kReset], accessed.process.steps[vexo_stats::kFirstWrite]);
    EXPECT_THAT(accessed.streams, IsEmpty());
}

TEST_F(StatsTap, ThePageIsWhereItWasStartedWhereverTheProgramGoes) {
    std::filesystem::create_directory("elsewhere");
    const ProgramResult result = runProgram("VEXO_STATS_DIR=pages SCRIPTED_PACKETS=5 " + word(VEXO_COMMAND) +
                                            " tap --stats-only --keep-page -- sh -c 'cd elsewhere && exec " +
                                            word(VEXO_TAP_APP) + " receive'");
    EXPECT_EQ(result.output, "received 5\n");
    ASSERT_TRUE(std::filesystem::exists("pages"));
    EXPECT_EQ(page().program(), "vexo_tap_app");
}

TEST_F(StatsTap, ChangesNothingThatTheProgramSees) {
    for (const char* way : {"throw", "twice", "no-handler", "ask-mtu", "registers", "other-name", "without-filter"}) {
        const ProgramResult plain = runProgram("SCRIPTED_PACKETS=10 " + word(VEXO_TAP_APP) + " " + way);
        const ProgramResult counted = run(way);
        EXPECT_EQ(counted.status, 0) << way;
        EXPECT_EQ(counted.output, plain.output) << way;
        page();
    }
}

TEST_F(StatsTap, ACallbackThatThrowsIsAPacketButNoCallbackThatReturned) {
    run("throw");
    const Page page = this->page();
    EXPECT_EQ(packetsOf(page.streams.at(0)), 10U);
    EXPECT_EQ(sum(page.streams.at(0).callbacks), 7U);
}

TEST_F(StatsTap, AProgramThatEndsInItsHandlerEndsInOrder) {
    EXPECT_EQ(run("exit-in-handler").status, 0);
    const Page page = this->page();
    EXPECT_EQ(page.life, Life::kEnded);
    EXPECT_EQ(packetsOf(page.streams.at(0)), 3U);
}

TEST_F(StatsTap, AChildOfForkDoesNotCountIntoThePageOfItsParent) {
    EXPECT_EQ(run("fork").status, 0);
    EXPECT_EQ(packetsOf(page().streams.at(0)), 10U);
}

TEST_F(StatsTap, AChildOfForkInAHandlerDoesNotCountThatCallback) {
    EXPECT_EQ(run("fork-in-handler").status, 0);
    const Page page = this->page();
    EXPECT_EQ(packetsOf(page.streams.at(0)), 10U);
    EXPECT_EQ(sum(page.streams.at(0).callbacks), 10U);
    EXPECT_EQ(page.streams.at(0).idlePolls, 1U);
}

TEST_F(StatsTap, AForkWhileThePageIsMadeDoesNotHangTheChild) {
    EXPECT_EQ(run("fork-while-opening").status, 0);
    EXPECT_EQ(packetsOf(page().streams.at(0)), 0U);
}

// The numbers go on while the stream is closed, and 0 is a number, too.
TEST_F(StatsTap, APacketThatIsTheFirstSinceTheStreamWasOpenedFollowsNoOther) {
    for (const char* first : {"0", "1", "7", "4294967290"}) {
        EXPECT_EQ(
            run("twice", std::string("SCRIPTED_PACKETS=40 SCRIPTED_HEADS=") + first, VEXO_TAP_APP_ON_SIMULATED_CARD)
                .status,
            0);
        const Page page = this->page();
        ASSERT_THAT(page.streams, SizeIs(1));
        EXPECT_EQ(packetsOf(page.streams[0]), 80U);
        EXPECT_EQ(page.streams[0].sequenceKnown, 1U);
        EXPECT_EQ(page.streams[0].sequenceGaps, 0U) << first;
        EXPECT_EQ(page.streams[0].sequenceRestarts, 0U) << first;
    }
}

// The scripted card counts each packet that it delivers, from 500 on.
TEST_F(StatsTap, WhatTheCardCountedBeforeTheStreamWasOpenedIsNotItsLoss) {
    EXPECT_EQ(run("twice", "SCRIPTED_PACKETS=10 SCRIPTED_BACKPRESSURE=500").status, 0);
    EXPECT_EQ(page().streams.at(0).backPressure, 20U);
}

TEST_F(StatsTap, AStreamThatTheCardFreedItselfDoesNotGiveItsBlockToAnother) {
    EXPECT_EQ(run("freed", "SCRIPTED_PACKETS=10 SCRIPTED_ONE_HANDLE=1").status, 0);
    const Page page = this->page();
    ASSERT_THAT(page.streams, SizeIs(2));
    EXPECT_EQ(packetsOf(page.streams[0]), 0U);
    EXPECT_EQ(page.streams[0].channel, 3U);
    EXPECT_EQ(page.streams[0].state, vexo_stats::kClosed);
    EXPECT_EQ(packetsOf(page.streams[1]), 10U);
    EXPECT_EQ(page.streams[1].channel, 5U);
}

TEST_F(StatsTap, AStreamThatIsOpenedAgainWithoutBeingClosedHasOneBlock) {
    EXPECT_EQ(run("forgotten").status, 0);
    const Page page = this->page();
    ASSERT_THAT(page.streams, SizeIs(1));
    EXPECT_EQ(packetsOf(page.streams[0]), 10U);
    EXPECT_EQ(page.streams[0].state, vexo_stats::kClosed);
}

TEST_F(StatsTap, AStreamThatIsOpenedAgainGoesOnInItsBlock) {
    EXPECT_EQ(run("twice").status, 0);
    const Page page = this->page();
    ASSERT_THAT(page.streams, SizeIs(1));
    EXPECT_EQ(packetsOf(page.streams[0]), 20U);
    EXPECT_EQ(page.streams[0].gaps[vexo_stats::kFirstBucket], 2U);
}

TEST_F(StatsTap, TwoStreamsThatAThreadPollsInTurnAreCountedByThemselves) {
    EXPECT_EQ(run("in-turn").output, "received 20\n");
    const Page page = this->page();
    ASSERT_THAT(page.streams, SizeIs(2));
    EXPECT_EQ(page.streams[0].channel, 3U);
    EXPECT_EQ(page.streams[1].card, 1U);
    EXPECT_EQ(page.streams[1].channel, 5U);
    for (const vexo_stats::Stream& stream : page.streams) {
        EXPECT_EQ(packetsOf(stream), 10U);
        EXPECT_EQ(stream.idlePolls, 1U);
        EXPECT_EQ(sum(stream.callbacks), 10U);
    }
}

TEST_F(StatsTap, ThePageIsRemovedAtTheEndUnlessItIsToBeKept) {
    EXPECT_EQ(run("receive", "VEXO_STATS_KEEP= SCRIPTED_PACKETS=3").output, "received 3\n");
    EXPECT_THAT(findPages(dir.Path("pages")).pages, IsEmpty());
    EXPECT_TRUE(std::filesystem::is_empty(dir.Path("pages")));
}

TEST_F(StatsTap, WithoutAPlaceForThePageTheProgramRunsAllTheSame) {
    dir.Write("pages", "a file");
    const ProgramResult program = run("receive");
    EXPECT_EQ(program.status, 0);
    EXPECT_THAT(program.output,
                HasSubstr("vexo tap: no statistics page: " + dir.Path("pages") + ": Not a directory\n"));
    EXPECT_THAT(program.output, HasSubstr("received 10\n"));
}

TEST_F(StatsTap, AnInvalidTimeOfTheRingIsReportedAndTheUsualOneUsed) {
    const ProgramResult program = run("receive", "VEXO_STATS_RING_LASTS_US=0 SCRIPTED_PACKETS=1");
    EXPECT_THAT(program.output,
                HasSubstr("VEXO_STATS_RING_LASTS_US=0 is not a number from 1 to 60000000: 1000 is used"));
    const Page page = this->page();
    EXPECT_NEAR(page.seconds(page.streams.at(0).longCallback), 1e-3, 1e-5);
}

// ---- a recording ----

TEST_F(StatsTap, ARecordingHasAPageToo) {
    EXPECT_THAT(record("receive", "SCRIPTED_PACKETS=1000 SCRIPTED_SIZE=301").output, HasSubstr("received 1000\n"));
    const Page page = this->page();
    EXPECT_EQ(page.program(), "vexo_tap_app");
    EXPECT_EQ(page.process.writer, vexo_stats::kTap);
    EXPECT_EQ(page.life, Life::kEnded);
    EXPECT_LT(page.process.steps[vexo_stats::kFirstPacket], page.process.steps[vexo_stats::kFirstQuote]);
    ASSERT_THAT(page.streams, SizeIs(1));
    const vexo_stats::Stream& stream = page.streams[0];
    EXPECT_EQ(stream.channel, 3U);
    EXPECT_EQ(stream.state, vexo_stats::kClosed);
    EXPECT_EQ(packetsOf(stream), 1000U);
    EXPECT_EQ(bytesOf(stream), 301'000U);
    EXPECT_EQ(stream.packets[17], 1U);
    EXPECT_EQ(sum(stream.gaps), 1000U);
    EXPECT_EQ(stream.gaps[vexo_stats::kFirstBucket], 1U);
    EXPECT_EQ(stream.pollsKnown, 0U);
    EXPECT_FALSE(knowsCallbacks(stream));
    EXPECT_EQ(stream.backPressure, vexo_stats::kUnknown);
    EXPECT_EQ(stream.lostByTap, 0U);
}

TEST_F(StatsTap, ARecordingWithoutAPlaceForThePageIsCompleteAllTheSame) {
    dir.Write("pages", "a file");
    const ProgramResult program = record("receive", "SCRIPTED_PACKETS=10");
    EXPECT_EQ(program.status, 0);
    EXPECT_THAT(program.output, HasSubstr("no statistics page: " + dir.Path("pages") + ": Not a directory\n"));
    EXPECT_THAT(program.output, HasSubstr("10 packets in 1 file(s), 0 lost"));
}

TEST_F(StatsTap, AStreamThatIsOpenedAgainGoesOnInItsBlockOfARecording) {
    EXPECT_EQ(record("twice", "SCRIPTED_PACKETS=10").status, 0);
    const Page page = this->page();
    ASSERT_THAT(page.streams, SizeIs(1));
    EXPECT_EQ(packetsOf(page.streams[0]), 20U);
    EXPECT_EQ(page.streams[0].gaps[vexo_stats::kFirstBucket], 2U);
}

TEST_F(StatsTap, ALayoutThatCannotBeUsedIsReportedAndCostsTheNumbersOnly) {
    for (const char* library : {VEXO_STATS_LIBRARY, VEXO_TAP_LIBRARY}) {
        const ProgramResult program = runWith(library, "receive", "VEXO_LAYOUT=none.ini SCRIPTED_PACKETS=5");
        EXPECT_EQ(program.status, 0);
        EXPECT_THAT(program.output, HasSubstr("none.ini: No such file or directory; name a layout file, or simulated; "
                                              "sequence numbers are not looked at\n"));
        EXPECT_EQ(page().streams.at(0).sequenceKnown, 0U);
    }
}
