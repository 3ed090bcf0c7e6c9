#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>

#include "capture/RegisterAccess.h"
#include "tests/support/TempDir.h"
#include "tests/unit/capture/CaptureSample.h"
#include "tests/unit/tools/Program.h"
#include "tests/unit/tools/ScriptedCard.h"

using namespace capture;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

namespace {

/// A program on a hardware library that the tap has never seen, with the tap in between.
class Tap : public ::testing::Test {
protected:
    ProgramResult run(const std::string& way, const std::string& settings = "SCRIPTED_PACKETS=10") {
        return runProgram(tapSettings(dir.Path("a.pcapng")) + settings + " " + preloading(VEXO_TAP_LIBRARY) +
                          word(VEXO_TAP_APP) + " " + way);
    }
    ReadFile read(const std::string& name = "a.pcapng") { return readPath(dir.Path(name)); }

    test_support::TempDir dir;
};

// The scripted card numbers its packets from 1.
std::uint32_t numberOf(const ReadPacket& packet) {
    std::uint32_t number = 0;
    packet.bytes.copy(reinterpret_cast<char*>(&number), sizeof number);
    return number;
}

RegisterAccess accessIn(const ReadPacket& packet) {
    RegisterAccess access;
    EXPECT_EQ(packet.bytes.size(), sizeof access);
    packet.bytes.copy(reinterpret_cast<char*>(&access), sizeof access);
    return access;
}

}  // namespace

TEST_F(Tap, RecordsEveryPacketThatTheProgramReceives) {
    const auto before = std::chrono::system_clock::now().time_since_epoch();
    const ProgramResult program = run("receive", "SCRIPTED_PACKETS=1000 SCRIPTED_SIZE=301");
    const auto after = std::chrono::system_clock::now().time_since_epoch();
    EXPECT_EQ(program.status, 0);
    EXPECT_THAT(program.output, HasSubstr("received 1000\n"));
    const ReadFile file = read();
    EXPECT_FALSE(file.damage);
    ASSERT_THAT(file.packets, SizeIs(1000));
    std::uint64_t last = static_cast<std::uint64_t>(std::chrono::nanoseconds(before).count());
    for (std::uint32_t i = 0; i < 1000; ++i) {
        const ReadPacket& packet = file.packets[i];
        ASSERT_EQ(packet.interface, "channel 3");
        ASSERT_EQ(packet.bytes.size(), 301U);
        ASSERT_EQ(numberOf(packet), i + 1);
        ASSERT_GE(packet.timeNs + 1'000'000, last);  // two clocks that are read one after another, in two processes
        last = packet.timeNs;
    }
    EXPECT_LE(last, static_cast<std::uint64_t>(std::chrono::nanoseconds(after).count()) + 1'000'000);
    const auto& counts = file.interface("channel 3")->counts;
    ASSERT_TRUE(counts);
    EXPECT_EQ(counts->received, 1000U);
    EXPECT_EQ(counts->dropped, 0U);
}

TEST_F(Tap, WithoutItTheProgramDoesTheSame) {
    const ProgramResult program = runProgram("SCRIPTED_PACKETS=1000 " + word(VEXO_TAP_APP) + " receive");
    EXPECT_EQ(program.status, 0);
    EXPECT_EQ(program.output, "received 1000\n");
}

TEST_F(Tap, TellsWhereItWritesAndWhatBecameOfThePackets) {
    EXPECT_THAT(run("receive").output, HasSubstr("vexo tap: writing " + dir.Path("a.pcapng") + "\n"));
    EXPECT_THAT(run("receive").output, HasSubstr("vexo tap: 10 packets in 1 file(s), 0 lost\n"));
}

TEST_F(Tap, TellsTheSameAsJsonOneObjectALine) {
    const std::string output = run("receive", "SCRIPTED_PACKETS=10 VEXO_TAP_JSON=1").output;
    EXPECT_THAT(output, HasSubstr("{\"tap\":\"notice\",\"text\":\"writing " + dir.Path("a.pcapng") + "\"}\n"));
    EXPECT_THAT(output, HasSubstr("{\"tap\":\"result\",\"packets\":10,\"files\":1,\"lost\":0}\n"));
    EXPECT_THAT(output, Not(HasSubstr("vexo tap:")));
}

TEST_F(Tap, NamesAStreamByTheFilterThatFoundIt) {
    const struct {
        const char* way;
        const char* interface;
    } cases[] = {{"receive", "channel 3"},
                 {"without-filter", "channel 0"},
                 {"by-index-on-second-card", "card 1 channel 5"},
                 {"other-name", "stream TRACE"}};
    for (const auto& c : cases) {
        EXPECT_EQ(run(c.way).status, 0);
        EXPECT_EQ(read().packetsOf(c.interface), 10U) << c.way;
        std::filesystem::remove(dir.Path("a.pcapng"));
    }
}

