// A card that another process hosts, as a process sees it that uses the hardware interface.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "enyx-sim/enyx_sim.h"
#include "enyx-sim/md_payload.h"
#include "interface/CardRegisters.h"
#include "tests/hosted/CardAccess.h"
#include "tests/hosted/HostProcess.h"
#include "tests/support/CaptureOutput.h"
#include "tests/unit/sim/shm/ShmFixture.h"

namespace hosted {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

struct HostedCard : ::testing::Test {
    CardDirectory directory;

    void SetUp() override { setenv("VEXO_SIM_CARD", "hosted", 1); }
    void TearDown() override { unsetenv("VEXO_SIM_CARD"); }
};

void CountPacket(const std::uint8_t*, std::uint32_t, void* count) { ++*static_cast<unsigned*>(count); }

// Packets of a stream until some came and no more follow for a while.
unsigned Drain(enyx_hw_a2c_stream* stream) {
    unsigned count = 0;
    EXPECT_TRUE(Eventually([&] { return enyx_hw_a2c_stream_poll_once(stream, CountPacket, &count) == 1; }));
    for (int idle = 0; idle < 10; ++idle)
        for (ShortPause(); enyx_hw_a2c_stream_poll_once(stream, CountPacket, &count) == 1;) idle = 0;
    return count;
}

int OwnStreamElsewhere(std::uint32_t channel) {
    Process other({VEXO_CARD_USER, "hold", std::to_string(channel)});
    EXPECT_TRUE(Eventually([&] { return StatusJson().find("card_user") != std::string::npos; }));
    other.Signal(SIGKILL);
    return other.Wait();
}

TEST_F(HostedCard, IsFoundAtItsBusAndAtNoOther) {
    const Process host = StartHost({"--bus", "3"});
    EXPECT_NE(FindCard(3), nullptr);
    errno = 0;
    EXPECT_EQ(FindCard(0), nullptr);
    EXPECT_EQ(errno, ENODEV);
}

TEST_F(HostedCard, KeepsWhatAnotherProcessWrote) {
    const Process host = StartHost({});
    Process writer({VEXO_CARD_USER, "write", "262", "20310305"});
    ASSERT_EQ(writer.Wait(), 0);
    std::uint64_t date = 0;
    ASSERT_EQ(Read(OpenRegisters(0), card_reg::kTradingDate, date), 0);
    EXPECT_EQ(date, 20310305U);
}

// The card's file must not get the number of the closed stream: what the card's library says would stand in its header.
TEST_F(HostedCard, IsNotSpoiledByAUserWhoseStandardErrorIsClosed) {
    const Process host = StartHost({});
    Process user({"/bin/sh", "-c", "exec '" VEXO_CARD_USER "' write 262 20310305 2>&-"});
    EXPECT_EQ(user.Wait(), 0);
    EXPECT_NE(StatusJson(), "");
}

TEST_F(HostedCard, SaysNothingIntoAFileInThePlaceOfAClosedStandardError) {
    const Process host = StartHost({});
    Process user({"/bin/sh", "-c", "exec '" VEXO_CARD_USER "' log '" + directory.Path() + "/log' 2>&-"});
    EXPECT_EQ(user.Wait(), 0);
}

TEST_F(HostedCard, SendsTheQuotesOfItsMasks) {
    const Process host = StartHost({});
    enyx_hw_core* core = OpenRegisters(0);
    enyx_hw_a2c_stream* stream = OpenStream(0, 5);
    ASSERT_NE(stream, nullptr);
    SetMask(core, 7, 1U << 5);
    Write(core, card_reg::kDecodeSwitch, 3);
    unsigned packets = 0;
    EXPECT_TRUE(Eventually([&] { return enyx_hw_a2c_stream_poll_once(stream, CountPacket, &packets) == 1; }));
    enyx_hw_a2c_stream_destroy(stream);
}

TEST_F(HostedCard, CardsOfSeveralBusesLieSideBySide) {
    const Process first = StartHost({"--bus", "0"});
    const Process second = StartHost({"--bus", "1"});
    Write(OpenRegisters(0), card_reg::kTradingDate, 20310101);
    Write(OpenRegisters(1), card_reg::kTradingDate, 20310202);
    std::uint64_t date = 0;
    Read(OpenRegisters(0), card_reg::kTradingDate, date);
    EXPECT_EQ(date, 20310101U);
    enyx_hw_a2c_stream* streams[] = {OpenStream(0, 4), OpenStream(1, 4)};
    EXPECT_NE(streams[0], nullptr);
    EXPECT_NE(streams[1], nullptr);
    for (enyx_hw_a2c_stream* stream : streams) enyx_hw_a2c_stream_destroy(stream);
}

TEST_F(HostedCard, AStreamThatAnotherProcessHoldsIsBusyAndItsHolderIsNamed) {
    const Process host = StartHost({});
    Process other({VEXO_CARD_USER, "hold", "9"});
    ASSERT_TRUE(Eventually([&] { return StatusJson().find("card_user") != std::string::npos; }));
    FindCard(0);  // its banner is not what this test looks at
    test_support::CaptureOutput output(STDERR_FILENO);
    errno = 0;
    EXPECT_EQ(OpenStream(0, 9), nullptr);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(output.Stop(),
              "libenyx-hw-c: stream CUSTOM_CHAN9_DATA of the simulated card at bus 0 is held by process " +
                  std::to_string(other.Id()) + " (card_user, user " + UserName() + ").\n");
}

TEST_F(HostedCard, ASecondHandleOfTheSameProcessIsRefusedToo) {
    const Process host = StartHost({});
    enyx_hw_a2c_stream* stream = OpenStream(0, 2);
    ASSERT_NE(stream, nullptr);
    errno = 0;
    EXPECT_EQ(OpenStream(0, 2), nullptr);
    EXPECT_EQ(errno, EBUSY);
    enyx_hw_a2c_stream_destroy(stream);
    stream = OpenStream(0, 2);
    EXPECT_NE(stream, nullptr);
    enyx_hw_a2c_stream_destroy(stream);
}

TEST_F(HostedCard, AKilledHolderReleasesItsStream) {
    const Process host = StartHost({});
    EXPECT_EQ(OwnStreamElsewhere(6), 128 + SIGKILL);
    enyx_hw_a2c_stream* stream = OpenStream(0, 6);
    EXPECT_NE(stream, nullptr);
    enyx_hw_a2c_stream_destroy(stream);
}

TEST_F(HostedCard, AKilledHolderReleasesTheCoreLock) {
    const Process host = StartHost({});
    Process other({VEXO_CARD_USER, "lock"}, directory.Path() + "/locked");
    ASSERT_TRUE(Eventually([&] {
        struct stat file {};
        return stat((directory.Path() + "/locked").c_str(), &file) == 0 && file.st_size > 0;
    }));
    other.Signal(SIGKILL);
    other.Wait();
    enyx_hw_core* core = OpenRegisters(0);
    EXPECT_EQ(enyx_hw_core_lock(core), 0);
    EXPECT_EQ(enyx_hw_core_unlock(core), 0);
}

TEST_F(HostedCard, AUserThatWasStoppedInsideAnAccessLosesItAndTheCardGoesOn) {
    const std::string hostErrors = directory.Path() + "/err";
    const Process host({VEXO_SIMCARD, "--quiet"}, {}, hostErrors);
    ASSERT_TRUE(Eventually([&] { return !StatusJson().empty(); }));
    enyx_hw_core* core = OpenRegisters(0);
    enyx_hw_a2c_stream* stream = OpenStream(0, 0);
    SetMask(core, 7, 1);
    Write(core, card_reg::kDecodeSwitch, 3);
    const pid_t stopped = fork();
    if (stopped == 0) {
        const auto card = vexo_sim::attachCard(0, geteuid(), "child");
        vexo_sim::StateLock lock(card->locks(), card->block().state);
        raise(SIGSTOP);
        card->block().state.registers.stored[card_reg::kTradingDate] = 20310101;
        _exit(lock.release() ? 1 : 0);
    }
    waitpid(stopped, nullptr, WUNTRACED);
    test_support::CaptureOutput output(STDERR_FILENO);
    EXPECT_EQ(Write(core, card_reg::kTradingDate, 20310305), 0);
    const std::string text = output.Stop() + ReadFile(hostErrors);
    EXPECT_THAT(text, HasSubstr(": process " + std::to_string(stopped) + " ("));
    EXPECT_THAT(text, HasSubstr("holds the simulated card at bus 0 and does not go on"));
    EXPECT_EQ(text.find("does not go on"), text.rfind("does not go on")) << "one line is enough: " << text;
    unsigned count = 0;  // more than the ring can have held before
    EXPECT_TRUE(Eventually([&] {
        while (enyx_hw_a2c_stream_poll_once(stream, CountPacket, &count) == 1) {
        }
        return count > 5000;
    })) << "the quotes stand still";
    kill(stopped, SIGCONT);
    int status = -1;
    waitpid(stopped, &status, 0);
    EXPECT_EQ(status, 0) << "the stopped process was told that its access counts";
    std::uint64_t date = 0;
    EXPECT_EQ(Read(core, card_reg::kTradingDate, date), 0);
    EXPECT_EQ(date, 20310305U);
    enyx_hw_a2c_stream_destroy(stream);
}

TEST_F(HostedCard, AUserThatWasStoppedUnderTheCoreLockLosesItAndItsAccessesFail) {
    const Process host = StartHost({});
    const std::string errors = directory.Path() + "/err";
    Process stopped({VEXO_CARD_USER, "stop-locked"}, {}, errors);
    int status = 0;
    ASSERT_EQ(waitpid(stopped.Id(), &status, WUNTRACED), stopped.Id());
    ASSERT_TRUE(WIFSTOPPED(status));
    enyx_hw_core* core = OpenRegisters(0);
    test_support::CaptureOutput output(STDERR_FILENO);
    EXPECT_EQ(enyx_hw_core_lock(core), 0);
    EXPECT_EQ(output.Stop(), "libenyx-hw-c: process " + std::to_string(stopped.Id()) + " (card_user, user " +
                                 UserName() +
                                 ") was stopped while it held a core lock of the simulated card at bus 0. It has lost "
                                 "the lock. When it goes on, its accesses under the lock fail (ECANCELED).\n");
    EXPECT_EQ(Write(core, card_reg::kTradingDate, 20310305), 0);
    stopped.Signal(SIGCONT);
    EXPECT_EQ(stopped.Wait(), 0) << "an access under a lost lock did not fail, or one after it did";
    EXPECT_THAT(ReadFile(errors), HasSubstr("libenyx-hw-c: this process was stopped in the middle of an access of the "
                                            "simulated card at bus 0. The others went on without it, and the access "
                                            "failed (ECANCELED).\n"));
    std::uint64_t date = 0;
    EXPECT_EQ(Read(core, card_reg::kTradingDate, date), 0);
    EXPECT_EQ(date, 20310305U);
    EXPECT_EQ(enyx_hw_core_unlock(core), 0);
}

TEST_F(HostedCard, UsersThatAreStoppedAtAnyMomentNeverWriteOverAnothersRegisters) {
    const Process host = StartHost({});
    std::vector<Process> users;
    std::vector<std::string> counts;
    for (int n = 0; n < 3; ++n) {
        counts.push_back(directory.Path() + "/count" + std::to_string(n));
        WriteFile(counts.back(), "");
        users.emplace_back(std::vector<std::string>{VEXO_CARD_USER, "go-on", counts.back()}, std::string{},
                           directory.Path() + "/err");
    }
    const auto goesOn = [&](int user) {
        const std::string before = ReadFile(counts[static_cast<std::size_t>(user)]);
        return Eventually([&] { return ReadFile(counts[static_cast<std::size_t>(user)]).size() > before.size(); });
    };
    for (int user = 0; user < 3; ++user) {
        EXPECT_TRUE(goesOn(user));
        users[static_cast<std::size_t>(user)].Signal(SIGSTOP);
        EXPECT_TRUE(goesOn((user + 1) % 3));
        EXPECT_TRUE(goesOn((user + 2) % 3));
        users[static_cast<std::size_t>(user)].Signal(SIGCONT);
        EXPECT_TRUE(goesOn(user));
    }
    for (Process& user : users) {
        EXPECT_TRUE(user.IsRunning()) << "ended by itself with " << user.Wait();
        user.Signal(SIGTERM);
        EXPECT_EQ(user.Wait(), 128 + SIGTERM);
    }
}

TEST_F(HostedCard, TheStreamOfADeadHostRunsDryAndItsRegistersFail) {
    Process host = StartHost({});
    enyx_hw_core* core = OpenRegisters(0);
    enyx_hw_a2c_stream* stream = OpenStream(0, 0);
    SetMask(core, 7, 1);
    Write(core, card_reg::kDecodeSwitch, 3);
    std::uint32_t waiting = 0;
    EXPECT_TRUE(
        Eventually([&] { return enyx_hw_a2c_stream_stats_get_packet_count(stream, &waiting) == 0 && waiting > 0; }));
    host.Signal(SIGKILL);
    host.Wait();
    Drain(stream);
    unsigned count = 0;
    EXPECT_EQ(enyx_hw_a2c_stream_poll_once(stream, CountPacket, &count), 0);
    std::uint64_t value = 0;
    errno = 0;
    EXPECT_EQ(Read(core, card_reg::kTradingDate, value), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(FindCard(0), nullptr);
    enyx_hw_a2c_stream_destroy(stream);
}

TEST_F(HostedCard, ANewHostIsFoundAtTheNextLook) {
    Process host = StartHost({});
    Write(OpenRegisters(0), card_reg::kTradingDate, 20310101);
    host.Signal(SIGKILL);
    host.Wait();
    const Process next = StartHost({});
    std::uint64_t date = 1;
    ASSERT_EQ(Read(OpenRegisters(0), card_reg::kTradingDate, date), 0);
    EXPECT_EQ(date, 0U) << "the new card has just been switched on";
}

TEST_F(HostedCard, ASecondHostOfABusIsRefusedWithTheFirstOnesName) {
    const Process host = StartHost({});
    Process second({VEXO_SIMCARD}, {}, directory.Path() + "/err");
    EXPECT_EQ(second.Wait(), 1);
    EXPECT_EQ(ReadFile(directory.Path() + "/err"),
              "vexo-simcard: bus 0 has a card already, hosted by process " + std::to_string(host.Id()) +
                  " (vexo-simcard, user " + UserName() + "). Stop that one, or choose another bus with --bus.\n");
}

TEST_F(HostedCard, AWrongCommandLineHostsNothing) {
    const struct {
        std::vector<std::string> words;
        std::string text;
    } wrong[] = {
        {{"--user", "nobody"}, "--user: only --status and --json look at the card of another user\n"},
        {{"--bus", "9"}, "--bus: 9 is not a whole number from 0 to 4\nSee vexo-simcard --help\n"},
        {{"--pace", "fast"}, "--pace: fast is none of real, x2 to x1000, max\nSee vexo-simcard --help\n"},
        {{"--seconds", "0"}, "--seconds: 0 is not a whole number from 1 to 31622400\nSee vexo-simcard --help\n"},
        {{"--scenario", "x.ini"},
         "unexpected argument: --scenario\nName the file without --scenario: vexo-simcard SCENARIO.ini\n"},
        {{"--record", "/none/a.pcapng"}, "--record /none/a.pcapng: there is no directory /none\n"},
    };
    for (const auto& one : wrong) {
        std::vector<std::string> words = {VEXO_SIMCARD};
        words.insert(words.end(), one.words.begin(), one.words.end());
        std::filesystem::remove(directory.Path() + "/err");
        Process process(words, {}, directory.Path() + "/err");
        EXPECT_EQ(process.Wait(), 2) << one.text;
        EXPECT_EQ(ReadFile(directory.Path() + "/err"), "vexo-simcard: " + one.text);
    }
}

TEST_F(HostedCard, AKilledHostLeavesNothingBehindOnceAnotherHasStarted) {
    Process host = StartHost({"--bus", "2"});
    host.Signal(SIGKILL);
    host.Wait();
    EXPECT_EQ(directory.Files().size(), 1U);
    Process next = StartHost({"--bus", "1"});
    EXPECT_THAT(directory.Files(), ElementsAre("vexo-simcard-" + std::to_string(geteuid()) + "-1"));
    next.Signal(SIGTERM);
    EXPECT_EQ(next.Wait(), 0);
    EXPECT_THAT(directory.Files(), IsEmpty());
}

TEST_F(HostedCard, IsForItsOwnersEyesOnlyUnlessAGroupIsNamed) {
    const std::string path = directory.Path() + "/vexo-simcard-" + std::to_string(geteuid()) + "-";
    struct stat own {
    }, shared{};
    const Process first = StartHost({"--bus", "0"});
    ASSERT_EQ(stat((path + "0").c_str(), &own), 0);
    EXPECT_EQ(own.st_mode & 0777U, 0600U);
    const Process second = StartHost({"--bus", "1", "--group", GroupName()});
    ASSERT_EQ(stat((path + "1").c_str(), &shared), 0);
    EXPECT_EQ(shared.st_mode & 0777U, 0660U);
}

TEST_F(HostedCard, WhatAHostOfAnotherVersionOrAHalfStartedOneLeftIsRemovedToo) {
    const std::string own = directory.Path() + "/vexo-simcard-" + std::to_string(geteuid()) + "-";
    WriteFile(own + "0", "VEXOCARD of another size");
    WriteFile(own + "1.new-abcdef", "");
    const Process host = StartHost({"--bus", "0"});
    EXPECT_THAT(directory.Files(), ElementsAre("vexo-simcard-" + std::to_string(geteuid()) + "-0"));
}

TEST_F(HostedCard, AFileInTheWayThatIsNoCardIsNamed) {
    const std::string path = directory.Path() + "/vexo-simcard-" + std::to_string(geteuid()) + "-0";
    WriteFile(path, "not a card");
    Process host({VEXO_SIMCARD}, {}, directory.Path() + "/err");
    EXPECT_EQ(host.Wait(), 1);
    EXPECT_EQ(ReadFile(directory.Path() + "/err"), "vexo-simcard: " + path +
                                                       " is in the way and no card of this user: a file of user " +
                                                       UserName() + ". Remove it, or choose another bus.\n");
}

TEST_F(HostedCard, AFileThatIsNoCardIsLeftAlone) {
    const std::string path = directory.Path() + "/vexo-simcard-" + std::to_string(geteuid()) + "-4";
    WriteFile(path, "not a card");
    const Process host = StartHost({"--bus", "0"});
    EXPECT_EQ(FindCard(4), nullptr);
    EXPECT_EQ(ReadFile(path), "not a card");
}

TEST_F(HostedCard, AChildOfItsUserHasStreamsOfItsOwnAndLeavesItsParentsAlone) {
    const Process host = StartHost({});
    enyx_hw_a2c_stream* parents = OpenStream(0, 4);
    ASSERT_NE(parents, nullptr);
    const pid_t child = fork();
    if (child == 0) {
        enyx_hw_a2c_stream_destroy(parents);
        if (OpenStream(0, 4) != nullptr) _exit(1);
        for (int n = 0; n < 2; ++n) {
            enyx_hw_a2c_stream* own = OpenStream(0, 5);
            if (own == nullptr) _exit(2);
            enyx_hw_a2c_stream_destroy(own);
        }
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    enyx_hw_a2c_stream* third = OpenStream(0, 5);
    EXPECT_NE(third, nullptr);
    enyx_hw_a2c_stream_destroy(third);
    enyx_hw_a2c_stream_destroy(parents);
}

TEST_F(HostedCard, EachCardAnnouncesItself) {
    const Process first = StartHost({"--bus", "0"});
    const Process second = StartHost({"--bus", "1"});
    test_support::CaptureOutput output(STDERR_FILENO);
    FindCard(0);
    FindCard(1);
    FindCard(0);
    const std::string text = output.Stop();
    EXPECT_THAT(text, HasSubstr("SIMULATED CARD at bus 0, hosted by process " + std::to_string(first.Id())));
    EXPECT_THAT(text, HasSubstr("SIMULATED CARD at bus 1, hosted by process " + std::to_string(second.Id())));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
}

TEST_F(HostedCard, IsNotSwitchedOffByItsUsers) {
    const Process host = StartHost({});
    FindCard(0);
    errno = 0;
    EXPECT_EQ(enyx_sim_power_cycle(nullptr), -1);
    EXPECT_EQ(errno, EPERM);
}

TEST_F(HostedCard, StatusTellsWhatTheCardLearnedAndWhoReads) {
    const Process host = StartHost({"--pace", "x100"});
    enyx_hw_core* core = OpenRegisters(0);
    enyx_hw_a2c_stream* stream = OpenStream(0, 11);
    SetMask(core, 7, 1U << 11);
    SetMask(core, 8, 1U << 11);
    Write(core, card_reg::kDecodeSwitch, 2);
    EXPECT_TRUE(Eventually([] { return StatusJson().find("\"learned\": 0") == std::string::npos; }));
    const std::string status = StatusJson();
    EXPECT_THAT(status, HasSubstr("\"pace\": \"x100\""));
    EXPECT_THAT(status, HasSubstr("\"masks\": {\n    \"single_leg\": 2,\n    \"combination\": 0\n  }"));
    EXPECT_THAT(status, HasSubstr("\"decode_switch\": 2"));
    EXPECT_THAT(status, HasSubstr("\"channel\": 11,\n      \"open\": true,\n      \"holder\": {\n        \"pid\": " +
                                  std::to_string(getpid())));
    enyx_hw_a2c_stream_destroy(stream);
}

// Sequence numbers of the quotes of a stream.
struct Sequences {
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    std::uint64_t count = 0;

    static void Take(const std::uint8_t* packet, std::uint32_t, void* context) {
        Sequences& self = *static_cast<Sequences*>(context);
        std::memcpy(&self.last, packet + sizeof(enyx_sim::PacketHead), sizeof self.last);
        if (self.count++ == 0) self.first = self.last;
    }
};

TEST_F(HostedCard, WhatASlowReaderLosesIsCountedAndShowsAsAGapInTheSequence) {
    const Process host = StartHost({"--pace", "x1000"});
    enyx_hw_core* core = OpenRegisters(0);
    enyx_hw_a2c_stream* stream = OpenStream(0, 1);
    SetMask(core, 7, 1U << 1);
    Write(core, card_reg::kDecodeSwitch, 3);
    std::uint32_t lost = 0;
    EXPECT_TRUE(Eventually([&] { return enyx_hw_a2c_stream_stats_get_backpressure(stream, &lost) == 0 && lost > 0; }));
    enyx_sim_pause_feed(0, 1);
    enyx_hw_a2c_stream_stats_get_backpressure(stream, &lost);
    Sequences seen;
    while (enyx_hw_a2c_stream_poll_once(stream, Sequences::Take, &seen) == 1) {
    }
    enyx_sim_pause_feed(0, 0);
    EXPECT_TRUE(Eventually([&] { return enyx_hw_a2c_stream_poll_once(stream, Sequences::Take, &seen) == 1; }));
    EXPECT_EQ(seen.last - seen.first + 1, seen.count + lost);
    enyx_hw_a2c_stream_destroy(stream);
}

TEST_F(HostedCard, AsFastAsTakenNothingIsLost) {
    const Process host = StartHost({"--pace", "max"});
    enyx_hw_core* core = OpenRegisters(0);
    enyx_hw_a2c_stream* stream = OpenStream(0, 1);
    SetMask(core, 7, 1U << 1);
    Write(core, card_reg::kDecodeSwitch, 3);
    unsigned count = 0;
    EXPECT_TRUE(Eventually([&] {
        for (int n = 0; n < 1000; ++n) enyx_hw_a2c_stream_poll_once(stream, CountPacket, &count);
        return count > 100'000;
    }));
    std::uint32_t lost = 1;
    EXPECT_EQ(enyx_hw_a2c_stream_stats_get_backpressure(stream, &lost), 0);
    EXPECT_EQ(lost, 0U);
    enyx_hw_a2c_stream_destroy(stream);
}

TEST(ChoiceOfCard, WithoutAHostTheProcessHasACardOfItsOwn) {
    const CardDirectory directory;
    Process user({VEXO_CARD_USER, "write", "262", "20310305"});
    EXPECT_EQ(user.Wait(), 0);
}

TEST(ChoiceOfCard, WhoInsistsOnAHostedCardFindsNoneWithoutAHost) {
    const CardDirectory directory;
    setenv("VEXO_SIM_CARD", "hosted", 1);
    Process user({VEXO_CARD_USER, "write", "262", "20310305"}, {}, directory.Path() + "/err");
    EXPECT_EQ(user.Wait(), ENODEV);
    unsetenv("VEXO_SIM_CARD");
    EXPECT_EQ(ReadFile(directory.Path() + "/err"),
              "libenyx-hw-c: no card is hosted that this user may use. Start one: vexo-simcard\n");
}

TEST(ChoiceOfCard, WhoInsistsOnACardOfItsOwnLeavesAHostedOneAlone) {
    const CardDirectory directory;
    const Process host = StartHost({});
    setenv("VEXO_SIM_CARD", "embedded", 1);
    Process user({VEXO_CARD_USER, "write", "262", "20310305"});
    EXPECT_EQ(user.Wait(), 0);
    unsetenv("VEXO_SIM_CARD");
    EXPECT_THAT(StatusJson(), HasSubstr("\"trading_date\": 0"));
}

TEST(ChoiceOfCard, AUserThatDoesNotExistIsRefused) {
    const CardDirectory directory;
    setenv("VEXO_SIM_CARD", "hosted:no-such-user", 1);
    Process user({VEXO_CARD_USER, "write", "262", "20310305"}, {}, directory.Path() + "/err");
    EXPECT_EQ(user.Wait(), ENODEV);
    unsetenv("VEXO_SIM_CARD");
    EXPECT_EQ(ReadFile(directory.Path() + "/err"),
              "libenyx-hw-c: VEXO_SIM_CARD is \"hosted:no-such-user\", there is no user no-such-user: "
              "no simulated card.\n");
}

// A host's card becomes one of another version: of another size too, as another version's would be.
void MakeAnotherVersion(const std::string& path) {
    const int file = open(path.c_str(), O_RDWR | O_CLOEXEC);
    const std::uint32_t header[] = {9, 12345};
    EXPECT_EQ(pwrite(file, header, sizeof header, 8), static_cast<ssize_t>(sizeof header));
    close(file);
}

TEST(OtherVersion, ItsCardIsNotUsedAndBothVersionsAreNamed) {
    const CardDirectory directory;
    const Process host = StartHost({});
    MakeAnotherVersion(directory.Path() + "/vexo-simcard-" + std::to_string(geteuid()) + "-0");
    Process user({VEXO_CARD_USER, "write", "262", "20310305"}, {}, directory.Path() + "/err");
    EXPECT_EQ(user.Wait(), 0) << "it has a card of its own";
    EXPECT_THAT(
        ReadFile(directory.Path() + "/err"),
        AllOf(HasSubstr("libenyx-hw-c: the card at bus 0 is not used. Its host, process " + std::to_string(host.Id())),
              HasSubstr("its card has layout 9 of 12345 bytes, this program's has layout ")));
}

TEST(OtherVersion, ASecondHostDoesNotAdviseToRemoveALiveCard) {
    const CardDirectory directory;
    const Process host = StartHost({});
    MakeAnotherVersion(directory.Path() + "/vexo-simcard-" + std::to_string(geteuid()) + "-0");
    Process second({VEXO_SIMCARD}, {}, directory.Path() + "/err");
    EXPECT_EQ(second.Wait(), 1);
    EXPECT_THAT(ReadFile(directory.Path() + "/err"),
                AllOf(HasSubstr("bus 0 has a card already, hosted by process " + std::to_string(host.Id())),
                      HasSubstr("of another version: its card has layout 9 of 12345 bytes"), Not(HasSubstr("emove"))));
}

TEST(ChoiceOfCard, AnotherWordIsRefusedWithTheWordsThatExist) {
    const CardDirectory directory;
    setenv("VEXO_SIM_CARD", "distant", 1);
    Process user({VEXO_CARD_USER, "write", "262", "20310305"}, {}, directory.Path() + "/err");
    EXPECT_EQ(user.Wait(), ENODEV);
    unsetenv("VEXO_SIM_CARD");
    EXPECT_EQ(ReadFile(directory.Path() + "/err"),
              "libenyx-hw-c: VEXO_SIM_CARD is \"distant\", it must be auto, embedded, hosted, hosted:USER or remote: "
              "no simulated card.\n");
}

}  // namespace
}  // namespace hosted
