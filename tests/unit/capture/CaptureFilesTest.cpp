#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <csignal>
#include <filesystem>

#include "capture/CaptureFiles.h"
#include "tests/support/StandardStreams.h"
#include "tests/support/TempDir.h"
#include "tests/unit/capture/CaptureSample.h"

using namespace capture;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

namespace {

class CaptureFilesTest : public ::testing::Test {
protected:
    CaptureFiles::Settings settings(const std::string& name, std::uint64_t rotateBytes = 0) {
        CaptureFiles::Settings s;
        s.path = dir.Path(name);
        s.rotateBytes = rotateBytes;
        s.report = [this](const std::string& line) { reports.push_back(line); };
        return s;
    }
    ReadFile read(const std::string& name) { return readPath(dir.Path(name)); }
    bool exists(const std::string& name) { return std::filesystem::exists(dir.Path(name)); }

    test_support::TempDir dir;
    std::vector<std::string> reports;
};

// No file of this process grows beyond so many bytes while it lives: as on a full disk.
class FullDisk {
public:
    explicit FullDisk(rlim_t bytes) : m_handler(std::signal(SIGXFSZ, SIG_IGN)) {
        getrlimit(RLIMIT_FSIZE, &m_before);
        const rlimit limit{bytes, m_before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FullDisk() {
        setrlimit(RLIMIT_FSIZE, &m_before);
        std::signal(SIGXFSZ, m_handler);
    }

private:
    void (*m_handler)(int);
    rlimit m_before{};
};

// Under which number this process has the file open; -1 if it has not.
int NumberOf(const std::string& path) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry, gone) == path) return std::stoi(entry.path().filename());
    }
    return -1;
}

}  // namespace

TEST_F(CaptureFilesTest, AreWholeWhenClosedWithTheCountsAtTheEnd) {
    CaptureFiles files(settings("a.pcapng"));
    const std::uint32_t channel = files.addInterface({kStreamLink, "channel 3", ""}, 1000);
    files.addPacket(channel, 1001, "one", 3);
    files.addPacket(channel, 1002, "two", 3);
    files.addLost(channel, 5);
    files.close(2000);
    const ReadFile file = read("a.pcapng");
    EXPECT_FALSE(file.damage);
    EXPECT_EQ(file.packetsOf("channel 3"), 2U);
    const auto& counts = file.interface("channel 3")->counts;
    ASSERT_TRUE(counts);
    EXPECT_EQ(counts->startNs, 1000U);
    EXPECT_EQ(counts->endNs, 2000U);
    EXPECT_EQ(counts->received, 7U);
    EXPECT_EQ(counts->dropped, 5U);
    EXPECT_EQ(files.written(), 2U);
    EXPECT_EQ(files.lost(), 5U);
}

TEST_F(CaptureFilesTest, AreReadableAfterAFlushWithoutHavingBeenClosed) {
    CaptureFiles files(settings("a.pcapng"));
    files.addPacket(files.addInterface({kStreamLink, "channel 3", ""}, 0), 1, "one", 3);
    files.flush();
    const ReadFile file = read("a.pcapng");
    EXPECT_FALSE(file.damage);
    EXPECT_THAT(file.packets, SizeIs(1));
}

TEST_F(CaptureFilesTest, NeverGetAStandardDescriptor) {
    EXPECT_EQ(test_support::InProcessWithout(test_support::kAllStandardStreams,
                                             [this] {
                                                 CaptureFiles files(settings("a.pcapng"));
                                                 files.addInterface({kStreamLink, "channel 3", ""}, 1);
                                                 if (!exists("a.pcapng")) return 2;
                                                 return test_support::AreStandardNumbersFree() ? 0 : 1;
                                             }),
              0);
}

