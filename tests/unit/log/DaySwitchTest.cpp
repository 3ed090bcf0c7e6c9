#include <filesystem>

#include "tests/unit/log/Interposed.h"
#include "tests/unit/log/LogFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

namespace fs = std::filesystem;

void Log(const char* text) { elog_output(kInfo, "fpga", "file", "func", 1, "%s", text); }

/// One line was written on 3 March 2025; the clock stands one second before midnight.
class DaySwitch : public StartedLog {
protected:
    DaySwitch() {
        clock.SetLocal(2025, 3, 3, 23, 59, 59);
        Printed([] { Log("evening"); });
    }

    void BlockTomorrow() const { fs::create_directory(kTomorrow); }
};

constexpr char kEveningLine[] = "[INFO   ][20250303-23:59:59][fpga]evening\n";

TEST_F(DaySwitch, TheFirstLineAfterMidnightOpensTheFileOfTheNewDay) {
    clock.Advance(1);

    Printed([] { Log("midnight"); });

    EXPECT_EQ(dir.Read(kToday), kEveningLine);
    EXPECT_EQ(dir.Read(kTomorrow), "[INFO   ][20250304-00:00:00][fpga]midnight\n");
    EXPECT_EQ(last_rotate_day, 20250304);
    EXPECT_FALSE(is_rotating);
}

TEST_F(DaySwitch, TheLastSecondOfTheDayStaysInItsFile) {
    Printed([] { Log("evening"); });

    EXPECT_EQ(dir.Read(kToday), std::string(kEveningLine) + kEveningLine);
    EXPECT_FALSE(fs::exists(kTomorrow));
}

TEST_F(DaySwitch, AYearEndsLikeAnyOtherDay) {
    clock.SetLocal(2025, 12, 31, 23, 59, 59);
    Printed([] { Log("old"); });
    clock.Advance(1);

    Printed([] { Log("new"); });

    EXPECT_EQ(dir.Read("fpga_20251231.log"), "[INFO   ][20251231-23:59:59][fpga]old\n");
    EXPECT_EQ(dir.Read("fpga_20260101.log"), "[INFO   ][20260101-00:00:00][fpga]new\n");
}

TEST_F(DaySwitch, LinesWithoutATimeKeepTheOldDay) {
    elog_set_fmt(kInfo, ELOG_FMT_TAG);
    clock.Advance(1);

    Printed([] {
        Log("midnight");
        elog_raw("raw\n");
    });

    EXPECT_EQ(dir.Read(kToday), std::string(kEveningLine) + "[fpga]midnight\nraw\n");
    EXPECT_FALSE(fs::exists(kTomorrow));
}

TEST_F(DaySwitch, AClockSetBackKeepsTheFile) {
    clock.Advance(1);
    Printed([] { Log("midnight"); });
    clock.Advance(-1);

    Printed([] { Log("again"); });

    EXPECT_EQ(dir.Read(kToday), kEveningLine);
    EXPECT_EQ(LastLine(dir.Read(kTomorrow)), "[INFO   ][20250303-23:59:59][fpga]again");
}

TEST_F(DaySwitch, ALineWhoseTimeCannotBeHadKeepsTheFile) {
    clock.Advance(1);
    clock.FailLocaltime(true);

    Printed([] { Log("midnight"); });

    EXPECT_EQ(dir.Read(kToday), std::string(kEveningLine) + "[INFO   ][][fpga]midnight\n");
}

TEST_F(StartedLog, TheFirstLineOfTheProcessOnlyNotesTheDay) {
    clock.Advance(86400);

    Printed([] { Log("first"); });

    EXPECT_EQ(last_rotate_day, 20250304);
    EXPECT_EQ(dir.Read(kToday), "[INFO   ][20250304-10:00:00][fpga]first\n");
    EXPECT_FALSE(fs::exists(kTomorrow));
}

TEST_F(DaySwitch, RotateSwitchesByTheTimeCacheWithoutALine) {
    time_cache = time_cache + 1;

    elog_file_rotate();

    EXPECT_TRUE(fs::is_regular_file(kTomorrow));
    EXPECT_EQ(last_rotate_day, 20250304);
}

TEST_F(DaySwitch, AZoneWhereItIsTomorrowSwitchesInTheSameSecond) {
    const Zone zone("XST-9");

    Printed([] {
        Log("text");
        elog_output_from_handler(kInfo, "fpga", "file", "func", 1, "signal", 0);
    });

    EXPECT_EQ(dir.Read(kToday), kEveningLine);
    EXPECT_EQ(dir.Read(kTomorrow),
              "[INFO   ][20250304-00:59:59][fpga]text\n[INFO   ][20250304-00:59:59][fpga]signal\n");
}

