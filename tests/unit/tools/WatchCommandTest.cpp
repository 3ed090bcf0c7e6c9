// vexo watch: lines, JSON and a view on a terminal, over pages, over running programs, and over a channel of its own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/hosted/HostProcess.h"
#include "tests/support/TempDir.h"
#include "tests/unit/tools/Program.h"
#include "tests/unit/tools/StatsPage.h"
#include "tests/unit/tools/WatchTerminal.h"

using namespace capture;
using hosted::Eventually;
using hosted::Process;
using nlohmann::json;
using terminal_test::Terminal;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

namespace {

std::vector<json> LinesOf(const std::string& text) {
    std::vector<json> objects;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) objects.push_back(json::parse(line));
    return objects;
}

// The page is that of this test's own process, which runs and whose working directory this is.
class WatchPage : public ::testing::Test {
protected:
    WatchPage() { ::setenv("TERM", "xterm", 1); }
    ~WatchPage() override { ::unsetenv("NO_COLOR"); }

    void Write(const stats_page::Written& page) const { dir.Write(page.name(), page.bytes()); }
    std::string Words(const std::string& options) const {
        return word(VEXO_COMMAND) + " watch --dir . --pid " + std::to_string(::getpid()) + " " + options;
    }
    ProgramResult Watch(const std::string& options) const { return runProgram(Words(options)); }
    void Log(const std::string& message) const {
        dir.Write("fpga_20261115.log", "[WARN   ][20261115-09:12:34][fpga]" + message + "\n");
    }

    test_support::TempDir dir;
};

}  // namespace

TEST_F(WatchPage, HasTheNumbersOfVexoStat) {
    Write(stats_page::Busy());
    const ProgramResult watched = Watch("--json --interval 0.1 --seconds 0.3");
    EXPECT_EQ(watched.status, 0);
    const std::vector<json> lines = LinesOf(watched.output);
    ASSERT_GE(lines.size(), 2U);
    const json stat = json::parse(runProgram(word(VEXO_COMMAND) + " stat --dir . --json").output);
    for (const json& line : lines) EXPECT_EQ(line["process"]["streams"], stat["streams"]);
    EXPECT_EQ(lines.front()["kind"], "look");
    EXPECT_TRUE(lines.front()["rates"].is_null());
    EXPECT_EQ(lines.back()["kind"], "summary");
    EXPECT_EQ(lines.back()["rates"]["packets_per_second"], 0.0);
    EXPECT_TRUE(lines.back()["instruments"].is_null());
}

TEST_F(WatchPage, WritesALineForEachLookWhereThereIsNoTerminal) {
    Write(stats_page::Busy());
    Log("low \x1b[31mdisk");
    const std::string losses = "1,005 packets; lost: before the card 20, by the card 18, by the ring 20, ";
    // The log's line and two looks, however late the second one comes.
    const std::string looks = runProgram(Words("--interval 0.1") + " | head -n 3").output;
    EXPECT_THAT(looks, StartsWith("log 09:12:34 WARN low \\x1B[31mdisk\n"));
    EXPECT_THAT(looks, HasSubstr(losses));
    EXPECT_THAT(looks, HasSubstr(" 0 packets/s, 0.00 MB/s; " + losses));
    const ProgramResult watched = Watch("--interval 0.1 --seconds 0.3");
    EXPECT_EQ(watched.status, 0);
    EXPECT_THAT(watched.output, HasSubstr("\nwatched for "));
    EXPECT_THAT(watched.output, HasSubstr("    lost             before the card 20, "));
    EXPECT_THAT(watched.output, Not(HasSubstr("\x1b")));
    EXPECT_THAT(Watch("--plain --color always --seconds 0.1").output, HasSubstr("\x1b[33mWARN \x1b[0m"));
}

TEST_F(WatchPage, TakesTheTapsPageRatherThanTheApplications) {
    stats_page::Written own = stats_page::Busy();
    own.process.writer = vexo_stats::kApplication;
    Write(own);
    Write(stats_page::Busy());
    EXPECT_THAT(Watch("--seconds 0.1").output, HasSubstr("counted by the tap"));
}