TEST_F(CaptureFilesTest, NoFileIsEverOverwritten) {
    dir.Write("a.pcapng", "precious");
    dir.Write("a.2.pcapng", "precious too");
    for (int run = 0; run < 2; ++run) {
        CaptureFiles files(settings("a.pcapng"));
        files.addInterface({kStreamLink, "channel 0", ""}, 0);
        files.close(1);
    }
    EXPECT_EQ(dir.Read("a.pcapng"), "precious");
    EXPECT_EQ(dir.Read("a.2.pcapng"), "precious too");
    EXPECT_THAT(reports, ElementsAre("writing " + dir.Path("a.1.pcapng"), "writing " + dir.Path("a.3.pcapng")));
}

TEST_F(CaptureFilesTest, ANameWithoutExtensionGetsItsNumberAtTheEnd) {
    dir.Write("capture", "precious");
    CaptureFiles files(settings("./capture"));
    files.addInterface({kStreamLink, "channel 0", ""}, 0);
    files.close(1);
    EXPECT_TRUE(exists("capture.1"));
}

TEST_F(CaptureFilesTest, RotateSoThatNoneGrowsBeyondItsSizeAndEachStandsForItself) {
    constexpr std::uint64_t kLimit = 4096;
    CaptureFiles files(settings("a.pcapng", kLimit));
    const std::uint32_t zero = files.addInterface({kStreamLink, "channel 0", ""}, 0);
    const std::uint32_t one = files.addInterface({kStreamLink, "channel 1", ""}, 0);
    const std::string bytes(300, 'x');
    for (std::uint64_t i = 0; i < 100; ++i) files.addPacket(i % 2 == 0 ? zero : one, i, bytes.data(), 300);
    files.addLost(one, 3);
    files.close(100);
    std::uint64_t next = 0;
    std::uint64_t dropped = 0;
    for (unsigned n = 0; n < files.files(); ++n) {
        const std::string name = n == 0 ? "a.pcapng" : "a." + std::to_string(n) + ".pcapng";
        EXPECT_LE(std::filesystem::file_size(dir.Path(name)), kLimit);
        const ReadFile file = read(name);
        EXPECT_FALSE(file.damage);
        for (const ReadPacket& packet : file.packets) EXPECT_EQ(packet.timeNs, next++);
        for (const char* interface : {"channel 0", "channel 1"}) {
            const InterfaceCounts counts = *file.interface(interface)->counts;
            EXPECT_EQ(counts.received, file.packetsOf(interface) + counts.dropped);
            dropped += counts.dropped;
        }
    }
    EXPECT_EQ(next, 100U);
    EXPECT_EQ(dropped, 3U);
    EXPECT_EQ(files.written(), 100U);
    EXPECT_GT(files.files(), 5U);
}

TEST_F(CaptureFilesTest, StreamsThatAreOpenedNearTheLimitDoNotPushAFileBeyondIt) {
    constexpr std::uint64_t kLimit = 10'000;
    const std::string bytes(90, 'x');
    for (std::uint64_t before = 55; before < 80; ++before) {  // packets: some files have room for a stream, others not
        const std::string name = std::to_string(before);
        CaptureFiles files(settings(name, kLimit));
        std::uint32_t last = files.addInterface({kStreamLink, "channel 0", ""}, 0);
        for (std::uint64_t i = 0; i < before; ++i) files.addPacket(last, i, bytes.data(), 90);
        for (int i = 1; i <= 5; ++i) last = files.addInterface({kStreamLink, "channel " + std::to_string(i), ""}, 100);
        files.addPacket(last, 101, "of the last", 11);
        files.close(102);
        std::size_t packets = 0;
        for (unsigned n = 0; n < files.files(); ++n) {
            const std::string path = n == 0 ? name : name + "." + std::to_string(n);
            EXPECT_LE(std::filesystem::file_size(dir.Path(path)), kLimit) << path;
            const ReadFile file = read(path);
            EXPECT_FALSE(file.damage) << path;
            for (const Interface& interface : file.interfaces) EXPECT_TRUE(interface.counts) << path;
            packets += file.packets.size();
        }
        EXPECT_EQ(packets, before + 1) << name;
    }
}

