// A recorder that keeps its newest files: what it creates, what it removes, and what it never touches.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <filesystem>

#include "capture/CaptureFiles.h"
#include "tests/support/StandardStreams.h"
#include "tests/support/TempDir.h"
#include "tests/unit/capture/CaptureSample.h"
#include "tests/unit/capture/RecorderCalls.h"

using namespace capture;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::SizeIs;
using ::testing::StartsWith;
namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t kSecond = 1'000'000'000;
constexpr std::uint64_t kHour = 3600 * kSecond;
constexpr std::uint64_t kMorning = 1'795'309'200 * kSecond;  // 2026-11-22 01:00:00 UTC
const std::uint64_t kSmall = 924 + statisticsBlockBytes();   // of a file: two packets of 300 fit, and its counts

class Recorder : public ::testing::Test {
protected:
    ~Recorder() override { recorder_calls::g_freeBytes = nullptr; }

    CaptureFiles::Settings settings(std::size_t keep, std::uint64_t rotateBytes = kSmall) {
        CaptureFiles::Settings s;
        s.path = dir.Path("run/a.pcapng");
        s.rotateBytes = rotateBytes;
        s.recorder.keep = keep;
        s.report = [this](const std::string& line) { reports.push_back(line); };
        fs::create_directory(dir.Path("run"));
        return s;
    }
    /// A whole recording of packets of 300 bytes, numbered from @p first, one a second.
    void record(const CaptureFiles::Settings& s, std::uint64_t packets, std::uint64_t first = 0) {
        CaptureFiles files(s);
        const std::uint32_t channel = files.addInterface({kStreamLink, "channel 0", ""}, kMorning);
        const std::string bytes(300, 'x');
        for (std::uint64_t i = 0; i < packets; ++i) {
            files.addPacket(channel, kMorning + (first + i) * kSecond, bytes.data(), 300);
            files.tick(kMorning + (first + i) * kSecond);
        }
        files.close(kMorning + (first + packets) * kSecond);
    }
    /// Names of the recording's folder, sorted.
    std::vector<std::string> names() const {
        std::vector<std::string> found;
        for (const auto& entry : fs::directory_iterator(dir.Path("run"))) found.push_back(entry.path().filename());
        std::sort(found.begin(), found.end());
        return found;
    }
    std::string path(const std::string& name) const { return dir.Path("run/" + name); }

    test_support::TempDir dir;
    std::vector<std::string> reports;
};

// The packets of a file that is whole, by their seconds.
std::vector<std::uint64_t> SecondsIn(const std::string& path) {
    const ReadFile file = readPath(path);
    EXPECT_FALSE(file.damage) << path;
    std::vector<std::uint64_t> seconds;
    for (const ReadPacket& packet : file.packets) seconds.push_back((packet.timeNs - kMorning) / kSecond);
    return seconds;
}

// What a child process does that may be killed. @return whether it was
bool IsKilledIn(const std::function<void()>& act) {
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        act();
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFSIGNALED(status);
}

}  // namespace

TEST_F(Recorder, KeepsTheNewestFilesAndTheirNamesSortByAge) {
    record(settings(3), 12);
    EXPECT_THAT(names(), ElementsAre("a.00000004.20261122T010006Z.pcapng", "a.00000005.20261122T010008Z.pcapng",
                                     "a.00000006.20261122T010010Z.pcapng"));
    EXPECT_THAT(SecondsIn(path(names()[0])), ElementsAre(6, 7));
    EXPECT_THAT(SecondsIn(path(names()[2])), ElementsAre(10, 11));
    EXPECT_THAT(reports, Contains("writing " + path("a.00000004.20261122T010006Z.pcapng") +
                                  "; removed a.00000001.20261122T010000Z.pcapng"));
}

TEST_F(Recorder, ANextRunGoesOnWithTheNumbersAndTheBound) {
    record(settings(3), 6);
    record(settings(3), 2, 100);
    EXPECT_THAT(names(), ElementsAre("a.00000002.20261122T010002Z.pcapng", "a.00000003.20261122T010004Z.pcapng",
                                     "a.00000004.20261122T010140Z.pcapng"));
    record(settings(2), 2, 200);
    EXPECT_THAT(names(), ElementsAre(StartsWith("a.00000004."), StartsWith("a.00000005.")));
    EXPECT_THAT(reports.back(), EndsWith("; removed 2 files up to a.00000003.20261122T010004Z.pcapng"));
}