TEST_F(WatchPage, OfAProcessThatHasEndedOnlyTheSummaryIsThere) {
    stats_page::Written page = stats_page::Busy();
    page.process.steps[vexo_stats::kEnded] = page.process.startClock;
    Write(page);
    const ProgramResult watched = Watch("");
    EXPECT_EQ(watched.status, 0);
    EXPECT_THAT(watched.output, StartsWith("the last numbers of a process that has ended:\nquotes "));
    EXPECT_THAT(Watch("--json").output, StartsWith("{\"kind\":\"summary\""));
}

TEST_F(WatchPage, SaysWhatIsMissing) {
    EXPECT_EQ(Watch("").status, 1);
    EXPECT_THAT(Watch("").output, HasSubstr("has no statistics page\nA program gets a page when it is started by: "));
    const ProgramResult none = runProgram(word(VEXO_COMMAND) + " watch --pid 1073741823");
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.output, "vexo: there is no process 1073741823\n");
    const ProgramResult nothing = runProgram(word(VEXO_COMMAND) + " watch");
    EXPECT_EQ(nothing.status, 2);
    EXPECT_THAT(nothing.output, HasSubstr("name a configuration, or a process with --pid"));
    EXPECT_EQ(runProgram(word(VEXO_COMMAND) + " watch none.ini").status, 2);
    EXPECT_EQ(runProgram(word(VEXO_COMMAND) + " watch c.ini --pid 1").status, 2);
    EXPECT_EQ(Watch("--plain --json").status, 2);
    dir.Write("odd.ini", "[config]\ncpucore = 1\n");
    EXPECT_THAT(runProgram(word(VEXO_COMMAND) + " watch odd.ini").output, HasSubstr("device names no channel"));
}

TEST_F(WatchPage, AHostilePageAndLogDoNoHarm) {
    stats_page::Written page;
    std::memset(page.process.program, '\x1b', sizeof page.process.program);
    vexo_stats::Stream stream;
    std::memset(&stream, 0xFF, sizeof stream);
    page.streams.assign(vexo_stats::kStreams, stream);
    Write(page);
    ASSERT_EQ(::mkfifo("fpga_20261115.log", 0600), 0);
    for (const char* options : {"--seconds 0.3 --interval 0.1", "--json --seconds 0.3 --interval 0.1"}) {
        const ProgramResult watched = Watch(options);
        EXPECT_EQ(watched.status, 0) << watched.output;
        EXPECT_THAT(watched.output, Not(HasSubstr("\x1b")));
    }
}

TEST_F(WatchPage, EndsQuietlyWithItsReader) {
    Write(stats_page::Busy());
    const ProgramResult watched = runProgram(Words("--interval 0.1") + " | head -n 1");
    EXPECT_EQ(watched.status, 0);
    EXPECT_THAT(watched.output, Not(HasSubstr("vexo:")));
}

// ---- on a terminal ----

namespace {

class WatchTerminal : public WatchPage {
protected:
    // What every end of the program leaves behind.
    static void ExpectInOrder(const Terminal& terminal, std::size_t columns, std::size_t rows) {
        EXPECT_TRUE(terminal.hasItsModes());
        EXPECT_FALSE(terminal.screen.isColored());
        EXPECT_EQ(terminal.screen.column(), 0U);
        EXPECT_THAT(terminal.screen.strange(), IsEmpty());
        EXPECT_LT(terminal.screen.highestMove(), rows);
        EXPECT_LE(terminal.screen.longestLine(), columns);
    }
};

#define SKIP_WITHOUT(terminal) \
    if (!(terminal).isThere()) GTEST_SKIP() << "this system gives no terminal"

}  // namespace