TEST_F(CaptureFilesTest, APacketLargerThanTheLimitHasAFileOfItsOwn) {
    CaptureFiles files(settings("a.pcapng", 1000));
    const std::uint32_t channel = files.addInterface({kStreamLink, "channel 0", ""}, 0);
    const std::string bytes(3000, 'x');
    files.addPacket(channel, 1, bytes.data(), 3000);
    files.addPacket(channel, 2, bytes.data(), 3000);
    files.close(3);
    EXPECT_THAT(read("a.pcapng").packets, SizeIs(1));
    EXPECT_THAT(read("a.1.pcapng").packets, SizeIs(1));
    EXPECT_EQ(files.files(), 2U);
}

TEST_F(CaptureFilesTest, AFullDiskIsToldOnceAndCostsCountedPacketsOnly) {
    CaptureFiles files(settings("a.pcapng"));
    const std::uint32_t channel = files.addInterface({kStreamLink, "channel 0", ""}, 0);
    const std::string bytes(1000, 'x');
    {
        const FullDisk full(3000);
        for (std::uint64_t i = 0; i < 6; ++i) {
            files.addPacket(channel, i, bytes.data(), 1000);
            files.flush();
        }
    }
    files.addPacket(channel, 6, bytes.data(), 1000);
    files.close(7);
    const ReadFile file = read("a.pcapng");
    EXPECT_FALSE(file.damage);
    ASSERT_THAT(file.packets, SizeIs(3));
    EXPECT_EQ(file.packets[2].timeNs, 6U);
    EXPECT_EQ(file.interfaces[0].counts->received, 7U);
    EXPECT_EQ(file.interfaces[0].counts->dropped, 4U);
    EXPECT_THAT(reports,
                ElementsAre(StartsWith("writing "),
                            "cannot write " + dir.Path("a.pcapng") + ": File too large; packets are lost, and counted",
                            "4 packets were lost while " + dir.Path("a.pcapng") + " could not be written"));
}

TEST_F(CaptureFilesTest, EachFullDiskIsToldAndThePacketsThatItCost) {
    CaptureFiles files(settings("a.pcapng"));
    const std::uint32_t channel = files.addInterface({kStreamLink, "channel 0", ""}, 0);
    const std::string bytes(1000, 'x');
    for (std::uint64_t round = 0; round < 2; ++round) {
        files.addPacket(channel, round, "kept", 4);
        files.flush();
        const FullDisk full(500);
        for (std::uint64_t i = 0; i < round + 1; ++i) files.addPacket(channel, round, bytes.data(), 1000);
        files.flush();
    }
    files.close(7);
    const ReadFile file = read("a.pcapng");
    EXPECT_FALSE(file.damage);
    EXPECT_THAT(file.packets, SizeIs(2));
    EXPECT_EQ(file.interfaces[0].counts->dropped, 3U);
    const std::string cannot = "cannot write " + dir.Path("a.pcapng") + ": ";
    EXPECT_THAT(reports, ElementsAre(StartsWith("writing "), StartsWith(cannot), StartsWith("1 packets were lost"),
                                     StartsWith(cannot), StartsWith("2 packets were lost")));
}

TEST_F(CaptureFilesTest, ADiskThatStaysFullUntilTheEndIsToldWithThePacketsThatItCost) {
    CaptureFiles files(settings("a.pcapng"));
    const std::uint32_t channel = files.addInterface({kStreamLink, "channel 0", ""}, 0);
    files.flush();
    const FullDisk full(1);
    files.addPacket(channel, 1, "lost", 4);
    files.close(7);
    EXPECT_FALSE(read("a.pcapng").damage);
    EXPECT_THAT(reports, ElementsAre(StartsWith("writing "), StartsWith("cannot write "),
                                     "1 packets were lost while " + dir.Path("a.pcapng") + " could not be written"));
}

