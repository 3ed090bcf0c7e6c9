// The parts of vexo watch: the view in windows of all sizes, the log of a process, differences of two looks.

#include <VexoZceMdStats.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <ctime>

#include "tests/support/TempDir.h"
#include "tests/unit/tools/StatsPage.h"
#include "tools/vexo/stat/Views.h"
#include "tools/vexo/watch/Frame.h"
#include "tools/vexo/watch/LogTail.h"
#include "tools/vexo/watch/Reports.h"
#include "tools/vexo/watch/Scene.h"

using namespace vexo::watch;
using stats_page::kClock;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using vexo::ShownLine;
using vexo::stat::Page;

namespace {

Page PageOf(const stats_page::Written& written, std::uint64_t readClock) {
    const test_support::TempDir dir;
    Page page;
    EXPECT_EQ(vexo::stat::readPage(dir.Write(written.name(), written.bytes()), page), "");
    page.life = vexo::stat::Life::kRunning;
    page.readClock = readClock;
    return page;
}

Look LookAt(const stats_page::Written& written, double seconds) {
    Look look;
    look.page = PageOf(written, written.process.startClock + static_cast<std::uint64_t>(seconds * kClock));
    look.totals = totalsOf(*look.page);
    return look;
}

std::string Shown(const std::vector<Line>& lines) {
    std::string all;
    for (const Line& line : lines) all += line.shown(false) + "\n";
    return all;
}

// Two looks, two seconds apart.
Scene Rated() {
    stats_page::Written written = stats_page::Busy();
    Look before = LookAt(written, 10);
    before.instruments.all = {{"SR701", 400}, {"CF705", 605}};
    written.streams[0].packets[17] += 810;
    written.streams[0].bytes[17] += 2'000'000;
    written.streams[0].packets[18] = 90;
    written.streams[0].gaps[20] += 900;
    written.streams[0].callbacks[9] += 890;
    written.streams[0].callbacks[12] += 10;
    written.streams[0].idlePolls += 9100;
    Look now = LookAt(written, 12);
    now.instruments.all = {{"SR701", 1290}, {"CF705", 615}, {"TA709", 5}};
    Scene scene;
    scene.countsInstruments = true;
    compare(now, &before, scene);
    return scene;
}

// Everything that a window could be too small for, from somebody who means harm.
Scene Hostile() {
    stats_page::Written written = stats_page::Busy();
    std::memset(written.process.program, '\x1b', sizeof written.process.program);
    vexo_stats::Stream stream;
    std::memset(&stream, 0xFF, sizeof stream);
    written.streams.assign(vexo_stats::kStreams, stream);
    Scene scene;
    compare(LookAt(written, 1e9), nullptr, scene);
    scene.countsInstruments = true;
    for (int i = 0; i < 30; ++i) scene.instruments.push_back({"\x1b[2J\n" + std::string(60, 'x'), ~0ULL, ~0ULL});
    scene.unknown = scene.crowded = ~0ULL;
    scene.source = std::string(300, 's');
    scene.logName = "fpga\x07.log";
    for (int i = 0; i < 50; ++i)
        scene.log.push_back(
            {"[WARN   ][20261115-09:12:34][fpga]\t\x1b]0;title\x07 合约 " + std::string(300, 'y'), "", 2});
    return scene;
}

}  // namespace