TEST_F(WatchTerminal, TheViewFitsTheWindowAndStaysInPlace) {
    Write(stats_page::Busy());
    Log(std::string(300, 'x'));
    for (const std::size_t columns : {40U, 80U, 200U}) {
        Terminal terminal(Words("--interval 0.1"), columns, 24);
        SKIP_WITHOUT(terminal);
        ASSERT_TRUE(terminal.shows("all               0    0.00       1,005")) << terminal.screen.text();
        EXPECT_THAT(terminal.screen.text(), AllOf(HasSubstr("09:12:34 WARN xxx"), HasSubstr("by the application")));
        EXPECT_EQ(terminal.timesShown("type 17"), 1U) << "one view, not two:\n" << terminal.screen.text();
        ExpectInOrder(terminal, columns, 24);
    }
}

TEST_F(WatchTerminal, EndsWithASummaryAtAnySignal) {
    Write(stats_page::Busy());
    for (const int signal : {SIGINT, SIGTERM, SIGQUIT, 0}) {
        Terminal terminal(Words("--interval 0.1"), 120, 40);
        SKIP_WITHOUT(terminal);
        ASSERT_TRUE(terminal.shows("by the application"));
        if (signal != 0) {
            terminal.signal(signal);
        } else {
            terminal.type("\x03");  // Ctrl-C
        }
        EXPECT_EQ(terminal.wait(), 0) << signal;
        EXPECT_THAT(terminal.screen.text(), HasSubstr("\nwatched for "));
        EXPECT_THAT(terminal.screen.text(), HasSubstr("counted by the tap, running for "));
        EXPECT_TRUE(terminal.hasItsModes());
        EXPECT_EQ(terminal.screen.column(), 0U);
        EXPECT_FALSE(terminal.screen.isColored());
    }
}

TEST_F(WatchTerminal, EndsWithItsTerminal) {
    Write(stats_page::Busy());
    Terminal terminal(Words("--interval 0.1"), 80, 24);
    SKIP_WITHOUT(terminal);
    ASSERT_TRUE(terminal.shows("by the application"));
    terminal.hangUp();
    terminal.wait();  // or this test never ends
}

TEST_F(WatchTerminal, AKilledWatchLeavesTheTerminalInOrder) {
    Write(stats_page::Busy());
    Terminal terminal(Words("--interval 0.1"), 80, 24);
    SKIP_WITHOUT(terminal);
    ASSERT_TRUE(terminal.shows("by the application"));
    terminal.signal(SIGKILL);
    EXPECT_EQ(terminal.wait(), 128 + SIGKILL);
    ExpectInOrder(terminal, 80, 24);
}

TEST_F(WatchTerminal, ANewSizeOfTheWindowIsANewView) {
    Write(stats_page::Busy());
    Log(std::string(300, 'x'));
    Terminal terminal(Words("--interval 1000"), 80, 24);  // only the signal can bring another view
    SKIP_WITHOUT(terminal);
    ASSERT_TRUE(terminal.shows("WARN " + std::string(65, 'x') + ">"));
    terminal.resize(100, 30);
    EXPECT_TRUE(terminal.shows("WARN " + std::string(85, 'x') + ">"));
    EXPECT_EQ(terminal.timesShown("type 17"), 1U) << terminal.screen.text();
}

TEST_F(WatchTerminal, GoesOnBelowAfterItWasStopped) {
    Write(stats_page::Busy());
    Terminal terminal(Words("--interval 1000"), 80, 40);
    SKIP_WITHOUT(terminal);
    ASSERT_TRUE(terminal.shows("by the application"));
    terminal.signal(SIGCONT);
    EXPECT_TRUE(terminal.shows("type 17", 2));
}