TEST_F(Tap, AnExceptionOfTheHandlerReachesTheProgramAndItsPacketIsRecorded) {
    const ProgramResult program = run("throw");
    EXPECT_EQ(program.status, 0);
    EXPECT_THAT(program.output, HasSubstr("received 10\n"));
    EXPECT_THAT(read().packets, SizeIs(10));
}

TEST_F(Tap, ThePacketWhoseHandlerEndsTheProgramIsInTheFile) {
    EXPECT_EQ(run("exit-in-handler").status, 0);
    const ReadFile file = read();
    EXPECT_FALSE(file.damage);
    EXPECT_THAT(file.packets, SizeIs(3));
    EXPECT_EQ(file.interface("channel 3")->counts->received, 3U);
}

TEST_F(Tap, ThePacketsOfAChildProcessAreNotRecorded) {
    const ProgramResult program = run("fork");
    EXPECT_EQ(program.status, 0);
    const ReadFile file = read();
    EXPECT_FALSE(file.damage);
    EXPECT_THAT(file.packets, SizeIs(10));
    EXPECT_FALSE(std::filesystem::exists(dir.Path("a.1.pcapng")));
}

TEST_F(Tap, AStreamThatIsOpenedAgainStaysTheSameInterface) {
    EXPECT_EQ(run("twice").status, 0);
    const ReadFile file = read();
    EXPECT_THAT(file.interfaces, SizeIs(1));
    EXPECT_EQ(file.packetsOf("channel 3"), 20U);
}

TEST_F(Tap, APollWithoutHandlerFailsAsItDoesWithoutTheTap) { EXPECT_EQ(run("no-handler").status, 0); }

TEST_F(Tap, ItsWriterRunsOnTheCpusThatTheProgramHadFirstAndTakesNoSignal) {
    const ProgramResult program = run("look-at-writer");
    EXPECT_EQ(program.status, 0) << program.output;
    // All but KILL and STOP, which nobody can block, and the two that the C library keeps for itself.
    EXPECT_THAT(program.output, HasSubstr("SigBlk:\tfffffffe7ffbfeff\n"));
}

TEST_F(Tap, RecordsRegisterAccessesOnRequestOnly) {
    EXPECT_EQ(run("registers").status, 0);
    EXPECT_FALSE(std::filesystem::exists(dir.Path("a.pcapng")));

    EXPECT_EQ(run("registers", "VEXO_TAP_REGISTERS=1").status, 0);
    const ReadFile file = read();
    ASSERT_EQ(file.packetsOf("registers"), 4U);
    const RegisterAccess reset = accessIn(file.packets[0]);
    EXPECT_EQ(reset.magic, kAccessMagic);
    EXPECT_EQ(reset.version, kAccessVersion);
    EXPECT_EQ(reset.kind, AccessKind::kCoreReset);
    EXPECT_EQ(reset.core, kRootCore);
    EXPECT_EQ(reset.card, 2U);
    const RegisterAccess write = accessIn(file.packets[1]);
    EXPECT_EQ(write.kind, AccessKind::kWrite);
    EXPECT_EQ(write.core, 474U);
    EXPECT_EQ(write.byteAddress, 0x418U);
    EXPECT_EQ(write.bitWidth, 32U);
    EXPECT_EQ(write.value, 20250115U);
    const RegisterAccess readAccess = accessIn(file.packets[2]);
    EXPECT_EQ(readAccess.kind, AccessKind::kRead);
    EXPECT_EQ(readAccess.value, 0x419U);
    EXPECT_EQ(readAccess.result, 0);
    EXPECT_EQ(readAccess.error, 0);
    const RegisterAccess failed = accessIn(file.packets[3]);
    EXPECT_EQ(failed.byteAddress, std::uint64_t{SCRIPTED_BAD_ADDRESS});
    EXPECT_EQ(failed.bitOffset, 8U);
    EXPECT_EQ(failed.value, 0U);
    EXPECT_EQ(failed.result, -1);
    EXPECT_EQ(failed.error, EIO);
}

// Nothing is written before the last packet came: what the file holds is what the ring and the writer's buffer took.
TEST_F(Tap, WhenTheWriterFallsBehindEveryPacketIsEitherInTheFileOrCounted) {
    constexpr std::uint64_t kPackets = 300'000;
    constexpr std::size_t kRing = (1U << 20) / (16 + 2000);  // packets, each behind 16 bytes of its own
    constexpr std::size_t kBuffer = 256 * 1024 / 2000 + 1;
    const ProgramResult program = run("without-disk", "SCRIPTED_PACKETS=300000 SCRIPTED_SIZE=2000 VEXO_TAP_RING_MB=1");
    EXPECT_EQ(program.status, 0);
    EXPECT_THAT(program.output, HasSubstr("received 300000\n"));
    const ReadFile file = read();
    EXPECT_FALSE(file.damage);
    EXPECT_GE(file.packets.size(), kRing);
    EXPECT_LE(file.packets.size(), kRing + kBuffer);
    const auto& counts = file.interface("channel 3")->counts;
    ASSERT_TRUE(counts);
    EXPECT_EQ(counts->received, kPackets);
    EXPECT_EQ(counts->dropped, kPackets - file.packets.size());
}