TEST(WatchView, ShowsRatesLossesTimesAndInstruments) {
    Scene scene = Rated();
    scene.log.push_back({"[WARN   ][20261115-09:12:34][fpga]low disk", "20261115-09:12:34", 2});
    scene.logName = "fpga_20261115.log";
    const std::string text = Shown(frame(scene, 80, 40));
    EXPECT_THAT(text, HasSubstr("type 17         405    1.00       1,810"));
    EXPECT_THAT(text, HasSubstr("type 18          45    0.00          90"));
    EXPECT_THAT(text, HasSubstr("all             450    1.00       1,905"));
    EXPECT_THAT(text, HasSubstr("polls 5000 a second, 91.0 % idle"));
    for (const char* loss : {"before the card                      20", "by the card                          18",
                             "by the ring                          20", "by the application                   10"})
        EXPECT_THAT(text, HasSubstr(loss));
    EXPECT_THAT(text, HasSubstr("SR701                   445       1,290"));
    EXPECT_THAT(text, HasSubstr("CF705                     5         615"));
    EXPECT_LT(text.find("SR701"), text.find("CF705"));
    EXPECT_THAT(text, HasSubstr("99% now"));
    EXPECT_THAT(text, HasSubstr("log fpga_20261115.log\n09:12:34 WARN low disk\n"));
}

TEST(WatchView, HasNoRatesAtTheFirstLook) {
    Scene scene;
    compare(LookAt(stats_page::Busy(), 5), nullptr, scene);
    const std::string text = Shown(frame(scene, 80, 40));
    EXPECT_THAT(text, HasSubstr("type 17           -       -       1,000"));
    EXPECT_THAT(text, Not(HasSubstr("99% now")));
}

TEST(WatchView, ShowsWhatTheNumbersOfVexoStatShow) {
    const Scene scene = Rated();
    const std::string text = Shown(frame(scene, 80, 40));
    const std::string stat = vexo::stat::asText({*scene.page}, {});
    EXPECT_THAT(stat, HasSubstr("1,905, 2,140,000 bytes: type 2 5, type 17 1,810, type 18 90\n"));
    EXPECT_THAT(text, HasSubstr("1,905"));
    // The histogram: each bucket's bound and count.
    EXPECT_THAT(text, HasSubstr("512 ns       0            1890 ########\n"));
    EXPECT_THAT(text, HasSubstr("1.05 ms   1904 ########      5 #\n"));
}

TEST(WatchView, PutsBucketsTogetherInALowWindow) {
    const std::string text = Shown(frame(Rated(), 80, 23));
    EXPECT_THAT(text, HasSubstr("1.02 us      0            1890 ########\n"));
    EXPECT_THAT(text, HasSubstr("4.1 us       0              10 #\n"));
    EXPECT_THAT(text, HasSubstr("1.05 ms   1904 ########      5 #\n"));
}

TEST(WatchView, FitsAnyWindow) {
    const Scene scenes[] = {Hostile(), Rated(), Scene()};
    for (const Scene& scene : scenes) {
        for (std::size_t columns = 1; columns <= 220; columns += columns < 90 ? 1 : 10) {
            for (const std::size_t rows : {1U, 2U, 5U, 10U, 23U, 24U, 50U, 200U}) {
                const std::vector<Line> lines = frame(scene, columns, rows);
                ASSERT_LE(lines.size(), rows) << columns;
                for (const Line& line : lines) {
                    ASSERT_LE(line.width(), columns) << rows << line.shown(false);
                    ASSERT_EQ(line.shown(false).find_first_of("\x1b\x07\r\n\t"), std::string::npos)
                        << line.shown(false);
                }
            }
        }
    }
}

TEST(WatchView, HasRoomForTheLogInAUsualWindow) {
    Scene scene = Rated();
    for (int i = 0; i < 9; ++i) scene.log.push_back({"[INFO   ][20261115-09:12:34][fpga]line", "", 4});
    for (const std::size_t columns : {40U, 80U, 200U}) {
        const std::string text = Shown(frame(scene, columns, 23));
        EXPECT_THAT(text, HasSubstr("09:12:34 INFO line\n")) << columns;
        EXPECT_THAT(text, HasSubstr("by the application")) << columns;
    }
}