TEST_F(CaptureFilesTest, LossesForWhichTheDiskHasNoRoomAtTheEndOfAFileAreInTheNextOne) {
    constexpr std::uint64_t kHour = 3'600'000'000'000;
    for (const bool isAtTheEnd : {false, true}) {
        const std::string name = isAtTheEnd ? "end" : "next";
        CaptureFiles::Settings hourly = settings(name);
        hourly.rotateEveryNs = kHour;
        CaptureFiles files(hourly);
        const std::uint32_t channel = files.addInterface({kStreamLink, "channel 0", ""}, 0);
        files.addPacket(channel, 1, "first", 5);
        files.flush();
        CardCounts card;
        card.backPressure = 5;
        {
            const FullDisk full(std::filesystem::file_size(dir.Path(name)));
            for (std::uint64_t i = 2; i < 9; ++i) files.addPacket(channel, i, "lost", 4);
            files.addLost(channel, 3);
            files.setCard(channel, card);
            files.tick(kHour);
        }
        if (!isAtTheEnd) files.addPacket(channel, kHour + 1, "kept", 4);
        files.close(kHour + 2);
        const ReadFile first = read(name);
        EXPECT_FALSE(first.damage);
        EXPECT_THAT(first.packets, SizeIs(1));
        EXPECT_FALSE(first.interfaces[0].counts);
        const ReadFile second = read(name + ".1");
        ASSERT_THAT(second.interfaces, SizeIs(1)) << name;
        ASSERT_TRUE(second.interfaces[0].counts);
        EXPECT_EQ(second.interfaces[0].counts->startNs, 0U);
        EXPECT_EQ(second.interfaces[0].counts->received, second.packets.size() + 10);
        EXPECT_EQ(second.interfaces[0].counts->dropped, 10U);
        EXPECT_EQ(second.interfaces[0].counts->card->backPressure, 5U);
        EXPECT_EQ(files.lost(), 10U);
        EXPECT_EQ(files.written(), first.packets.size() + second.packets.size());
    }
}

TEST_F(CaptureFilesTest, APacketThatWasCutKeepsItsTrueSize) {
    CaptureFiles files(settings("a.pcapng"));
    const std::uint32_t channel = files.addInterface({kStreamLink, "channel 0", ""}, 0);
    files.addPacket(channel, 1, "whole", 5);
    files.addPacket(channel, 2, "head", 4, 9'000'000);
    files.close(3);
    const ReadFile file = read("a.pcapng");
    ASSERT_THAT(file.packets, SizeIs(2));
    EXPECT_EQ(file.packets[0].trueSize, 5U);
    EXPECT_EQ(file.packets[1].bytes, "head");
    EXPECT_EQ(file.packets[1].trueSize, 9'000'000U);
}

TEST_F(CaptureFilesTest, AnInterfaceThatAFullDiskRefusedIsDescribedBeforeItsNextPacket) {
    CaptureFiles files(settings("a.pcapng"));
    {
        const FullDisk full(1);
        files.addPacket(files.addInterface({kStreamLink, "channel 0", ""}, 0), 1, "lost", 4);
        files.flush();
    }
    files.addPacket(0, 2, "kept", 4);
    files.close(3);
    const ReadFile file = read("a.pcapng");
    EXPECT_FALSE(file.damage);
    ASSERT_THAT(file.packets, SizeIs(1));
    EXPECT_EQ(file.packets[0].bytes, "kept");
}

TEST_F(CaptureFilesTest, AFileThatCannotBeCreatedIsToldOnceAndTriedAgain) {
    CaptureFiles files(settings("later/a.pcapng"));
    const std::uint32_t channel = files.addInterface({kStreamLink, "channel 0", ""}, 0);
    files.addPacket(channel, 1, "lost", 4);
    files.flush();
    std::filesystem::create_directory(dir.Path("later"));
    files.flush();
    files.addPacket(channel, 2, "kept", 4);
    files.close(3);
    const ReadFile file = read("later/a.pcapng");
    ASSERT_THAT(file.packets, SizeIs(1));
    EXPECT_EQ(file.interfaces[0].counts->dropped, 1U);
    EXPECT_THAT(reports, ElementsAre("cannot create " + dir.Path("later/a.pcapng") + ": No such file or directory",
                                     StartsWith("writing "), StartsWith("1 packets were lost while ")));
}