TEST_F(Tap, ALengthBeyondTheMtuIsCutToItAndTheTrueLengthIsKept) {
    const ProgramResult program = run("receive", "SCRIPTED_PACKETS=3 SCRIPTED_SIZE=12000000");
    EXPECT_EQ(program.status, 0) << program.output;
    EXPECT_THAT(program.output, HasSubstr("received 3\n"));
    const ReadFile file = read();
    EXPECT_FALSE(file.damage);
    ASSERT_THAT(file.packets, SizeIs(3));
    for (std::uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(numberOf(file.packets[i]), i + 1);
        EXPECT_EQ(file.packets[i].bytes.size(), std::size_t{SCRIPTED_MAX_SIZE});
        EXPECT_EQ(file.packets[i].trueSize, 12'000'000U);
    }
}

TEST_F(Tap, TheMtuThatTheProgramAskedForIsTheSame) {
    const ProgramResult program = run("ask-mtu", "SCRIPTED_PACKETS=3 SCRIPTED_SIZE=12000000");
    EXPECT_EQ(program.status, 0) << program.output;
    ASSERT_THAT(read().packets, SizeIs(3));
    EXPECT_EQ(read().packets[0].bytes.size(), std::size_t{SCRIPTED_MAX_SIZE});
}

TEST_F(Tap, APacketOfAStreamWithoutMtuIsKeptWhole) {
    const ProgramResult program = run("receive", "SCRIPTED_NO_MTU=1 SCRIPTED_PACKETS=3 SCRIPTED_SIZE=1500");
    EXPECT_EQ(program.status, 0) << program.output;
    ASSERT_THAT(read().packets, SizeIs(3));
    EXPECT_EQ(read().packets[0].bytes.size(), 1500U);
}

TEST_F(Tap, RotatesBySize) {
    EXPECT_EQ(run("receive", "SCRIPTED_PACKETS=2000 SCRIPTED_SIZE=2000 VEXO_TAP_ROTATE_MB=1").status, 0);
    std::uint32_t next = 1;
    std::uint64_t received = 0;
    for (const char* name : {"a.pcapng", "a.1.pcapng", "a.2.pcapng", "a.3.pcapng"}) {
        EXPECT_LE(std::filesystem::file_size(dir.Path(name)), 1U << 20) << name;
        const ReadFile file = read(name);
        for (const ReadPacket& packet : file.packets) EXPECT_EQ(numberOf(packet), next++);
        received += file.interface("channel 3")->counts->received;
    }
    EXPECT_EQ(next, 2001U);
    EXPECT_EQ(received, 2000U);
}

TEST_F(Tap, KeepsItsNewestFilesOverSeveralRuns) {
    const std::string settings =
        "SCRIPTED_PACKETS=2000 SCRIPTED_SIZE=2000 VEXO_TAP_ROTATE_MB=1 VEXO_TAP_KEEP=3 "
        "VEXO_TAP_KEEP_SPACE_MB=0";
    const auto files = [&] {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(dir.Path()))
            if (entry.path().extension() == ".pcapng") names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    };
    EXPECT_EQ(run("receive", settings).status, 0);
    EXPECT_THAT(files(), ElementsAre(StartsWith("a.00000002."), StartsWith("a.00000003."), StartsWith("a.00000004.")));
    EXPECT_EQ(run("receive", settings).status, 0);
    EXPECT_THAT(files(), ElementsAre(StartsWith("a.00000006."), StartsWith("a.00000007."), StartsWith("a.00000008.")));
    EXPECT_EQ(numberOf(read(files().back()).packets.back()), 2000U);
}

TEST_F(Tap, EndsTheRecordingAfterItsDurationAndTheProgramGoesOn) {
    const ProgramResult program = run("beyond-duration", "SCRIPTED_PACKETS=10 VEXO_TAP_DURATION_SECONDS=3600");
    EXPECT_EQ(program.status, 0);
    EXPECT_THAT(program.output, HasSubstr("received 10\n"));
    EXPECT_THAT(program.output, HasSubstr("vexo tap: recorded for 3600 seconds: the recording ends\n"
                                          "vexo tap: 5 packets in 1 file(s), 0 lost\n"));
    const ReadFile file = read();
    EXPECT_FALSE(file.damage);
    EXPECT_THAT(file.interfaces, SizeIs(1));
    EXPECT_EQ(file.interface("channel 3")->counts->received, 5U);
}