TEST(WatchView, GivesEachOfSeveralStreamsAColumn) {
    stats_page::Written written = stats_page::Busy();
    const Look before = LookAt(written, 10);
    vexo_stats::Stream second = written.streams[0];
    second.channel = 4;
    second.backPressure = vexo_stats::kUnknown;
    written.streams.push_back(second);
    written.streams[0].packets[17] += 20;
    Scene scene;
    compare(LookAt(written, 12), &before, scene);
    const std::string text = Shown(frame(scene, 80, 50));
    EXPECT_THAT(text, HasSubstr("card/channel              0/3       0/4"));
    EXPECT_THAT(text, HasSubstr("packets a second           10       502"));
    EXPECT_THAT(text, HasSubstr("by the ring                20         -"));
}

TEST(WatchView, SaysWhereInstrumentsAreOtherwise) {
    Scene scene = Rated();
    scene.countsInstruments = false;
    EXPECT_THAT(Shown(frame(scene, 80, 40)), HasSubstr("a page has no ids"));
    scene.countsInstruments = true;
    scene.unknown = 1234567;
    EXPECT_THAT(Shown(frame(scene, 80, 40)), HasSubstr("1.2M without id: no layout fits"));
}

TEST(WatchView, CutsALineBetweenLettersAndMarksIt) {
    Line line("\xE5\x90\x88\xE7\xBA\xA6");  // two letters of three bytes
    EXPECT_EQ(line.cutTo(6).shown(false), "\xE5\x90\x88\xE7\xBA\xA6");
    EXPECT_EQ(line.cutTo(5).shown(false), "\xE5\x90\x88>");
    EXPECT_EQ(line.cutTo(3).shown(false), ">");
    EXPECT_EQ(line.cutTo(0).shown(false), "");
}

TEST(WatchView, ShortensNumbers) {
    const std::pair<double, const char*> numbers[] = {{0, "0"},         {9999, "9999"},   {12345, "12.3k"},
                                                      {123456, "123k"}, {999499, "999k"}, {999600, "1.0M"},
                                                      {1.5e9, "1.5G"},  {1.8e19, "18.0E"}};
    for (const auto& [number, text] : numbers) EXPECT_EQ(shortNumber(number), text);
}

TEST(WatchLooks, ANumberThatWentBackGivesNoRate) {
    stats_page::Written written = stats_page::Busy();
    const Look before = LookAt(written, 10);
    written.streams[0].packets[17] = 1;
    Scene scene;
    compare(LookAt(written, 12), &before, scene);
    EXPECT_EQ(scene.more.packets[17], 0U);
    EXPECT_EQ(scene.streamMore.at(0), 0U);
    compare(LookAt(written, 9), &before, scene);
    EXPECT_FALSE(scene.isRated());
}

TEST(WatchLines, OfManyNewLinesOfTheLogTheLastOnesAreShown) {
    Scene scene = Rated();
    for (int i = 0; i < 30; ++i) scene.log.push_back({"line " + std::to_string(i), "", 255});
    scene.newLines = 1230;
    EXPECT_THAT(asLines(scene, false),
                ::testing::StartsWith("log 1,220 lines before these\nlog line 20\nlog line 21\n"));
    scene.newLines = 1;
    EXPECT_THAT(asLines(scene, false), ::testing::StartsWith("log line 29\n"));
}

// ---- the log ----

namespace {

class WatchLog : public ::testing::Test {
protected:
    static std::string Name(int days = 0) {
        const std::time_t then = std::time(nullptr) + days * 86400;
        std::tm local{};
        ::localtime_r(&then, &local);
        char name[32];
        std::strftime(name, sizeof name, "fpga_%Y%m%d.log", &local);
        return name;
    }
    static std::string Written(const std::string& text) { return "[INFO   ][20261115-09:00:00][fpga]" + text + "\n"; }
    void Append(const std::string& name, const std::string& text) const { dir.Write(name, dir.Read(name) + text); }
    static LogTail Tail(uid_t owner = ::geteuid()) { return {::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC), owner}; }
    static std::vector<std::string> More(LogTail& tail) {
        std::vector<std::string> messages;
        for (const ShownLine& line : tail.more()) messages.push_back(vexo::watch::logLine(line).shown(false));
        return messages;
    }

    test_support::TempDir dir;
};

}  // namespace

