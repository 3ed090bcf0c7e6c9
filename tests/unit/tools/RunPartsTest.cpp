#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <optional>

#include "tests/support/TempDir.h"
#include "tools/vexo/Failure.h"
#include "tools/vexo/run/Ending.h"
#include "tools/vexo/run/KeptOutput.h"
#include "tools/vexo/run/Watchdog.h"

using namespace vexo;
using namespace vexo::run;
using ::testing::HasSubstr;

namespace {

constexpr double kLongest = 1;

std::vector<StreamPolls> Streams(std::initializer_list<StreamPolls> first) {
    std::vector<StreamPolls> streams(first);
    streams.resize(polls::kStreams);
    return streams;
}

// Of a process that ended with this status.
int Exited(int status) { return status << 8; }

class EndOfAStart : public ::testing::Test {
protected:
    std::optional<unsigned int> card;
    std::string lost;
    std::optional<bool> ready;  // nothing: as the output says
    Ending Judge(const std::string& output, bool isMaster = false, int status = 0) {
        dir.Write("app.out", output);
        Ended ended;
        ended.waitStatus = Exited(status);
        ended.output = "app.out";
        ended.lost = lost;
        ended.isMaster = isMaster;
        ended.card = card;
        ended.isAttached = true;
        ended.wasReady = ready.value_or(output.find("Init dma channel") != std::string::npos);
        return judge(ended);
    }
    test_support::TempDir dir;
};

constexpr char kBegin[] = "[INFO   ][time][log]log is initialized successfully.\n";
constexpr char kOpen[] = "[INFO   ][time][fpga]Init dma channel :CUSTOM_CHAN0_DATA success.\n";
constexpr char kTaken[] =
    "[ERROR  ][time][fpga]Could not create a2c stream.dmaName:CUSTOM_CHAN1_DATA,  err:Device or resource busy\n"
    "[ERROR  ][time][fpga]Create Brix service failed!\n";
constexpr char kNoAccelerator[] =
    "[ERROR  ][time][fpga]Could not find accelerator. ernno:19, msg:No such device, get acc num:0.\n";

}  // namespace

TEST(Watchdog, CountsFromTheLastPoll) {
    Watchdog watchdog;
    watchdog.look(Streams({{1, 10}}), 1, kLongest);
    EXPECT_EQ(watchdog.standingStill(), 0);
    watchdog.look(Streams({{1, 10}}), 0.5, kLongest);
    watchdog.look(Streams({{1, 10}}), 0.25, kLongest);
    EXPECT_EQ(watchdog.standingStill(), 0.75);
    watchdog.look(Streams({{1, 11}}), 0.5, kLongest);
    EXPECT_EQ(watchdog.standingStill(), 0);
}

TEST(Watchdog, FindsOneOfSeveralStreamsThatIsNotPolled) {
    Watchdog watchdog;
    for (std::uint64_t look = 0; look < 5; ++look)
        watchdog.look(Streams({{1, look}, {1, 7}, {1, 2 * look}}), 1, kLongest);
    EXPECT_EQ(watchdog.standingStill(), 4);
}

TEST(Watchdog, AStreamThatIsClosedOrOpenedAgainDoesNotStandStill) {
    Watchdog watchdog;
    watchdog.look(Streams({{1, 7}}), 1, kLongest);
    watchdog.look(Streams({{0, 7}}), 1, kLongest);
    watchdog.look(Streams({{0, 7}}), 1, kLongest);
    EXPECT_EQ(watchdog.standingStill(), 0);
    watchdog.look(Streams({{1, 7}}), 1, kLongest);
    EXPECT_EQ(watchdog.standingStill(), 0);
    watchdog.look(Streams({{2, 7}}), 1, kLongest);
    EXPECT_EQ(watchdog.standingStill(), 0);
}

TEST(Watchdog, ABreakOfTheSupervisorIsNotTheApplications) {
    Watchdog watchdog;
    watchdog.look(Streams({{1, 7}}), 0, kLongest);
    watchdog.look(Streams({{1, 7}}), 3600, kLongest);
    EXPECT_EQ(watchdog.standingStill(), kLongest);
}