TEST_F(Tap, ItsDurationBeginsWithTheFirstStreamAndNotWithTheRegisters) {
    const ProgramResult program = run("after-long-start",
                                      "SCRIPTED_PACKETS=10 VEXO_TAP_REGISTERS=1 VEXO_TAP_DURATION_SECONDS=3600");
    EXPECT_EQ(program.status, 0);
    EXPECT_THAT(program.output, HasSubstr("received 10\n"));
    EXPECT_THAT(program.output, HasSubstr("vexo tap: recorded for 3600 seconds: the recording ends\n"));
    const ReadFile file = read();
    EXPECT_FALSE(file.damage);
    EXPECT_EQ(file.packetsOf("registers"), 4U);
    EXPECT_EQ(file.packetsOf("channel 3"), 5U);
}

TEST_F(Tap, AWrongNumberInItsVariablesIsToldAndNotUsed) {
    const std::string output = run("receive", "SCRIPTED_PACKETS=1 VEXO_TAP_KEEP=1 VEXO_TAP_DURATION_SECONDS=1h").output;
    EXPECT_THAT(output, HasSubstr("vexo tap: VEXO_TAP_KEEP=1 is not a number from 2 to 100000: 0 is used\n"));
    EXPECT_THAT(output, HasSubstr("vexo tap: VEXO_TAP_DURATION_SECONDS=1h is not a number from 0 to "));
    EXPECT_THAT(run("receive", "SCRIPTED_PACKETS=1 VEXO_TAP_KEEP=5").output,
                HasSubstr("VEXO_TAP_KEEP has no effect without VEXO_TAP_ROTATE_MB or VEXO_TAP_ROTATE_SECONDS: "));
    EXPECT_THAT(read("a.1.pcapng").packets, SizeIs(1));
}

TEST_F(Tap, AWrongNumberIsToldOnceAlsoWithRegisters) {
    const std::string told = "vexo tap: VEXO_TAP_RING_MB=x is not a number from ";
    const std::string output = run("registers", "VEXO_TAP_REGISTERS=1 VEXO_TAP_RING_MB=x").output;
    ASSERT_THAT(output, HasSubstr(told));
    EXPECT_THAT(output.substr(output.find(told) + 1), Not(HasSubstr(told))) << output;
}

TEST_F(Tap, DoesNotTouchAFileThatExists) {
    dir.Write("a.pcapng", "precious");
    EXPECT_EQ(run("receive").status, 0);
    EXPECT_EQ(dir.Read("a.pcapng"), "precious");
    EXPECT_THAT(read("a.1.pcapng").packets, SizeIs(10));
}

TEST_F(Tap, AKilledProgramLeavesWholeBlocks) {
    const std::string command = tapSettings(dir.Path("a.pcapng")) + "SCRIPTED_PACKETS=10 " +
                                preloading(VEXO_TAP_LIBRARY) + "exec " + word(VEXO_TAP_APP) + " wait";
    std::FILE* program = popen(command.c_str(), "r");
    ASSERT_NE(program, nullptr);
    int process = 0;
    ASSERT_EQ(std::fscanf(program, "process %d", &process), 1);
    while (read().packets.size() < 10) std::this_thread::yield();
    ASSERT_EQ(kill(process, SIGKILL), 0);
    const int status = pclose(program);
    EXPECT_TRUE(WIFSIGNALED(status));
    const ReadFile file = read();
    EXPECT_FALSE(file.damage);
    EXPECT_THAT(file.packets, SizeIs(10));
}

TEST_F(Tap, ALineThatNobodyReadsDoesNotEndTheProgram) {
    const ProgramResult program = runWithoutReader(tapSettings(dir.Path("none/a.pcapng")) + "SCRIPTED_PACKETS=10 " +
                                                   preloading(VEXO_TAP_LIBRARY) + word(VEXO_TAP_APP) + " receive");
    EXPECT_EQ(program.status, 0);
    EXPECT_EQ(program.output, "received 10\n");
}

// What the tap has looked up must not be gone when the program closes the library again.
TEST_F(Tap, AProgramMayCloseTheCardsLibraryAndGoOn) {
    const ProgramResult program = runProgram(tapSettings(dir.Path("a.pcapng")) + preloading(VEXO_TAP_LIBRARY) +
                                             word(VEXO_CARD_LOADER) + " " + word(VEXO_SCRIPTED_CARD));
    EXPECT_EQ(program.status, 0);
    EXPECT_EQ(program.output, "a filter\n");
}