TEST_F(CaptureFilesTest, AFileThatTookTheNumberOfOursIsNotTouched) {
    const std::string precious = dir.Write("own.txt", "precious");
    int own = -1;
    {
        CaptureFiles files(settings("a.pcapng"));
        const std::uint32_t channel = files.addInterface({kStreamLink, "channel 0", ""}, 0);
        files.addPacket(channel, 1, "first", 5);
        files.flush();
        own = NumberOf(dir.Path("a.pcapng"));
        ASSERT_GE(own, 0);
        const int opened = ::open(precious.c_str(), O_RDWR);
        ASSERT_EQ(::dup2(opened, own), own);  // as after closefrom()
        ::close(opened);
        files.addPacket(channel, 2, "lost", 4);
        files.flush();
        files.addPacket(channel, 3, "kept", 4);
        files.close(4);
    }
    EXPECT_EQ(dir.Read("own.txt"), "precious");
    EXPECT_EQ(NumberOf(precious), own) << "it was closed";
    ::close(own);
    EXPECT_THAT(read("a.pcapng").packets, SizeIs(1));
    const ReadFile file = read("a.1.pcapng");
    ASSERT_THAT(file.packets, SizeIs(1));
    EXPECT_EQ(file.packets[0].bytes, "kept");
    EXPECT_EQ(file.interfaces[0].counts->received, 2U);
    EXPECT_EQ(file.interfaces[0].counts->dropped, 1U);
    EXPECT_THAT(reports, ElementsAre("writing " + dir.Path("a.pcapng"),
                                     "cannot write " + dir.Path("a.pcapng") +
                                         " any more: the program has closed its descriptor; the next packet begins "
                                         "another file",
                                     "1 packets were lost while " + dir.Path("a.pcapng") + " could not be written",
                                     "writing " + dir.Path("a.1.pcapng")));
}

TEST_F(CaptureFilesTest, WhatIsLostWithTheDescriptorAtTheEndIsInOneMoreFile) {
    CaptureFiles files(settings("a.pcapng"));
    const std::uint32_t channel = files.addInterface({kStreamLink, "channel 0", ""}, 0);
    files.addPacket(channel, 1, "first", 5);
    files.flush();
    files.addPacket(channel, 2, "lost", 4);
    ASSERT_EQ(::close(NumberOf(dir.Path("a.pcapng"))), 0);
    files.close(3);
    EXPECT_THAT(read("a.pcapng").packets, SizeIs(1));
    ASSERT_THAT(read("a.1.pcapng").interfaces, SizeIs(1));
    EXPECT_EQ(read("a.1.pcapng").interfaces[0].counts->received, 1U);
    EXPECT_EQ(read("a.1.pcapng").interfaces[0].counts->dropped, 1U);
}

TEST_F(CaptureFilesTest, AFileThatTookTheNumberOfOursSurvivesTheEnd) {
    for (const bool isClosed : {true, false}) {
        const std::string precious = dir.Write("own.txt", "precious");
        const std::string name = isClosed ? "closed" : "destroyed";
        int own = -1;
        {
            CaptureFiles files(settings(name));
            files.addPacket(files.addInterface({kStreamLink, "channel 0", ""}, 0), 1, "first", 5);
            files.flush();
            own = NumberOf(dir.Path(name));
            const int opened = ::open(precious.c_str(), O_RDWR);
            ASSERT_EQ(::dup2(opened, own), own);
            ::close(opened);
            if (isClosed) files.close(2);
        }
        EXPECT_EQ(dir.Read("own.txt"), "precious");
        EXPECT_EQ(NumberOf(precious), own) << name;
        ::close(own);
    }
}
