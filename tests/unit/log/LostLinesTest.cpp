#include <algorithm>
#include <cerrno>

#include "tests/unit/log/Interposed.h"
#include "tests/unit/log/LogFixture.h"

namespace {

using testing::ElementsAre;

/// A disk with room for so many bytes of the log files.
class SmallDisk {
public:
    explicit SmallDisk(std::size_t room)
        : m_room(room), m_hook([this](int fd, const void* buf, std::size_t size) -> ssize_t {
              if (m_room == 0) {
                  errno = ENOSPC;
                  return -1;
              }
              size = std::min(size, m_room);
              m_room -= size;
              return WriteHook::Real(fd, buf, size);
          }) {}

    void SetRoom(std::size_t room) { m_room = room; }

private:
    std::size_t m_room;
    WriteHook m_hook;
};

class LostLines : public StartedLog {
protected:
    LostLines() { elog_set_fmt(kInfo, 0); }

    static void Log(const char* text) {
        Printed([text] { elog_output(kInfo, "fpga", "file", "func", 1, "%s", text); });
    }
    static void LogFromHandler() {
        elog_set_fmt(ELOG_LVL_WARN, 0);
        Printed([] { elog_output_from_handler(ELOG_LVL_WARN, "fpga", "file", "func", 1, "signal %d", 15); });
    }
};

TEST_F(LostLines, TheFirstOneAfterAShortWriteBeginsALineAndAWarningTellsTheirNumber) {
    SmallDisk disk(3);
    for (const char* text : {"cut short", "lost", "lost"}) Log(text);
    disk.SetRoom(1000);

    Log("first");
    Log("second");

    EXPECT_THAT(Lines(dir.Read(kToday)),
                ElementsAre("cut",
                            "[WARN   ][20250303-10:00:00][log]Lines lost in the log file: 3, errmsg:No space left on "
                            "device.",
                            "first", "second"));
}

TEST_F(LostLines, ALineThatIsWrittenInPiecesIsNotLost) {
    const WriteHook slow([](int fd, const void* buf, std::size_t size) {
        return WriteHook::Real(fd, buf, std::min<std::size_t>(size, 3));
    });

    Log("in pieces");
    Log("next");

    EXPECT_THAT(Lines(dir.Read(kToday)), ElementsAre("in pieces", "next"));
}

TEST_F(LostLines, AreToldWithTheirReasonWhenThereWasNoLocalTimeForTheFilesName) {
    elog_set_fmt(kInfo, ELOG_FMT_TIME);  // only such a line looks at the date
    clock.FailLocaltime(true);
    EXPECT_EQ(elog_file_config(&local_cfg), -1);
    clock.FailLocaltime(false);
    Log("lost");
    clock.Advance(86400);

    Log("first");

    EXPECT_THAT(
        Lines(dir.Read(kTomorrow)),
        ElementsAre("[WARN   ][20250304-10:00:00][log]Lines lost in the log file: 1, errmsg:Value too large for "
                    "defined data type.",
                    "[20250304-10:00:00]first"));
}

TEST_F(LostLines, LeaveNoEmptyLineWhenNothingWasCutShort) {
    SmallDisk disk(0);
    Log("lost");
    disk.SetRoom(1000);

    Log("first");

    EXPECT_THAT(
        Lines(dir.Read(kToday)),
        ElementsAre("[WARN   ][20250303-10:00:00][log]Lines lost in the log file: 1, errmsg:No space left on device.",
                    "first"));
}

// However little room comes back at a time.
TEST_F(LostLines, EveryLineOfTheFileIsWholeOrTheBeginningOfOne) {
    for (std::size_t room = 0; room < 120; ++room) {
        elog_fini();
        dir.Write(kToday, "");
        elog_init("./", "fpga");
        elog_set_fmt(kInfo, 0);
        SmallDisk disk(3);
        Log("0123456789");
        disk.SetRoom(room);
        Log("abcdefghij");
        disk.SetRoom(1000);

        Log("end");

        const std::string warning = "[WARN   ][20250303-10:00:00][log]Lines lost in the log file: ";
        const std::string reason = ", errmsg:No space left on device.";
        const std::vector<std::string> wholeLines = {"abcdefghij", "end", warning + "1" + reason,
                                                     warning + "2" + reason};
        for (const std::string& line : Lines(dir.Read(kToday))) {
            const bool isKnown = line == "012" || std::any_of(wholeLines.begin(), wholeLines.end(), [&](const auto& w) {
                                     return w.compare(0, line.size(), line) == 0;
                                 });
            EXPECT_TRUE(isKnown) << "room " << room << ": " << line;
        }
        EXPECT_EQ(LastLine(dir.Read(kToday)), "end");
    }
}

TEST_F(LostLines, TheStopSignalsLineBeginsALineToo) {
    SmallDisk disk(3);
    Log("cut short");
    disk.SetRoom(1000);

    LogFromHandler();
    Log("next");

    EXPECT_THAT(
        Lines(dir.Read(kToday)),
        ElementsAre("cut", "signal 15", "Lines lost in the log file: 1, errmsg:No space left on device.", "next"));
}

// The handler opens the file of a new day before the log does.
TEST_F(LostLines, AStopSignalsLineThatWasCutInTheFileOfANewDayIsEnded) {
    elog_set_fmt(kInfo, ELOG_FMT_TIME);
    Log("old day");
    clock.Advance(86400);
    SmallDisk disk(3);
    LogFromHandler();
    disk.SetRoom(1000);

    Log("next");

    EXPECT_THAT(Lines(dir.Read(kTomorrow)),
                ElementsAre("sig", "Lines lost in the log file: 1, errmsg:No space left on device.",
                            "[20250304-10:00:00]next"));
}

TEST_F(LostLines, TheStopSignalsLineBeginsTheFileOfANewDayWithoutAnEmptyLine) {
    elog_set_fmt(kInfo, ELOG_FMT_TIME);
    SmallDisk disk(3);
    Log("cut short");
    clock.Advance(86400);
    disk.SetRoom(1000);

    LogFromHandler();
    Log("next");

    EXPECT_EQ(dir.Read(kToday), "[20");
    EXPECT_THAT(Lines(dir.Read(kTomorrow)),
                ElementsAre("signal 15", "Lines lost in the log file: 1, errmsg:No space left on device.",
                            "[20250304-10:00:00]next"));
}

TEST_F(LostLines, AreNotToldWhereWarningsAreFilteredOut) {
    SmallDisk disk(3);
    elog_set_fmt(ELOG_LVL_ERROR, 0);
    elog_set_filter_lvl(ELOG_LVL_ERROR);
    const auto log = [](const char* text) {
        Printed([text] { elog_output(ELOG_LVL_ERROR, "fpga", "file", "func", 1, "%s", text); });
    };
    log("cut short");
    disk.SetRoom(1000);

    log("next");

    EXPECT_EQ(dir.Read(kToday), "cut\nnext\n");
}

}  // namespace
