#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/support/TempDir.h"
#include "tests/unit/tools/Program.h"

using namespace capture;
using nlohmann::json;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

ProgramResult vexo(const std::string& words) { return runProgram(word(VEXO_COMMAND) + " " + words); }

std::string Line(const std::string& level, const std::string& time, const std::string& text) {
    return "[" + level + "][20261115-" + time + "][fpga]" + text + "\n";
}

// A file without a line of the library is no log.
constexpr char kFirst[] = "[INFO   ][20261115-08:00:00][log]log is initialized successfully.\n";

bool IsPrintable(const std::string& text) {
    return std::none_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return (byte < 0x20 && c != '\n' && c != '\t') || byte >= 0x7F;
    });
}

class LogCommand : public ::testing::Test {
protected:
    void Append(const std::string& name, const std::string& text) const {
        std::ofstream(dir.Path(name), std::ios::app | std::ios::binary) << text;
    }

    test_support::TempDir dir;  // the working directory, too
};

// A vexo log --follow. What it shows is in the file "shown".
class Following {
public:
    Following(const test_support::TempDir& directory, const std::string& words) : m_dir(directory) {
        m_dir.Write("shown", "");
        const std::string command = "exec " + word(VEXO_COMMAND) + " log " + words + " > shown 2>&1";
        m_pid = ::fork();
        if (m_pid == 0) {
            ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            ::_exit(127);
        }
    }
    ~Following() {
        if (m_pid <= 0) return;
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
    Following(const Following&) = delete;
    Following& operator=(const Following&) = delete;

    /// Waits until the text is shown. False when vexo has ended instead.
    bool Shows(const std::string& text) {
        while (m_dir.Read("shown").find(text) == std::string::npos) {
            if (::waitpid(m_pid, nullptr, WNOHANG) != 0) {
                m_pid = 0;
                return m_dir.Read("shown").find(text) != std::string::npos;
            }
            ::usleep(20000);
        }
        return true;
    }

private:
    const test_support::TempDir& m_dir;
    pid_t m_pid = 0;
};

}  // namespace

TEST_F(LogCommand, ShowsTheNewestLogOfTheDirectory) {
    dir.Write("fpga_20261114.log", Line("INFO   ", "23:59:59", "old"));
    dir.Write("fpga_20261115.log", Line("INFO   ", "09:00:00", "new"));
    dir.Write("fpga_notes.log", "x\n");
    dir.Write("other_20261116.log", "y\n");
    const ProgramResult result = vexo("log");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, Line("INFO   ", "09:00:00", "new"));
}

TEST_F(LogCommand, SaysWhereToFindALogWhenThereIsNone) {
    const ProgramResult result = vexo("log");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output,
              "vexo: .: no fpga_YYYYMMDD.log here\nName the working directory of the program, or a log file.\n");
}

TEST_F(LogCommand, ALevelShowsItAndWorseOnesWithTheLinesThatBelongToThem) {
    dir.Write("a.log", "before all\n" + Line("INFO   ", "09:00:00", "info") + "of info\n" +
                           Line("WARN   ", "09:00:01", "warn") + "of warn\n" + Line("ERROR  ", "09:00:02", "error"));
    EXPECT_EQ(vexo("log a.log --level warn").output,
              Line("WARN   ", "09:00:01", "warn") + "of warn\n" + Line("ERROR  ", "09:00:02", "error"));
    EXPECT_EQ(vexo("log a.log --level ERROR").output, Line("ERROR  ", "09:00:02", "error"));
    const ProgramResult none = vexo("log a.log --level assert");
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.output, "vexo: no line of this level or a worse one\n");
}

TEST_F(LogCommand, MergesLogsByTimeAndNamesThem) {
    dir.Write("a", Line("INFO   ", "09:00:00", "1") + Line("INFO   ", "09:00:02", "3") + "3b\n" +
                       Line("INFO   ", "09:00:01", "clock set back"));
    dir.Write("b", Line("INFO   ", "09:00:01", "2") + Line("INFO   ", "09:00:02", "4") + "no line feed");
    EXPECT_EQ(vexo("log a b").output, "a: " + Line("INFO   ", "09:00:00", "1") +
                                          "b: " + Line("INFO   ", "09:00:01", "2") +               //
                                          "a: " + Line("INFO   ", "09:00:02", "3") + "a: 3b\n" +   //
                                          "a: " + Line("INFO   ", "09:00:01", "clock set back") +  //
                                          "b: " + Line("INFO   ", "09:00:02", "4") + "b: no line feed\n");
}