TEST(BackOff, DoublesUpToItsLimit) {
    BackOff wait(1, 5);
    EXPECT_EQ(wait.next(0), 1);
    EXPECT_EQ(wait.next(0), 2);
    EXPECT_EQ(wait.next(5), 4);
    EXPECT_EQ(wait.next(0), 5);
    EXPECT_EQ(wait.next(0), 5);
}

TEST(BackOff, BeginsAnewAfterALongRun) {
    BackOff wait(1, 5);
    wait.next(0);
    wait.next(0);
    EXPECT_EQ(wait.next(5.1), 1);
    EXPECT_EQ(BackOff(8, 5).next(0), 5);
    EXPECT_EQ(BackOff(0, 5).next(0), 0);
}

TEST_F(EndOfAStart, ALineOfTheLogTellsAFailedStart) {
    const Ending ending = Judge(std::string(kBegin) + kNoAccelerator);
    EXPECT_FALSE(ending.orderly);
    EXPECT_EQ(ending.status, kNoCard);
    EXPECT_TRUE(ending.again);
    EXPECT_THAT(ending.text, HasSubstr("the start failed while opening the card: there is no card"));
    EXPECT_THAT(ending.text, HasSubstr("(app.out:2)"));
    EXPECT_TRUE(Judge(std::string(kBegin) + kOpen).orderly);
}

TEST_F(EndOfAStart, TheHintToHostACardNamesItsBus) {
    EXPECT_THAT(Judge(std::string(kBegin) + kNoAccelerator).text, HasSubstr("or start vexo-simcard (app.out:2)"));
    card = 3;
    EXPECT_THAT(Judge(std::string(kBegin) + kNoAccelerator).text,
                HasSubstr("or start vexo-simcard --bus 3 (app.out:2)"));
    EXPECT_THAT(Judge(std::string(kBegin) + kTaken).text, testing::Not(HasSubstr("--bus")));
}

TEST_F(EndOfAStart, AMasterThatFoundItsStreamTakenIsNotStartedAgain) {
    const Ending master = Judge(std::string(kBegin) + kTaken, true);
    EXPECT_EQ(master.status, kUseless);
    EXPECT_FALSE(master.again);
    const Ending other = Judge(std::string(kBegin) + kTaken, false);
    EXPECT_EQ(other.status, kFinding);
    EXPECT_TRUE(other.again);
}

TEST_F(EndOfAStart, AStatusOfTheApplicationDoesNotHideAFailedStart) {
    EXPECT_EQ(Judge(std::string(kBegin) + kTaken, true, 1).status, kUseless);
    const Ending own = Judge(std::string(kBegin) + kOpen, false, 7);
    EXPECT_EQ(own.status, 7);
    EXPECT_TRUE(own.again);
}

TEST_F(EndOfAStart, TheLoadersLineIsTheCauseOfStatus127) {
    const std::string line =
        "./app: error while loading shared libraries: libenyx-hw-c.so.1: cannot open shared object file: No such file "
        "or directory";
    const Ending ending = Judge("starting\n" + line + "\n", false, 127);
    EXPECT_EQ(ending.status, 127);
    EXPECT_FALSE(ending.again);
    EXPECT_FALSE(ending.loaded);
    EXPECT_EQ(ending.text, line +
                               "; install the library, or name its directory in LD_LIBRARY_PATH; for the simulated "
                               "card, put vexo sim run -- before the program (app.out:2)");
    EXPECT_THAT(Judge("./app: error while loading shared libraries: libc.so.9: no\n", false, 127).text,
                testing::Not(HasSubstr("simulated")));
    EXPECT_EQ(Judge(line + "\n", false, 7).text, "ended with status 7");
    EXPECT_TRUE(Judge("hello\n", false, 127).again);
}

// A script may start helpers that lack a library, then the application, then a command that is not there.
TEST_F(EndOfAStart, TheLoadersLineIsNotTheCauseOnceTheStreamWasOpen) {
    const std::string line = "./helper: error while loading shared libraries: libssl.so.9: no\n";
    const auto expectOwnStatus = [&](const std::string& output) {
        const Ending ending = Judge(output, false, 127);
        EXPECT_EQ(ending.text, "ended with status 127");
        EXPECT_TRUE(ending.again);
        EXPECT_TRUE(ending.loaded);
    };
    expectOwnStatus(line + kBegin + kOpen);
    ready = false;  // the polls were not seen
    expectOwnStatus(line + kBegin + kOpen);
    ready = true;  // the log does not tell
    expectOwnStatus(line);
    ready = false;
    EXPECT_FALSE(Judge(line + kBegin, false, 127).again);
}