TEST_F(WatchTerminal, UsesNoColorAndNoCommandWhereTheyAreNotWanted) {
    Write(stats_page::Busy());
    {
        Terminal colored(Words("--seconds 0.3 --interval 0.1"), 80, 24);
        SKIP_WITHOUT(colored);
        EXPECT_EQ(colored.wait(), 0);
        EXPECT_GT(colored.screen.colors(), 0U);
    }
    ::setenv("NO_COLOR", "1", 1);
    Terminal plain(Words("--interval 0.1"), 80, 24);
    EXPECT_TRUE(plain.showsAnotherView());
    plain.type("\x03");  // Ctrl-C
    EXPECT_EQ(plain.wait(), 0);
    EXPECT_EQ(plain.screen.colors(), 0U);
    ::setenv("TERM", "dumb", 1);
    Terminal dumb(Words("--seconds 0.3 --interval 0.1"), 80, 24);
    EXPECT_EQ(dumb.wait(), 0);
    EXPECT_EQ(dumb.screen.colors() + dumb.screen.highestMove(), 0U);
    EXPECT_THAT(dumb.screen.text(), HasSubstr("packets/s"));
}

// ---- with programs ----

namespace {

using Words = std::vector<std::string>;

class WatchChannel : public ::testing::Test {
protected:
    WatchChannel() {
        const char* const sanitizer = std::getenv("ASAN_OPTIONS");
        const std::string options = sanitizer != nullptr ? sanitizer : "";
        ::setenv("ASAN_OPTIONS", ("verify_asan_link_order=0:" + options).c_str(), 1);
        std::filesystem::create_directory("tmp");
        std::filesystem::create_directory("home");
        ::setenv("TMPDIR", dir.Path("tmp").c_str(), 1);
        ::setenv("XDG_RUNTIME_DIR", dir.Path("home").c_str(), 1);
        ::setenv("VEXO_STATS_DIR", dir.Path("pages").c_str(), 1);
        ::setenv("VEXO_SIM_CARD", "embedded", 1);
        dir.Write("c3.ini", "[config]\ndevice = xilinx0:3\n");
        dir.Write("c4.ini", "[config]\ndevice = xilinx0:4\n");
        std::filesystem::copy(VEXO_EXAMPLES_DIR "/demo.ini", "demo.ini");
    }
    ~WatchChannel() override {
        for (const char* variable :
             {"TMPDIR", "XDG_RUNTIME_DIR", "VEXO_STATS_DIR", "VEXO_SIM_CARD", "VEXO_SIM_SCENARIO", "VEXO_LAYOUT"})
            ::unsetenv(variable);
    }

    static Words Watch(const Words& options) {
        Words words = {VEXO_COMMAND, "sim", "run", "--", VEXO_COMMAND, "watch"};
        words.insert(words.end(), options.begin(), options.end());
        return words;
    }
    int StatusOf(const Words& options) { return Process(Watch(options), "said", "errors").Wait(); }
    std::string Said() const { return dir.Read("said"); }
    std::string Errors() const { return dir.Read("errors"); }
    static bool IsEmptyDirectory(const std::string& path) {
        return !std::filesystem::exists(path) || std::filesystem::is_empty(path);
    }
    // The process that receives for a watch with --json; 0 when there is none.
    pid_t ReceiverOf(Process& watch) const {
        Eventually([&] { return Said().find("\"packets\":0") != std::string::npos || !watch.IsRunning(); });
        std::istringstream lines(Said());
        for (std::string line; std::getline(lines, line);) {
            const json look = json::parse(line, nullptr, false);
            if (!look.is_discarded() && !look["process"].is_null()) return look["process"]["pid"];
        }
        return 0;
    }
    // A program on its channel, with or without a page.
    static Words App(const std::string& config, bool isCounted) {
        Words words = {VEXO_COMMAND, "sim", "run", "--"};
        if (isCounted) words.insert(words.end(), {VEXO_COMMAND, "tap", "--stats-only", "--keep-page", "--"});
        words.insert(words.end(), {VEXO_RUN_APP, config, "poll"});
        return words;
    }
    bool IsUp(Process& program) const {
        return Eventually([&] { return !dir.Read("up").empty() || !program.IsRunning(); }) && program.IsRunning();
    }