TEST_F(LogCommand, ALogThatCannotBeReadDoesNotHideTheOthers) {
    dir.Write("a", kFirst);
    const ProgramResult result = vexo("log a missing");
    EXPECT_EQ(result.status, 2);
    std::filesystem::create_directory("empty");
    EXPECT_EQ(vexo("log a empty").status, 1);
    EXPECT_THAT(vexo("log a empty").output, HasSubstr("vexo: empty: no fpga_YYYYMMDD.log here\nName the working "));
    EXPECT_THAT(result.output, AllOf(HasSubstr("a: [INFO   ]"),
                                     HasSubstr("vexo: missing: No such file or directory; check the path\n")));
}

TEST_F(LogCommand, ShowsTheLastLinesOnly) {
    dir.Write("a", kFirst + std::string("1\n2\n3\n"));
    EXPECT_EQ(vexo("log a -n 2").output, "2\n3\n");
    EXPECT_EQ(vexo("log a -n 0").output, "");
}

TEST_F(LogCommand, AFileWithoutALineOfTheLibraryIsNoLog) {
    dir.Write("demo.ini", "; A small master channel on the simulated card, and more\n[config]\n");
    const ProgramResult result = vexo("log demo.ini");
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.output,
              "vexo: demo.ini:1: this is no log of the library: it begins with \"; A small master channel on the "
              "simulate...\", and no line begins with a level such as [INFO   ]\n");
    dir.Write("chinese",
              "\xE4\xB8\xAD\xE6\x96\x87\xE4\xB8\xAD\xE6\x96\x87\xE4\xB8\xAD\xE6\x96\x87\xE4\xB8\xAD"
              "\xE6\x96\x87\xE4\xB8\xAD\xE6\x96\x87\xE4\xB8\xAD\xE6\x96\x87\xE4\xB8\xAD\xE6\x96\x87\n");
    EXPECT_THAT(vexo("log chinese").output, Not(HasSubstr("\\x")));
    dir.Write("fpga_20261115.log", "text\n");
    EXPECT_EQ(vexo("log").status, 1);
    EXPECT_THAT(vexo("log").output, HasSubstr("fpga_20261115.log:1: this is no log of the library"));
    dir.Write("empty", "");
    EXPECT_EQ(vexo("log empty").output, "vexo: no line at all\n");
}

TEST_F(LogCommand, WhatAnApplicationPrintsBeforeTheFirstLineOfTheLibraryIsShownToo) {
    // The tag lies across the border of what is read at once.
    for (const std::size_t before : {0, 1, 65536 - 5, 65536 - 1, 65536, 65536 + 7}) {
        dir.Write("app.out", std::string(before, 'x') + "\n" + kFirst);
        EXPECT_EQ(vexo("log app.out --lines 1").output, kFirst) << before;
    }
}

TEST_F(LogCommand, ALevelHasItsUsualOtherName) {
    dir.Write("a.log", Line("INFO   ", "09:00:00", "info") + Line("WARN   ", "09:00:01", "warn"));
    EXPECT_EQ(vexo("log a.log --level Warning").output, Line("WARN   ", "09:00:01", "warn"));
    const ProgramResult wrong = vexo("log a.log --level warnings");
    EXPECT_EQ(wrong.status, 2);
    EXPECT_THAT(wrong.output, StartsWith("vexo: --level: warnings is no level; give assert, error, warn, event, info, "
                                         "debug or verbose\n"));
    for (const char* level : {"assert", "error", "warn", "event", "info", "debug", "verbose"})
        EXPECT_THAT(vexo("log --help").output, HasSubstr(level));
}

TEST_F(LogCommand, ColoursLevelsOnlyWhenAsked) {
    dir.Write("a", Line("ERROR  ", "09:00:00", "x") + Line("INFO   ", "09:00:00", "y"));
    EXPECT_THAT(vexo("log a --color always").output,
                AllOf(StartsWith("\033[1;31m[ERROR  ]\033[0m[2026"), HasSubstr("\n[INFO   ][2026")));
    EXPECT_EQ(vexo("log a").output, dir.Read("a"));
    EXPECT_EQ(vexo("log a --color never").output, dir.Read("a"));
}

TEST_F(LogCommand, ColoursObeyTheTerminal) {
    dir.Write("a", Line("ERROR  ", "09:00:00", "x"));
    const auto onTerminal = [](const std::string& settings) {
        return runProgram("env -u NO_COLOR " + settings + " script -qec '" + word(VEXO_COMMAND) +
                          " log a' /dev/null < /dev/null")
            .output;
    };
    EXPECT_THAT(onTerminal("TERM=xterm"), HasSubstr("\033[1;31m"));
    EXPECT_THAT(onTerminal("TERM=dumb"), Not(HasSubstr("\033[")));
    EXPECT_THAT(onTerminal("TERM=xterm NO_COLOR=1"), Not(HasSubstr("\033[")));
}