TEST_F(EndOfAStart, ASecondChannelThatFailedIsAFailedStart) {
    EXPECT_FALSE(Judge(std::string(kBegin) + kOpen + kTaken).orderly);
    EXPECT_TRUE(Judge(std::string(kBegin) + kTaken + kBegin + kOpen).orderly);
}

TEST_F(EndOfAStart, WithoutOutputNobodyKnowsWhetherAnotherOneDoesHarm) {
    lost = "No space left on device";
    for (const int status : {0, 1}) {
        const Ending ending = Judge("hello\n", false, status);
        EXPECT_EQ(ending.status, kUseless);
        EXPECT_FALSE(ending.again);
        EXPECT_EQ(ending.text, "its stream was never open, and nobody knows why: app.out could not be written");
    }
    EXPECT_EQ(Judge(std::string(kBegin) + kNoAccelerator).status, kNoCard);
    EXPECT_TRUE(Judge(std::string(kBegin) + kOpen).orderly);
    EXPECT_EQ(Judge(std::string(kBegin) + kOpen, false, 7).status, 7);
}

TEST_F(EndOfAStart, WithoutALineTheStreamDecides) {
    EXPECT_EQ(Judge("hello\n").status, kFinding);
    EXPECT_THAT(Judge("hello\n").text, HasSubstr("its stream was never open"));
}

TEST(KeptOutput, KeepsTheNewestStarts) {
    test_support::TempDir dir;
    const KeptOutput output("app.out", 3);
    for (const char* start : {"1", "2", "3", "4"}) {
        const int fd = output.openNext();
        EXPECT_EQ(::write(fd, start, 1), 1);
        ::close(fd);
    }
    EXPECT_EQ(dir.Read("app.out") + dir.Read("app.out.1") + dir.Read("app.out.2"), "432");
    EXPECT_NE(::access("app.out.3", F_OK), 0);
}

TEST(KeptOutput, ASmallerCountRemovesWhatIsTooMuch) {
    test_support::TempDir dir;
    for (const char* old : {"app.out", "app.out.1", "app.out.2", "app.out.3"}) dir.Write(old, old);
    ::close(KeptOutput("app.out", 2).openNext());
    EXPECT_EQ(dir.Read("app.out.1"), "app.out");
    EXPECT_NE(::access("app.out.2", F_OK), 0);
    EXPECT_NE(::access("app.out.3", F_OK), 0);
    ::close(KeptOutput("app.out", 1).openNext());
    EXPECT_EQ(dir.Read("app.out"), "");
    EXPECT_NE(::access("app.out.1", F_OK), 0);
}

TEST(KeptOutput, DoesNotWriteThroughALink) {
    test_support::TempDir dir;
    dir.Write("precious", "data");
    ASSERT_EQ(::symlink("precious", "app.out"), 0);
    ::close(KeptOutput("app.out", 1).openNext());
    EXPECT_EQ(dir.Read("precious"), "data");
}

TEST(KeptOutput, SaysWhyADirectoryTakesNoMoreOutput) {
    test_support::TempDir dir;
    const KeptOutput output(dir.Path("app.out"), 1);
    EXPECT_EQ(output.fault(), "");
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit full{0, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &full), 0);
    EXPECT_EQ(output.fault(), "File too large");
    ::setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ(output.fault(), "");
    EXPECT_TRUE(std::filesystem::is_empty(dir.Path()));
}

TEST(KeptOutput, SaysWhichFileCannotBeMade) {
    test_support::TempDir dir;
    try {
        KeptOutput("none/app.out", 1).openNext();
        FAIL() << "there is no such directory";
    } catch (const Failure& failure) {
        EXPECT_STREQ(failure.what(), "none/app.out: No such file or directory");
    }
}