TEST_F(WatchLog, GrowsLineByLine) {
    LogTail tail = Tail();
    EXPECT_THAT(More(tail), IsEmpty());
    EXPECT_THAT(tail.fault(), IsEmpty());
    dir.Write(Name(), Written("one") + "[WARN   ][20261115-09:00:01][fpga]tw");
    EXPECT_THAT(More(tail), ElementsAre("09:00:00 INFO one"));
    EXPECT_EQ(tail.name(), Name());
    Append(Name(), "o\n");
    EXPECT_THAT(More(tail), ElementsAre("09:00:01 WARN two"));
    EXPECT_THAT(More(tail), IsEmpty());
}

TEST_F(WatchLog, BeginsWithTheLastLinesOfALongLog) {
    std::string all;
    for (int i = 0; i < 10000; ++i) all += Written("line " + std::to_string(i));
    dir.Write(Name(), all);
    LogTail tail = Tail();
    const std::vector<std::string> lines = More(tail);
    EXPECT_LT(lines.size(), 2000U);
    EXPECT_EQ(lines.back(), "09:00:00 INFO line 9999");
    EXPECT_THAT(lines.front(), HasSubstr("09:00:00 INFO line "));  // a whole one
}

TEST_F(WatchLog, GoesOnInTheFileOfTheNextDay) {
    dir.Write(Name(-1), Written("yesterday"));
    LogTail tail = Tail();
    EXPECT_THAT(More(tail), ElementsAre("09:00:00 INFO yesterday"));
    Append(Name(-1), Written("last"));
    dir.Write(Name(), Written("today"));
    EXPECT_THAT(More(tail), ElementsAre("09:00:00 INFO last", "09:00:00 INFO today"));
    EXPECT_EQ(tail.name(), Name());
}

TEST_F(WatchLog, StartsAgainWhenSomebodyEmptiesTheFile) {
    dir.Write(Name(), Written("a long first line"));
    LogTail tail = Tail();
    More(tail);
    ASSERT_EQ(::truncate(Name().c_str(), 0), 0);
    EXPECT_THAT(More(tail), IsEmpty());
    Append(Name(), Written("new"));
    EXPECT_THAT(More(tail), ElementsAre("09:00:00 INFO new"));
}

TEST_F(WatchLog, IsNoLinkPipeOrFileOfSomebodyElse) {
    dir.Write("secret", Written("secret"));
    ASSERT_EQ(::symlink("secret", Name().c_str()), 0);
    LogTail link = Tail();
    EXPECT_THAT(More(link), IsEmpty());
    EXPECT_THAT(link.fault(), HasSubstr("Too many levels of symbolic links"));
    ::unlink(Name().c_str());
    ASSERT_EQ(::mkfifo(Name().c_str(), 0600), 0);
    LogTail pipe = Tail();
    EXPECT_THAT(More(pipe), IsEmpty());
    EXPECT_THAT(pipe.fault(), HasSubstr("this is no regular file"));
    ::unlink(Name().c_str());
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
    dir.Write(Name(), Written("text"));
    ASSERT_EQ(::chown(Name().c_str(), 65534, 65534), 0);
    LogTail foreign = Tail(4711);
    EXPECT_THAT(More(foreign), IsEmpty());
    EXPECT_THAT(foreign.fault(), HasSubstr("it belongs to another user"));
    LogTail own = Tail(65534);
    EXPECT_THAT(More(own), SizeIs(1));
}

TEST_F(WatchLog, ALineWithoutEndTakesLittleMemory) {
    dir.Write(Name(), "");
    LogTail tail = Tail();
    More(tail);
    Append(Name(), std::string(3'000'000, 'x'));
    for (int i = 0; i < 5; ++i) EXPECT_THAT(More(tail), IsEmpty());
    Append(Name(), "\n" + Written("next"));
    const std::vector<std::string> lines = More(tail);
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_LT(lines[0].size(), 10000U);
    EXPECT_EQ(lines[1], "09:00:00 INFO next");
}