TEST_F(LogCommand, BytesThatCommandATerminalAreShownHarmless) {
    std::string all;
    for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
    dir.Write("a", std::string("\033]0;title\a \xC2\x9B"
                               "2J \xE2\x80\xAE \xE4\xB8\xAD\n") +
                       kFirst);
    EXPECT_EQ(vexo("log a --lines 2").output.substr(0, vexo("log a").output.find('\n') + 1),
              "\\x1B]0;title\\x07 \\xC2\\x9B2J \\xE2\\x80\\xAE \xE4\xB8\xAD\n");
    dir.Write("b", kFirst + all);
    const ProgramResult binary = vexo("log b");
    EXPECT_EQ(binary.status, 0);
    EXPECT_TRUE(IsPrintable(binary.output)) << binary.output;
    EXPECT_THAT(binary.output, HasSubstr("\\x00\\x01"));
    EXPECT_THAT(vexo("log --explain 'zzz\033[2J'").output, HasSubstr("zzz\\x1B[2J"));
    EXPECT_EQ(vexo("log 'none\033[2J'").output, "vexo: none\\x1B[2J: No such file or directory; check the path\n");
    EXPECT_EQ(vexo("index 'none\033[2J'").output.find('\033'), std::string::npos);
}

TEST_F(LogCommand, OneHugeLineIsCut) {
    dir.Write("a", "x");
    std::filesystem::resize_file(dir.Path("a"), 10U << 20);
    Append("a", std::string("\n") + kFirst + "last\n");
    const ProgramResult result = vexo("log a");
    EXPECT_EQ(result.status, 0);
    EXPECT_LT(result.output.size(), 300000U);
    EXPECT_THAT(result.output, AllOf(HasSubstr("...\n[INFO"), HasSubstr("\nlast\n")));
}

TEST_F(LogCommand, RefusesWhatIsNoRegularFile) {
    ASSERT_EQ(::mkfifo("fifo", 0600), 0);
    EXPECT_EQ(vexo("log fifo").output, "vexo: fifo: this is not a regular file\n");
    EXPECT_EQ(vexo("log /dev/zero").output, "vexo: /dev/zero: this is not a regular file\n");
    std::filesystem::create_symlink("loop", "loop");
    EXPECT_EQ(vexo("log loop").output, "vexo: loop: Too many levels of symbolic links\n");
    EXPECT_EQ(vexo("log loop").status, 2);
    dir.Write("a", kFirst);
    std::filesystem::create_symlink("a", "link");
    EXPECT_EQ(vexo("log link").output, kFirst);
}

TEST_F(LogCommand, FollowsWhatComes) {
    dir.Write("fpga_20261115.log", "1\n2\n3\n");
    Following following(dir, "-f -n 2");
    ASSERT_TRUE(following.Shows("3\n"));
    Append("fpga_20261115.log", "half");
    Append("fpga_20261115.log", " a line\n");
    ASSERT_TRUE(following.Shows("half a line\n"));
    EXPECT_EQ(dir.Read("shown"), "2\n3\nhalf a line\n");
}

TEST_F(LogCommand, FollowsAcrossMidnight) {
    dir.Write("fpga_20261115.log", "evening\n");
    Following following(dir, "-f fpga_20261115.log");
    ASSERT_TRUE(following.Shows("evening\n"));
    Append("fpga_20261115.log", "last of the day\nwithout line feed");
    dir.Write("fpga_20261116.log", "morning\n");
    ASSERT_TRUE(following.Shows("morning\n"));
    dir.Write("fpga_20261118.log", "two days later\n");
    ASSERT_TRUE(following.Shows("two days later\n"));
    EXPECT_EQ(dir.Read("shown"), "evening\nlast of the day\nwithout line feed\nmorning\ntwo days later\n");
}

TEST_F(LogCommand, FollowsSeveralLogsAndNamesThem) {
    dir.Write("a.log", Line("INFO   ", "09:00:00", "a1"));
    dir.Write("b.log", Line("INFO   ", "09:00:01", "b1"));
    Following following(dir, "-f --level warn a.log b.log");
    Append("b.log", Line("WARN   ", "09:00:02", "b2") + Line("INFO   ", "09:00:03", "b3"));
    ASSERT_TRUE(following.Shows("b2\n"));
    Append("a.log", Line("ERROR  ", "09:00:04", "a2"));
    ASSERT_TRUE(following.Shows("a2\n"));
    EXPECT_EQ(dir.Read("shown"),
              "b.log: " + Line("WARN   ", "09:00:02", "b2") + "a.log: " + Line("ERROR  ", "09:00:04", "a2"));
}