TEST_F(DaySwitch, ALineWhileTheFileIsBeingSwitchedGetsANoticeInstead) {
    is_rotating = true;

    const std::string printed = Printed([] { Log("lost"); });

    EXPECT_THAT(Lines(printed),
                ElementsAre("[INFO   ][20250303-23:59:59][fpga]lost",
                            "======================log file is rotating, exit log file!==================="));
    EXPECT_EQ(dir.Read(kToday), kEveningLine);
}

// What a destructor or a hook of the application may do on the thread that switches.
TEST_F(DaySwitch, ALineFromInsideTheSwitchGetsTheNotice) {
    elog_handlers_writing = 1;
    const YieldHook waiting([] {
        elog_handlers_writing = 0;  // the switch waits for this handler
        Log("inside");
    });
    time_cache = time_cache + 1;

    const std::string printed = Printed([] { elog_file_rotate(); });

    EXPECT_THAT(Lines(printed),
                ElementsAre("[INFO   ][20250303-23:59:59][fpga]inside",
                            "======================log file is rotating, exit log file!==================="));
    EXPECT_EQ(last_rotate_day, 20250304);
}

TEST_F(DaySwitch, TheNoticeLeavesTheLogUsable) {
    is_rotating = true;
    Printed([] { Log("lost"); });
    is_rotating = false;

    Printed([] { Log("kept"); });

    EXPECT_EQ(LastLine(dir.Read(kToday)), "[INFO   ][20250303-23:59:59][fpga]kept");
}

TEST_F(DaySwitch, NoDescriptorIsLost) {
    const std::size_t before = OpenDescriptors();

    for (int day = 0; day < 40; ++day) {
        clock.Advance(86400);
        Printed([] { Log("day"); });
    }

    EXPECT_EQ(OpenDescriptors(), before);
}

// ---- a new day whose file cannot be opened ----

TEST_F(DaySwitch, LinesStillReachStandardOutputWhenTheNewFileCannotBeOpened) {
    BlockTomorrow();
    clock.Advance(1);
    std::string printed;

    const std::string error = Printed([&printed] { printed = Printed([] { Log("midnight"); }); }, 2);

    EXPECT_EQ(printed, "[INFO   ][20250304-00:00:00][fpga]midnight\n");
    EXPECT_EQ(error, "Error! Create file .//fpga_20250304.log fail, errmsg:Is a directory. \n");
    EXPECT_EQ(dir.Read(kToday), kEveningLine);
    EXPECT_EQ(elog_file_fp, nullptr);
    EXPECT_EQ(elog_file_fd, -1);
    EXPECT_FALSE(is_rotating);
}

TEST_F(DaySwitch, EachLineTriesTheNewFileAgain) {
    BlockTomorrow();
    clock.Advance(1);
    Printed([] { Printed([] { Log("first"); }); }, 2);

    const std::string error = Printed([] { Printed([] { elog_raw("second, without a time\n"); }); }, 2);

    EXPECT_EQ(error, "Error! Create file .//fpga_20250304.log fail, errmsg:Is a directory. \n");
}

TEST_F(DaySwitch, TheNextLineGoesToTheNewFileOnceItCanBeOpenedBehindAWarningThatCountsTheLostOnes) {
    BlockTomorrow();
    clock.Advance(1);
    Printed([] { Printed([] { Log("lost"); }); }, 2);
    Printed([] { Printed([] { Log("lost too"); }); }, 2);
    Printed([] { elog_output_from_handler(kInfo, "fpga", "file", "func", 1, "signal %d", 15); });
    fs::remove(kTomorrow);

    const std::string error = Printed([] { Printed([] { Log("kept"); }); }, 2);

    EXPECT_THAT(error, IsEmpty());
    EXPECT_THAT(Lines(dir.Read(kTomorrow)),
                ElementsAre("[WARN   ][20250304-00:00:00][log]Lines lost in the log file: 3, errmsg:Is a directory.",
                            "[INFO   ][20250304-00:00:00][fpga]kept"));
    EXPECT_EQ(last_rotate_day, 20250304);
}

TEST_F(DaySwitch, LinesBehindTheEndOfTheLogAreNotLost) {
    elog_fini();
    Printed([] { Log("on standard output only"); });
    elog_init("./", "fpga");

    Printed([] { Log("kept"); });

    EXPECT_EQ(LastLine(dir.Read(kToday)), "[INFO   ][20250303-23:59:59][fpga]kept");
    EXPECT_THAT(Lines(dir.Read(kToday)), testing::SizeIs(2));
}

}  // namespace