    test_support::TempDir dir;
};

class WatchHosted : public WatchChannel {
protected:
    WatchHosted() : host((::setenv("VEXO_SIM_CARD", "hosted", 1), hosted::StartHost({}))) {}
    hosted::CardDirectory cards;
    Process host;
};

std::uint64_t QuotesOf(const json& process) {
    std::uint64_t quotes = 0;
    for (const json& stream : process["streams"])
        for (const char* type : {"17", "18", "19", "20"})
            if (stream["types"].contains(type)) quotes += stream["types"][type]["packets"].get<std::uint64_t>();
    return quotes;
}

}  // namespace

TEST_F(WatchChannel, CountsTheInstrumentsThatItReceives) {
    ASSERT_EQ(StatusOf({"demo.ini", "--json", "--seconds", "2"}), 0) << Errors();
    const std::vector<json> lines = LinesOf(Said());
    const json& last = lines.back();
    EXPECT_EQ(last["kind"], "summary");
    EXPECT_EQ(last["process"]["program"], "vexo-receiver");
    EXPECT_EQ(last["process"]["state"], "ended");
    std::uint64_t packets = 0;
    for (const json& one : last["instruments"]) {
        packets += one["packets"].get<std::uint64_t>();
        EXPECT_TRUE(std::regex_match(one["id"].get<std::string>(), std::regex("(SPD.|IPS.)?[A-Z]{2}[0-9]{3}.*")))
            << one;
    }
    EXPECT_GT(packets, 0U);
    EXPECT_LE(packets, QuotesOf(last["process"]));
    EXPECT_THAT(last["instruments"], SizeIs(100)) << "as many as there are in JSON";
    EXPECT_EQ(last["packets_without_id"], 0);
    // A look has the newest lines; the library's last ones are in the summary.
    bool hasLog = false;
    for (const json& entry : last["log"])
        hasLog = hasLog || entry["text"] == "dma channel CUSTOM_CHAN0_DATA has released.";
    EXPECT_TRUE(hasLog) << last["log"];
    // Nothing is left behind, and nothing lies beside the configuration.
    EXPECT_TRUE(IsEmptyDirectory("tmp"));
    EXPECT_TRUE(IsEmptyDirectory("pages"));
    for (const auto& entry : std::filesystem::directory_iterator("."))
        EXPECT_THAT(entry.path().filename().string(), Not(StartsWith("fpga_")));
}

TEST_F(WatchChannel, APayloadThatNoLayoutDescribesHasNoInstrument) {
    dir.Write("other.ini",
              "[layout]\nname = other\nmeaning = x\nid_field = id\n[type 99]\nmeaning = x\nsize = 16\nfields = f\n"
              "[fields f]\nid = 0, char[12], 1, Id\n");
    ASSERT_EQ(StatusOf({"demo.ini", "--json", "--seconds", "1", "--layout", "other.ini"}), 0) << Errors();
    const json last = LinesOf(Said()).back();
    EXPECT_THAT(last["instruments"], IsEmpty());
    EXPECT_EQ(last["packets_without_id"].get<std::uint64_t>(), QuotesOf(last["process"]));
    EXPECT_EQ(StatusOf({"demo.ini", "--layout", "none.ini"}), 2);
}

TEST_F(WatchChannel, AFailedStartIsExplained) {
    ::setenv("VEXO_SIM_SCENARIO", VEXO_SCENARIO_DIR "/no_card.ini", 1);
    EXPECT_EQ(StatusOf({"c3.ini"}), 3);
    EXPECT_THAT(Errors(), HasSubstr("vexo: there is no card 0"));
    ::unsetenv("VEXO_SIM_SCENARIO");
    EXPECT_EQ(Process({VEXO_COMMAND, "watch", "c3.ini"}, "said", "errors").Wait(), 3);
    EXPECT_THAT(Errors(), HasSubstr("For the simulated card: vexo sim run -- vexo watch c3.ini"));
    dir.Write("master.ini", "[config]\ndevice = xilinx0:0\n[channel0]\ninsts = SR\n");
    EXPECT_EQ(StatusOf({"master.ini"}), 1);
    EXPECT_THAT(Errors(), HasSubstr("the start failed while checking the versions: a key of [version] is missing\n"));
    EXPECT_TRUE(IsEmptyDirectory("tmp"));
}