TEST_F(LogCommand, FollowsADirectoryThatGetsItsFirstLog) {
    std::filesystem::create_directory("app");
    Following following(dir, "--follow app");
    ASSERT_TRUE(following.Shows("vexo: app: no log here yet, waiting for one\n"));
    dir.Write("app/fpga_20261115.log", "first\n");
    EXPECT_TRUE(following.Shows("first\n"));
}

TEST_F(LogCommand, FollowsAFileThatIsEmptiedOrReplaced) {
    dir.Write("a.log", "a long first line\n");
    Following following(dir, "-f a.log");
    ASSERT_TRUE(following.Shows("a long first line\n"));
    std::filesystem::resize_file("a.log", 0);
    Append("a.log", "cut\n");
    ASSERT_TRUE(following.Shows("cut\n"));
    dir.Write("new", "a replaced file\n");
    std::filesystem::rename("new", "a.log");
    EXPECT_TRUE(following.Shows("a replaced file\n"));
}

TEST_F(LogCommand, ExplainsALineOfALog) {
    const ProgramResult result = vexo("log --explain '[WARN   ][20261115-09:00:00][fpga]Received signal 15 !!'");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, AllOf(StartsWith("Received signal %d !!\n"), HasSubstr("WARN (src/api, SignalProcess)"),
                                     HasSubstr("what to do:  None")));
}

TEST_F(LogCommand, TheFormatWithTheMostTextOfItsOwnExplains) {
    EXPECT_THAT(vexo("log --explain 'czce_level1=enabled.'").output, StartsWith("%s=%s.\n"));
    EXPECT_THAT(vexo("log --explain 'L5_DSTPORT=28100'").output, StartsWith("%s=%s\n"));
}

TEST_F(LogCommand, ExplainsAPartOfAMessage) {
    EXPECT_THAT(vexo("log --explain '[channel:3] init dma FAIL'").output,
                StartsWith("[channel:%d] Init dma fail! dma name %s.\n"));
    EXPECT_THAT(vexo("log --explain 'contract index file ... lost lines'").output,
                StartsWith("contract index file %s is not complete, lost lines: %lu.\n"));
    EXPECT_THAT(vexo("log --explain channel").output, HasSubstr(" more messages have this text: give more of it.\n"));
    const ProgramResult none = vexo("log --explain 'no such text'");
    EXPECT_EQ(none.status, 1);
    EXPECT_THAT(none.output, StartsWith("vexo: no message of the library has this text: no such text\n"));
}

TEST_F(LogCommand, AsJsonIsOneObjectALine) {
    dir.Write("a.log", "before all\n" + Line("WARN   ", "09:00:01", "warn \"1\"") + "of warn\n\xFF\n");
    std::istringstream lines(vexo("log a.log --json").output);
    std::vector<json> shown;
    for (std::string line; std::getline(lines, line);) shown.push_back(json::parse(line));
    ASSERT_EQ(shown.size(), 4U);
    EXPECT_EQ(shown[0], (json{{"log", "a.log"}, {"level", nullptr}, {"time", nullptr}, {"text", "before all"}}));
    EXPECT_EQ(shown[1]["level"], "warn");
    EXPECT_EQ(shown[1]["time"], "20261115-09:00:01");
    EXPECT_EQ(shown[1]["text"], "warn \"1\"");
    EXPECT_EQ(shown[2], (json{{"log", "a.log"}, {"level", "warn"}, {"time", nullptr}, {"text", "of warn"}}));
    EXPECT_EQ(shown[3]["text"], "\xEF\xBF\xBD");
    EXPECT_EQ(json::parse(vexo("log a.log --json --lines 1").output)["text"], "\xEF\xBF\xBD");
}

TEST_F(LogCommand, ExplainsAsJson) {
    const json shown = json::parse(vexo("log --json --explain 'Received signal 15 !!'").output);
    ASSERT_EQ(shown["messages"].size(), 1U);
    EXPECT_EQ(shown["messages"][0]["message"], "Received signal %d !!");
    EXPECT_THAT(shown["messages"][0]["todo"], StartsWith("None"));
}

TEST_F(LogCommand, AFullDiskIsReported) {
    dir.Write("a", kFirst);
    const ProgramResult result = vexo("log a > /dev/full");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, StartsWith("vexo: standard output: No space left on device"));
}