TEST_F(Recorder, ARunWithoutAPacketLeavesNoFileAndRemovesNone) {
    record(settings(2), 4);
    for (int run = 0; run < 5; ++run) record(settings(2), 0);
    EXPECT_THAT(names(), ElementsAre(StartsWith("a.00000001."), StartsWith("a.00000002.")));
}

TEST_F(Recorder, ItsNamesCarryTheDateOfUtc) {
    const struct {
        std::uint64_t seconds;
        const char* text;
    } cases[] = {{0, "19700101T000000Z"},
                 {951'782'399, "20000228T235959Z"},
                 {951'782'400, "20000229T000000Z"},
                 {1'835'438'400, "20280229T120000Z"},
                 {4'107'542'399, "21000228T235959Z"},
                 {4'107'542'400, "21000301T000000Z"},
                 {1'798'761'599, "20261231T235959Z"}};
    for (const auto& c : cases) {
        RecorderFiles files(dir.Path("d.pcapng"), {2, 0}, [](const std::string&) {});
        const auto created = files.create(c.seconds * kSecond, [](const std::string&) { return BlockBuffer{1}; });
        EXPECT_THAT(created.name, EndsWith(std::string(".") + c.text + ".pcapng"));
        ::close(created.fd);
    }
}

TEST_F(Recorder, AClockThatIsSetBackDoesNotChangeTheOrder) {
    record(settings(2), 4, 5000);
    record(settings(2), 2);
    EXPECT_THAT(names(), ElementsAre("a.00000002.20261122T022322Z.pcapng", "a.00000003.20261122T010000Z.pcapng"));
}

TEST_F(Recorder, FilesBeginAtFullHoursAndAQuietHourMakesNone) {
    CaptureFiles::Settings s = settings(10, 0);
    s.rotateEveryNs = kHour;
    CaptureFiles files(s);
    const std::uint32_t channel = files.addInterface({kStreamLink, "channel 0", ""}, kMorning);
    const auto packet = [&](std::uint64_t seconds) { files.addPacket(channel, kMorning + seconds * kSecond, "x", 1); };
    packet(3599);
    packet(3600);
    packet(3599);  // of another interface, a little late: no file goes back
    files.tick(kMorning + 2 * kHour);
    EXPECT_FALSE(readPath(path("a.00000002.20261122T020000Z.pcapng")).damage);
    EXPECT_TRUE(
        readPath(path("a.00000002.20261122T020000Z.pcapng")).interfaces[0].counts);  // complete without a packet
    for (std::uint64_t hour = 3; hour < 9; ++hour) files.tick(kMorning + hour * kHour);
    packet(9 * 3600 + 5);
    files.tick(kMorning + 9 * kHour + 6 * kSecond);
    packet(7 * 3600);  // the clock was set back by more than an hour
    files.close(kMorning + 10 * kHour);
    EXPECT_THAT(names(), ElementsAre("a.00000001.20261122T015959Z.pcapng", "a.00000002.20261122T020000Z.pcapng",
                                     "a.00000003.20261122T100005Z.pcapng", "a.00000004.20261122T080000Z.pcapng"));
    EXPECT_THAT(SecondsIn(path(names()[1])), ElementsAre(3600, 3599));
}

TEST_F(Recorder, WithoutABoundTimeRotatesToo) {
    CaptureFiles::Settings s = settings(0, 0);
    s.rotateEveryNs = kHour;
    CaptureFiles files(s);
    const std::uint32_t channel = files.addInterface({kStreamLink, "channel 0", ""}, kMorning);
    files.tick(kMorning + 5 * kHour);
    files.addPacket(channel, kMorning + 5 * kHour, "x", 1);
    files.tick(kMorning + 6 * kHour);
    files.addPacket(channel, kMorning + 7 * kHour, "x", 1);
    files.close(kMorning + 8 * kHour);
    EXPECT_THAT(names(), ElementsAre("a.1.pcapng", "a.pcapng"));
}

TEST_F(Recorder, LosesNoCountBetweenTwoFiles) {
    CaptureFiles::Settings s = settings(10, 0);
    s.rotateEveryNs = kHour;
    CaptureFiles files(s);
    const std::uint32_t channel = files.addInterface({kStreamLink, "channel 0", ""}, kMorning);
    files.addPacket(channel, kMorning, "x", 1);
    files.tick(kMorning + kHour);
    files.addLost(channel, 7);
    files.addPacket(channel, kMorning + 3 * kHour, "x", 1);
    files.close(kMorning + 4 * kHour);
    const InterfaceCounts counts = *readPath(path(names()[1])).interfaces[0].counts;
    EXPECT_EQ(counts.startNs, kMorning + kHour);
    EXPECT_EQ(counts.received, 8U);
    EXPECT_EQ(counts.dropped, 7U);
}

// What comes after the last packet belongs to no packet's file.
TEST_F(Recorder, LossesAfterTheTimeOfTheLastFileAreInOneMore) {
    for (const std::size_t keep : {0, 10}) {
        CaptureFiles::Settings s = settings(keep, 0);
        s.rotateEveryNs = kHour;
        CaptureFiles files(s);
        const std::uint32_t channel = files.addInterface({kStreamLink, "channel 0", ""}, kMorning);
        CardCounts counted;
        counted.packets = 1;
        counted.backPressure = 2;
        files.addPacket(channel, kMorning, "x", 1);
        files.setCard(channel, counted);
        files.tick(kMorning + kHour);
        counted.backPressure = 9;
        files.setCard(channel, counted);
        files.addLost(channel, 3);
        files.close(kMorning + 2 * kHour);
        ASSERT_THAT(names(), SizeIs(2));
        std::uint64_t byCard = 0;
        std::uint64_t received = 0;
        std::uint64_t dropped = 0;
        for (const std::string& name : names()) {
            const ReadFile file = readPath(path(name));
            EXPECT_FALSE(file.damage);
            const InterfaceCounts counts = *file.interfaces[0].counts;
            byCard += *counts.card->backPressure;
            received += counts.received;
            dropped += counts.dropped;
        }
        EXPECT_EQ(byCard, 9U);
        EXPECT_EQ(received, 4U);
        EXPECT_EQ(dropped, 3U);
        fs::remove_all(dir.Path("run"));
    }
}

TEST_F(Recorder, NothingNewAfterTheTimeOfTheLastFileMakesNoFile) {
    CaptureFiles::Settings s = settings(10, 0);
    s.rotateEveryNs = kHour;
    CaptureFiles files(s);
    const std::uint32_t channel = files.addInterface({kStreamLink, "channel 0", ""}, kMorning);
    files.addPacket(channel, kMorning, "x", 1);
    files.tick(kMorning + kHour);
    CardCounts counted;  // a card that begins to answer, and has nothing to tell
    counted.packets = 0;
    counted.backPressure = 0;
    files.setCard(channel, counted);
    files.close(kMorning + 2 * kHour);
    EXPECT_THAT(names(), SizeIs(1));
}

// A program that fails at each start, while the card is busy, must not cost the files of better days.
TEST_F(Recorder, LossesOfARunWithoutAPacketMakeNoFile) {
    record(settings(2), 4);
    for (int run = 0; run < 5; ++run) {
        CaptureFiles files(settings(2));
        const std::uint32_t channel = files.addInterface({kStreamLink, "channel 0", ""}, kMorning);
        CardCounts counted;
        counted.backPressure = 500;
        files.setCard(channel, counted);
        files.close(kMorning + kSecond);
    }
    EXPECT_THAT(names(), ElementsAre(StartsWith("a.00000001."), StartsWith("a.00000002.")));
}

TEST_F(Recorder, NeverRemovesWhatItDidNotMakeWhateverItsName) {
    record(settings(4), 8);
    const std::vector<std::string> own = names();
    const auto foreign = [&](const std::string& number) { return path("a." + number + ".20200101T000000Z.pcapng"); };
    dir.Write("run/a.00000000.20200101T000000Z.pcapng", "text of somebody");
    fs::copy_file(path(own[0]), foreign("00000005"));  // a copy under another name
    fs::create_directory(foreign("00000006"));
    ASSERT_EQ(::mkfifo(foreign("00000007").c_str(), 0600), 0);
    dir.Write("run/empty", "");
    fs::rename(path("empty"), foreign("00000008"));
    fs::create_symlink(own[0], foreign("00000009"));
    fs::rename(path(own[0]), path("kept.pcapng"));       // renamed
    fs::create_hard_link(path(own[1]), path("second"));  // has a second name
    dir.Write("run/" + own[2], "replaced by another program");
    std::vector<std::string> staying = names();
    staying.erase(std::find(staying.begin(), staying.end(), own[3]));
    record(settings(2), 20, 100);
    const std::vector<std::string> after = names();
    EXPECT_TRUE(std::includes(after.begin(), after.end(), staying.begin(), staying.end()));
    EXPECT_THAT(after, SizeIs(staying.size() + 2));
    EXPECT_EQ(dir.Read("run/" + own[2]), "replaced by another program");
    EXPECT_THAT(reports,
                Contains(HasSubstr(" is no file of this recorder, only its name is like one: it stays")).Times(1));
}

TEST_F(Recorder, NeverRemovesAFileOfAnotherUser) {
    if (::geteuid() != 0) GTEST_SKIP() << "skipped: only root can give a file to another user";
    record(settings(2), 4);
    const std::string given = names()[0];
    ASSERT_EQ(::chown(path(given).c_str(), 12345, 12345), 0);
    record(settings(2), 20, 100);
    EXPECT_THAT(names(), AllOf(SizeIs(3), Contains(given)));
}

TEST_F(Recorder, NeverRemovesAFileThatAnotherProcessWrites) {
    int ready[2];
    int end[2];
    ASSERT_EQ(::pipe(ready), 0);
    ASSERT_EQ(::pipe(end), 0);
    const CaptureFiles::Settings s = settings(2);
    std::fflush(nullptr);
    const pid_t other = ::fork();
    if (other == 0) {
        CaptureFiles files(s);
        files.addPacket(files.addInterface({kStreamLink, "channel 1", ""}, kMorning), kMorning, "x", 1);
        files.flush();
        char byte = 0;
        ::close(end[1]);
        if (::write(ready[1], "r", 1) != 1 || ::read(end[0], &byte, 1) != 0) ::_exit(1);
        ::_exit(0);  // as one that was killed
    }
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    record(s, 20, 100);
    EXPECT_THAT(names(), ElementsAre("a.00000001.20261122T010000Z.pcapng", StartsWith("a.00000011.")));
    ::close(end[0]);
    ::close(end[1]);
    int status = -1;
    ::waitpid(other, &status, 0);
    EXPECT_EQ(status, 0);
    record(s, 2, 200);  // now nobody writes it
    EXPECT_THAT(names(), ElementsAre(StartsWith("a.00000011."), StartsWith("a.00000012.")));
    for (const int fd : {ready[0], ready[1]}) ::close(fd);
}

TEST_F(Recorder, MakesRoomByRemovingItsOldestFiles) {
    record(settings(10), 8);
    CaptureFiles::Settings s = settings(10);
    s.recorder.keepFreeBytes = 1 << 20;
    // Each file that goes gives half of what has to be free.
    recorder_calls::g_freeBytes = [this] { return (6 - names().size()) * (std::uint64_t{1} << 19); };
    record(s, 2, 100);
    EXPECT_THAT(names(), ElementsAre(StartsWith("a.00000003."), StartsWith("a.00000004."), StartsWith("a.00000005.")));
    EXPECT_THAT(reports, Contains("removed a.00000001.20261122T010000Z.pcapng: only 0 of 1 MB to keep are free in " +
                                  dir.Path("run")));
}

TEST_F(Recorder, WithoutRoomItStopsWithOneLineAndGoesOnWhenThereIsSpace) {
    std::uint64_t free = 2 << 20;
    recorder_calls::g_freeBytes = [&free] { return free; };
    CaptureFiles::Settings s = settings(4, 0);
    s.recorder.keepFreeBytes = 1 << 20;
    CaptureFiles files(s);
    const std::uint32_t channel = files.addInterface({kStreamLink, "channel 0", ""}, kMorning);
    for (std::uint64_t i = 0; i < 10; ++i) {
        if (i == 2) free = 4096;
        if (i == 8) free = 2 << 20;
        files.addPacket(channel, kMorning + i, "x", 1);
        files.tick(kMorning + i);
    }
    free = 4096;
    files.close(kMorning + 10);  // the few bytes of the counts are written
    const ReadFile file = readPath(path(names()[0]));
    EXPECT_FALSE(file.damage);
    EXPECT_THAT(file.packets, SizeIs(4));
    EXPECT_EQ(file.interfaces[0].counts->received, 10U);
    EXPECT_EQ(file.interfaces[0].counts->dropped, 6U);
    const std::string name = path(names()[0]);
    EXPECT_THAT(reports, ElementsAre("writing " + name,
                                     "cannot write " + name + ": only 0 of 1 MB to keep are free in " +
                                         dir.Path("run") + "; packets are lost, and counted",
                                     "6 packets were lost while " + name + " could not be written"));
}

TEST_F(Recorder, RemovesOneFileASecondAtMostWhenThatGivesNoSpace) {
    record(settings(10), 8);
    recorder_calls::g_freeBytes = [] { return std::uint64_t{4096}; };  // somebody reads what was removed
    CaptureFiles::Settings s = settings(10);
    s.recorder.keepFreeBytes = 1 << 20;
    CaptureFiles files(s);
    const std::uint32_t channel = files.addInterface({kStreamLink, "channel 0", ""}, kMorning);
    for (int i = 0; i < 50; ++i) {
        files.addPacket(channel, kMorning, "x", 1);
        files.tick(kMorning);
    }
    EXPECT_THAT(names(), SizeIs(3));
    files.tick(kMorning + kSecond);
    EXPECT_THAT(names(), SizeIs(2));
    EXPECT_EQ(files.lost(), 50U);
}

TEST_F(Recorder, ADiskThatIsFullDoesNotCostTheOldFiles) {
    record(settings(4), 8);
    const std::vector<std::string> before = names();
    CaptureFiles::Settings s = settings(4, 0);
    s.rotateEveryNs = kHour;
    {
        struct rlimit old {};
        getrlimit(RLIMIT_FSIZE, &old);
        auto* const handler = std::signal(SIGXFSZ, SIG_IGN);
        const rlimit small{200, old.rlim_max};  // a file's head fits, no packet does
        setrlimit(RLIMIT_FSIZE, &small);
        CaptureFiles files(s);
        const std::uint32_t channel = files.addInterface({kStreamLink, "channel 0", ""}, kMorning);
        for (std::uint64_t hour = 0; hour < 20; ++hour) {
            files.addPacket(channel, kMorning + hour * kHour, std::string(300, 'x').data(), 300);
            files.tick(kMorning + hour * kHour);
        }
        files.close(kMorning + 20 * kHour);
        setrlimit(RLIMIT_FSIZE, &old);
        std::signal(SIGXFSZ, handler);
    }
    const std::vector<std::string> after = names();
    EXPECT_THAT(after, SizeIs(4));
    EXPECT_TRUE(std::includes(after.begin(), after.end(), before.begin() + 1, before.end()));
}

TEST_F(Recorder, OnASmallDiskOfItsOwnItRecordsForEver) {
    const std::string disk = dir.Path("run");
    fs::create_directory(disk);
    const bool isKilled = IsKilledIn([&] {
        // The mount is this process's alone.
        if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=2m") != 0) {
            dir.Write("cannot", "");
            return;
        }
        CaptureFiles::Settings s = settings(1000, 100'000);
        s.recorder.keepFreeBytes = 1 << 20;
        const std::string bytes(1000, 'x');
        CaptureFiles files(s);
        const std::uint32_t channel = files.addInterface({kStreamLink, "channel 0", ""}, kMorning);
        for (std::uint64_t i = 0; i < 20'000; ++i) files.addPacket(channel, kMorning + i, bytes.data(), 1000);
        files.close(kMorning + 20'000);
        std::uint64_t used = 0;
        std::uint64_t last = 0;
        for (const std::string& name : names()) {
            used += fs::file_size(path(name));
            const ReadFile file = readPath(path(name));
            if (file.damage || file.packets.empty()) dir.Write("wrong", name);
            last = file.packets.empty() ? 0 : file.packets.back().timeNs;
        }
        if (files.lost() != 0) dir.Write("wrong", std::to_string(files.lost()) + " packets were lost");
        if (used > (1 << 20) || used < (1 << 19)) dir.Write("wrong", std::to_string(used) + " bytes are used");
        if (last != kMorning + 19'999) dir.Write("wrong", "the last packet is missing");
    });
    EXPECT_FALSE(isKilled);
    if (fs::exists(dir.Path("cannot"))) GTEST_SKIP() << "skipped: only root can mount a small disk";
    EXPECT_EQ(dir.Read("wrong"), "");
}

TEST_F(Recorder, ARunThatIsKilledAtAnyCallLeavesReadableFilesAndTheNextOneGoesOn) {
    using recorder_calls::Moment;
    unsigned kills = 0;
    for (const Moment moment : {Moment::kBefore, Moment::kHalf, Moment::kAfter}) {
        for (unsigned call = 1;; ++call) {
            fs::remove_all(dir.Path("run"));
            record(settings(3), 4);
            const bool wasKilled = IsKilledIn([&] {
                recorder_calls::g_moment = moment;
                recorder_calls::g_killAt = call;
                record(settings(3), 12, 50);
            });
            const std::vector<std::string> left = names();
            EXPECT_LE(left.size(), 3U);
            for (const std::string& name : left) {
                const ReadFile file = readPath(path(name));
                EXPECT_TRUE(!file.damage || file.damage->text.find("the file ends inside a block") != std::string::npos)
                    << name << ": " << file.damage->text;
            }
            record(settings(3), 12, 100);
            EXPECT_THAT(names(), SizeIs(3));
            EXPECT_GT(names().front(), left.back());
            EXPECT_THAT(SecondsIn(path(names().back())), ElementsAre(110, 111));
            if (!wasKilled || HasFailure()) break;
            ++kills;
        }
    }
    EXPECT_GT(kills, 60U);
}

TEST_F(Recorder, WorksWhereAFileCannotBeMadeWithoutAName) {
    recorder_calls::g_linkError = ENOENT;  // as without /proc
    record(settings(3), 12);
    recorder_calls::g_linkError = 0;
    EXPECT_THAT(names(), ElementsAre(StartsWith("a.00000004."), StartsWith("a.00000005."), StartsWith("a.00000006.")));
    EXPECT_THAT(SecondsIn(path(names()[2])), ElementsAre(10, 11));
}

TEST_F(Recorder, NeverGetsAStandardDescriptor) {
    record(settings(2), 6);
    EXPECT_EQ(test_support::InProcessWithout(test_support::kAllStandardStreams,
                                             [this] {
                                                 record(settings(2), 6, 100);
                                                 return test_support::AreStandardNumbersFree() ? 0 : 1;
                                             }),
              0);
    EXPECT_THAT(names(), ElementsAre(StartsWith("a.00000005."), StartsWith("a.00000006.")));
}

TEST_F(Recorder, ANameWithoutExtensionGetsNumberAndTimeAtTheEnd) {
    CaptureFiles::Settings s = settings(2);
    s.path = dir.Path("run/a.b/.capture");
    fs::create_directory(dir.Path("run/a.b"));
    record(s, 6);
    EXPECT_TRUE(fs::exists(dir.Path("run/a.b/.capture.00000003.20261122T010004Z")));
    EXPECT_FALSE(fs::exists(dir.Path("run/a.b/.capture.00000001.20261122T010000Z")));
}