TEST_F(WatchChannel, ItsReceiverEndsWithIt) {
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);  // an orphan becomes this process's child
    Process watch(Watch({"c3.ini", "--json", "--interval", "0.1"}), "said", "errors");
    const pid_t receiver = ReceiverOf(watch);
    ASSERT_NE(receiver, 0) << Said() << Errors();
    watch.Signal(SIGKILL);
    watch.Wait();
    int status = 0;
    ASSERT_TRUE(Eventually([&] { return ::waitpid(receiver, &status, WNOHANG) == receiver; }));
    EXPECT_TRUE(IsEmptyDirectory("tmp"));
    EXPECT_TRUE(IsEmptyDirectory("pages"));
    ::prctl(PR_SET_CHILD_SUBREAPER, 0);
}

TEST_F(WatchChannel, SaysWhyItsReceiverEnded) {
    Process watch(Watch({"c3.ini", "--json", "--interval", "0.1"}), "said", "errors");
    const pid_t receiver = ReceiverOf(watch);
    ASSERT_NE(receiver, 0) << Said() << Errors();
    ::kill(receiver, SIGKILL);
    EXPECT_EQ(watch.Wait(), 1);
    EXPECT_THAT(Errors(), HasSubstr("vexo: the receiver was ended by a signal: Killed\n"));
    EXPECT_TRUE(IsEmptyDirectory("tmp"));
}

// A process that dies lets go of its page before its parent can ask for its status. Its tracer makes that time long.
TEST_F(WatchChannel, WaitsForTheStatusOfAReceiverWhosePageHasEnded) {
    Process watch(Watch({"c3.ini", "--json", "--interval", "0.1"}), "said", "errors");
    const pid_t receiver = ReceiverOf(watch);
    ASSERT_NE(receiver, 0) << Said() << Errors();
    if (::ptrace(PTRACE_SEIZE, receiver, nullptr, nullptr) != 0)
        GTEST_SKIP() << "skipped: processes cannot be traced here: " << std::strerror(errno);
    ::kill(receiver, SIGKILL);
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(receiver), &info, WEXITED | WNOWAIT), 0) << std::strerror(errno);
    const auto looks = [this] {
        const std::string said = Said();
        return std::count(said.begin(), said.end(), '\n');
    };
    const auto before = looks();
    EXPECT_TRUE(Eventually([&] { return looks() > before + 2 || !watch.IsRunning(); }));
    EXPECT_TRUE(watch.IsRunning());
    ::waitpid(receiver, nullptr, 0);
    EXPECT_EQ(watch.Wait(), 1);
    EXPECT_THAT(Errors(), HasSubstr("vexo: the receiver was ended by a signal: Killed\n"));
}

// The receiver has a working directory of its own.
TEST_F(WatchChannel, FindsLayoutsAndPagesWhoseNamesAreRelative) {
    ::setenv("VEXO_SIM_SCENARIO", VEXO_SCENARIO_DIR "/lossy_stream.ini", 1);
    ::setenv("VEXO_STATS_DIR", "pages", 1);
    std::filesystem::copy(VEXO_LAYOUT_FILE, "own.ini");
    const std::vector<Words> ways = {{"demo.ini", "--json", "--interval", "0.1", "--layout", "own.ini"},
                                     {"demo.ini", "--json", "--interval", "0.1"}};
    for (const Words& options : ways) {
        if (options.back() != "own.ini") ::setenv("VEXO_LAYOUT", "own.ini", 1);
        std::filesystem::remove("said");
        Process watch(Watch(options), "said", "errors");
        const std::regex hasGap("\"sequence\":\\{\"gaps\":[1-9]");
        const auto hasQuotes = [this] { return Said().find("\"17\":{") != std::string::npos; };
        EXPECT_TRUE(Eventually([&] {
            return std::regex_search(Said(), hasGap) || !watch.IsRunning() ||
                   (hasQuotes() && Said().find("\"sequence\"") == std::string::npos);
        }));
        EXPECT_TRUE(std::regex_search(Said(), hasGap)) << Errors();
        watch.Signal(SIGTERM);
        EXPECT_EQ(watch.Wait(), 0) << Errors();
    }
}

TEST_F(WatchChannel, AgreesWithVexoStatAboutAProgramWithLosses) {
    ::setenv("VEXO_SIM_SCENARIO", VEXO_SCENARIO_DIR "/lossy_stream.ini", 1);
    Process program(App("demo.ini", true), "app.out", "app.err");
    ASSERT_TRUE(IsUp(program)) << dir.Read("app.out") << dir.Read("app.err");
    Process watch({VEXO_COMMAND, "watch", "--pid", std::to_string(program.Id()), "--json", "--interval", "0.1"}, "said",
                  "errors");
    // Which cause comes first depends on how busy this machine is: a slow program overflows its ring.
    const std::regex hasLost("\"(before_card|by_ring|by_application)\":[1-9]");
    ASSERT_TRUE(Eventually([&] { return std::regex_search(Said(), hasLost) || !watch.IsRunning(); })) << Errors();
    program.Signal(SIGTERM);
    program.Wait();
    EXPECT_EQ(watch.Wait(), 0) << Errors();
    const json last = LinesOf(Said()).back();
    EXPECT_EQ(last["kind"], "summary");
    const ProgramResult stat = runProgram(word(VEXO_COMMAND) + " stat --json");
    EXPECT_EQ(last["process"], json::parse(stat.output));
    bool hasLog = false;
    for (const json& line : LinesOf(Said()))
        for (const json& entry : line["log"])
            hasLog = hasLog || entry["text"].get<std::string>().find("Init dma channel") != std::string::npos;
    EXPECT_TRUE(hasLog) << "the log of the working directory";
}

TEST_F(WatchHosted, AChannelInUseIsShownFromThePageOfItsProgram) {
    Process program(App("c3.ini", true), "app.out", "app.err");
    ASSERT_TRUE(IsUp(program)) << dir.Read("app.out") << dir.Read("app.err");
    EXPECT_EQ(StatusOf({"c3.ini", "--seconds", "0.3"}), 0) << Errors();
    EXPECT_THAT(Said(), HasSubstr("vexo_run_app " + std::to_string(program.Id())));
    program.Signal(SIGTERM);
    program.Wait();
}

TEST_F(WatchHosted, AChannelInUseByAProgramWithoutAPageNamesTheProgram) {
    Process program(App("c3.ini", false), "app.out", "app.err");
    ASSERT_TRUE(IsUp(program)) << dir.Read("app.out") << dir.Read("app.err");
    EXPECT_EQ(StatusOf({"c3.ini"}), 1);
    EXPECT_THAT(Errors(), HasSubstr("vexo: card 0 channel 3 is taken; the card's library says: "));
    EXPECT_THAT(Errors(), HasSubstr("is held by process " + std::to_string(program.Id()) + " (vexo_run_app, user "));
    EXPECT_THAT(Errors(), HasSubstr("\nA program gets a page when it is started by: vexo tap --stats-only"));
    EXPECT_EQ(StatusOf({"c4.ini", "--seconds", "0.2"}), 0) << "another channel is free: " << Errors();
    program.Signal(SIGTERM);
    program.Wait();
}

TEST_F(WatchHosted, DoesNotResetACardThatIsInUse) {
    Process program(App("c3.ini", false), "app.out", "app.err");
    ASSERT_TRUE(IsUp(program)) << dir.Read("app.out") << dir.Read("app.err");
    EXPECT_EQ(StatusOf({"demo.ini"}), 1);
    EXPECT_THAT(Errors(), HasSubstr("the start of a master resets the card, and stream CUSTOM_CHAN3_DATA is in use"));
    EXPECT_THAT(hosted::StatusJson(), HasSubstr("\"in_reset\": false"));
    program.Signal(SIGTERM);
    program.Wait();
}
