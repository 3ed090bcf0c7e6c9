#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>

#include "tests/hosted/HostProcess.h"
#include "tests/support/Sanitizers.h"
#include "tests/support/TempDir.h"
#include "tests/unit/tools/Program.h"
#include "tools/polls/PollPage.h"
#include "tools/vexo/run/PollReader.h"

using hosted::Eventually;
using hosted::Process;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

using Words = std::vector<std::string>;

class RunCommand : public ::testing::Test {
protected:
    RunCommand() {
        ::setenv("VEXO_SIM_CARD", "embedded", 1);
        // A sanitizer's library cannot come before what is preloaded.
        const char* const sanitizer = std::getenv("ASAN_OPTIONS");
        const std::string options = sanitizer != nullptr ? sanitizer : "";
        ::setenv("ASAN_OPTIONS", ("verify_asan_link_order=0:" + options).c_str(), 1);
        dir.Write("c3.ini", "[config]\ndevice = xilinx0:3\n");
        dir.Write("bad.ini", "[config]\n");
    }
    ~RunCommand() override {
        for (const char* variable :
             {"VEXO_SIM_CARD", "VEXO_SIM_SET", "VEXO_SIM_SCENARIO", "NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
            ::unsetenv(variable);
    }

    static Words Run(const Words& options, const Words& program) {
        Words words = {VEXO_COMMAND, "run"};
        words.insert(words.end(), options.begin(), options.end());
        words.emplace_back("--");
        words.insert(words.end(), program.begin(), program.end());
        return words;
    }
    static Words App(const std::string& what, const std::string& config = "c3.ini") {
        return {VEXO_RUN_APP, config, what};
    }
    // Until it ends by itself.
    int StatusOf(const Words& options, const Words& program) {
        return Process(Run(options, program), "", "said").Wait();
    }
    std::string Said() const { return dir.Read("said"); }
    // Before a command: as a user without the rights of root, whoever runs the test.
    static std::string AsUser() {
        return ::geteuid() == 0 ? "setpriv --reuid 65534 --regid 65534 --clear-groups " : "";
    }
    // A word of a shell command: vexo, where that user gets to, as to the directory of the test.
    std::string VexoForUser() const {
        namespace fs = std::filesystem;
        fs::permissions(dir.Path(), fs::perms(0777));
        fs::create_directories("own/bin");
        fs::create_directories("own/tools");
        fs::copy_file(VEXO_COMMAND, "own/bin/vexo");
        fs::copy_file(VEXO_POLLS_LIBRARY, "own/tools/libvexo-polls.so");
        return capture::word(dir.Path("own/bin/vexo"));
    }
    // Says "up" after its first act, does the second one at SIGUSR1, and fails when there is a file "end".
    static Words Script(const std::string& first, const std::string& atSignal) {
        return {
            "/bin/sh", "-c",
            "trap '" + atSignal + "' USR1; " + first + "; echo >up; while [ ! -e end ]; do sleep 0.01; done; exit 1"};
    }
    bool SaysAtLast(Process& vexo, const std::string& text) {
        return Eventually([&] { return Said().find(text) != std::string::npos || !vexo.IsRunning(); }) &&
               Said().find(text) != std::string::npos;
    }
    bool IsThereAtLast(Process& vexo, const std::string& file) {
        return Eventually([&] { return !dir.Read(file).empty() || !vexo.IsRunning(); }) && !dir.Read(file).empty();
    }

    test_support::TempDir dir;
};

// Stands for the service manager.
class Manager {
public:
    explicit Manager(const std::string& address) : m_socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un name{};
        name.sun_family = AF_UNIX;
        std::memcpy(name.sun_path, address.data(), address.size());
        if (address[0] == '@') name.sun_path[0] = '\0';
        const std::size_t size = offsetof(sockaddr_un, sun_path) + address.size();
        EXPECT_EQ(::bind(m_socket, reinterpret_cast<sockaddr*>(&name), static_cast<socklen_t>(size)), 0);
        ::setenv("NOTIFY_SOCKET", address.c_str(), 1);
    }
    ~Manager() { ::close(m_socket); }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    std::string TryNext() const {
        char text[256];
        const ssize_t size = ::recv(m_socket, text, sizeof text, MSG_DONTWAIT);
        return size >= 0 ? std::string(text, static_cast<std::size_t>(size)) : "";
    }
    std::string Next() const {
        std::string text;
        Eventually([&] { return !(text = TryNext()).empty(); });
        return text;
    }
    bool HasTold(const std::string& what) const {
        bool told = false;
        for (std::string text; !(text = TryNext()).empty();) told = told || text.find(what) == 0;
        return told;
    }

private:
    int m_socket;
};

}  // namespace

TEST_F(RunCommand, AnOrderlyEndIsZero) {
    EXPECT_EQ(StatusOf({"c3.ini"}, App("end")), 0);
    EXPECT_THAT(Said(), AllOf(HasSubstr("the stream is open"), HasSubstr("vexo run: ended in order\n")));
    EXPECT_THAT(dir.Read("c3.out"), HasSubstr("Init dma channel :CUSTOM_CHAN3_DATA success."));
}

TEST_F(RunCommand, AsJsonEachEventIsAnObjectOnALine) {
    const auto events = [&](const Words& options, const Words& program, int status) {
        std::filesystem::remove("events");
        EXPECT_EQ(Process(Run(options, program), "events", "said").Wait(), status) << Said();
        EXPECT_EQ(Said(), "");
        std::map<std::string, nlohmann::json> all;
        std::istringstream lines(dir.Read("events"));
        for (std::string line; std::getline(lines, line);) {
            const nlohmann::json one = nlohmann::json::parse(line);
            EXPECT_GT(one["time"].get<double>(), 1e9);
            EXPECT_FALSE(one["text"].get<std::string>().empty());
            all[one["event"]] = one;
        }
        return all;
    };
    auto all = events({"--json", "c3.ini"}, App("end"), 0);
    EXPECT_EQ(all["start"]["number"], 1);
    EXPECT_EQ(all["start"]["program"], VEXO_RUN_APP);
    EXPECT_EQ(all["start"]["output"], "c3.out");
    EXPECT_EQ(all["ready"]["pid"], all["start"]["pid"]);
    EXPECT_EQ(all["end"]["pid"], all["start"]["pid"]);
    EXPECT_EQ(all["end"]["orderly"], true);
    EXPECT_EQ(all["end"]["status"], 0);
    EXPECT_EQ(all.count("restart"), 0U);

    ::setenv("VEXO_SIM_SCENARIO", VEXO_SCENARIO_DIR "/no_card.ini", 1);
    all = events({"--json", "c3.ini"}, App("end"), 3);
    EXPECT_EQ(all.count("ready"), 0U);
    EXPECT_EQ(all["end"]["orderly"], false);
    EXPECT_EQ(all["end"]["again"], true);
    EXPECT_EQ(all["end"]["status"], 3);

    all = events({"--json", "--check", "bad.ini"}, App("end", "bad.ini"), 4);
    EXPECT_EQ(all["check"]["fatal"], 3);
    EXPECT_EQ(all["refused"]["status"], 4);
    EXPECT_EQ(all.count("start"), 0U);
}

TEST_F(RunCommand, AsJsonARestartIsAnEvent) {
    ::setenv("VEXO_SIM_SCENARIO", VEXO_SCENARIO_DIR "/no_card.ini", 1);
    Process vexo(Run({"--json", "--restart", "--backoff", "0.01", "c3.ini"}, App("end")), "events", "said");
    EXPECT_TRUE(Eventually([&] { return dir.Read("events").find("\"number\":2") != std::string::npos; }));
    vexo.Signal(SIGTERM);
    vexo.Wait();
    EXPECT_THAT(dir.Read("events"), HasSubstr("\"event\":\"restart\""));
    EXPECT_THAT(dir.Read("events"), HasSubstr("\"wait_seconds\":0.01"));
}

TEST_F(RunCommand, SeesThePollsOfAPlugInThatHasItsLibrariesForItself) {
    EXPECT_EQ(StatusOf({"c3.ini"}, {VEXO_RUN_HOST, "c3.ini", "end"}), 0) << Said() << dir.Read("c3.out");
    EXPECT_THAT(Said(), HasSubstr("the stream is open"));
    EXPECT_EQ(StatusOf({"c3.ini"}, {VEXO_COMMAND, "tap", "--", VEXO_RUN_HOST, "c3.ini", "three"}), 0);
}

TEST_F(RunCommand, AFailedStartIsExplainedAndIsNotZero) {
    EXPECT_EQ(StatusOf({"bad.ini"}, App("end", "bad.ini")), 4);
    EXPECT_THAT(Said(), HasSubstr("vexo run: the start failed while choosing card and channel: device in [config] is "
                                  "missing or wrong; write device"));
    ::setenv("VEXO_SIM_SCENARIO", VEXO_SCENARIO_DIR "/no_card.ini", 1);
    EXPECT_EQ(StatusOf({"c3.ini"}, App("end")), 3);
    EXPECT_THAT(Said(), HasSubstr("the start failed while opening the card: there is no card"));
}

TEST_F(RunCommand, AProgramThatNeverOpenedAStreamDidNotEndInOrder) {
    EXPECT_EQ(StatusOf({"c3.ini"}, {"/bin/sh", "-c", "exit 0"}), 1);
    EXPECT_THAT(Said(), HasSubstr("its stream was never open, and c3.out does not say why"));
}

TEST_F(RunCommand, GivesTheStatusOfTheProgramOrItsSignal) {
    EXPECT_EQ(StatusOf({"c3.ini"}, App("status")), 7);
    EXPECT_EQ(StatusOf({"c3.ini"}, App("abort")), 128 + SIGABRT);
    EXPECT_THAT(Said(), HasSubstr("ended by signal 6 (Aborted)"));
}

TEST_F(RunCommand, AProgramThatCannotRunEndsAsInAShell) {
    EXPECT_EQ(StatusOf({"c3.ini"}, {"./none"}), 127);
    EXPECT_THAT(Said(), HasSubstr("vexo: ./none: No such file or directory\n"));
    dir.Write("text", "no program");
    EXPECT_EQ(StatusOf({"c3.ini"}, {"./text"}), 126);
}

// Status 126 would keep a service manager from starting it again.
TEST_F(RunCommand, WhereNoProcessCanBeStartedForTheMomentALaterStartMayHelp) {
    if (kWithThreadSanitizer) GTEST_SKIP() << "skipped: the thread sanitizer itself starts a thread";
    // The address sanitizer would look for leaks in a process of its own.
    const std::string limited = AsUser() + "env ASAN_OPTIONS=\"$ASAN_OPTIONS:detect_leaks=0\" prlimit --nproc=0: ";
    if (capture::runProgram(limited + "true").status != 0 ||
        capture::runProgram(limited + "sh -c '(:); :'").status == 0)
        GTEST_SKIP() << "skipped: the processes of a user cannot be limited here";
    const std::string vexo = limited + VexoForUser() + " run ";
    const capture::ProgramResult once = capture::runProgram(vexo + "c3.ini -- /bin/true");
    EXPECT_EQ(once.status, 1);
    EXPECT_EQ(once.output, "vexo: no process can be started: Resource temporarily unavailable\n");

    ::unlink("c3.out");
    Process again({"/bin/sh", "-c", "exec " + vexo + "--restart --backoff 0.01 c3.ini -- /bin/sh -c 'exit 0'"}, "",
                  "said");
    ASSERT_TRUE(SaysAtLast(again, "starts it again in 0.02 s")) << Said();
    EXPECT_THAT(Said(), HasSubstr("vexo run: no process can be started: Resource temporarily unavailable\n"));
    EXPECT_NE(::access("c3.out.1", F_OK), 0) << "outputs of earlier starts give way to nothing";
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NPROC, &limit), 0);
    const std::string most = limit.rlim_max == RLIM_INFINITY ? "unlimited" : std::to_string(limit.rlim_max);
    const std::string raise = AsUser() + "prlimit --pid " + std::to_string(again.Id()) + " --nproc=" + most + ":";
    ASSERT_EQ(capture::runProgram(raise).status, 0);
    EXPECT_TRUE(SaysAtLast(again, "started /bin/sh")) << Said();
    again.Signal(SIGTERM);
    EXPECT_EQ(again.Wait(), 0);
}

// As while a new version is copied.
TEST_F(RunCommand, AProgramThatIsBeingWrittenMayRunLater) {
    std::filesystem::copy_file("/bin/true", "app");
    const int writing = ::open("app", O_WRONLY | O_CLOEXEC);
    if (capture::runProgram("./app").status == 0) GTEST_SKIP() << "skipped: this system runs what is being written";
    EXPECT_EQ(StatusOf({"c3.ini"}, {"./app"}), 1);
    EXPECT_EQ(Said(), "vexo: ./app: Text file busy\n");
    EXPECT_EQ(Process({VEXO_COMMAND, "sim", "run", "--", "./app"}, "", "said").Wait(), 1);
    ::close(writing);
}

TEST_F(RunCommand, AProgramThatLacksALibraryIsExplainedByTheLoadersLine) {
    const char* const before = std::getenv("LD_LIBRARY_PATH");
    const std::string path = before != nullptr ? before : "";
    ::unsetenv("LD_LIBRARY_PATH");
    EXPECT_EQ(StatusOf({"c3.ini"}, {VEXO_RUN_APP_WITHOUT_PATH, "c3.ini", "end"}), 127);
    if (before != nullptr) ::setenv("LD_LIBRARY_PATH", path.c_str(), 1);
    EXPECT_THAT(Said(), AllOf(HasSubstr(": error while loading shared libraries: lib"),
                              HasSubstr("; install the library, or name its directory in LD_LIBRARY_PATH"),
                              HasSubstr("(c3.out:1)\n"), Not(HasSubstr("counts polls"))));
}

TEST_F(RunCommand, AWrongCommandLineEndsWithTwo) {
    EXPECT_EQ(StatusOf({}, App("end")), 2);
    EXPECT_EQ(StatusOf({"none.ini"}, App("end")), 2);
    EXPECT_EQ(Process({VEXO_COMMAND, "run", "c3.ini"}, "", "said").Wait(), 2);
    EXPECT_THAT(Said(), HasSubstr("no configuration"));
    EXPECT_THAT(Said(), HasSubstr("vexo: none.ini: No such file or directory"));
    EXPECT_THAT(Said(), HasSubstr("vexo: no program to run"));
    EXPECT_EQ(StatusOf({"--keep", "0", "c3.ini"}, App("end")), 2);
}

TEST_F(RunCommand, AStopSignalGoesToTheProgramAndIsAnOrderlyEnd) {
    for (const int signal : {SIGTERM, SIGINT}) {
        Process vexo(Run({"c3.ini"}, App("poll")), "", "said");
        ASSERT_TRUE(IsThereAtLast(vexo, "up")) << Said();
        vexo.Signal(signal);
        EXPECT_EQ(vexo.Wait(), 0);
        ::unlink("up");
    }
    EXPECT_THAT(Said(), AllOf(HasSubstr("ended by signal 15 (Terminated) as asked"), HasSubstr("signal 2")));
}

TEST_F(RunCommand, ASecondSignalIsPassedOnToo) {
    Process vexo(Run({"c3.ini"}, App("signals")), "", "said");
    ASSERT_TRUE(IsThereAtLast(vexo, "up")) << Said();
    vexo.Signal(SIGTERM);
    ASSERT_TRUE(IsThereAtLast(vexo, "first")) << Said();
    vexo.Signal(SIGTERM);
    EXPECT_EQ(vexo.Wait(), 0);
    EXPECT_THAT(Said(), HasSubstr("ended as asked"));
}

TEST_F(RunCommand, TheProgramDiesWithItsSupervisor) {
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);  // an orphan becomes this process's child
    Process vexo(Run({"c3.ini"}, App("deaf")), "", "said");
    ASSERT_TRUE(IsThereAtLast(vexo, "up")) << Said();
    const pid_t program = std::stoi(dir.Read("up"));
    vexo.Signal(SIGKILL);
    vexo.Wait();
    int status = 0;
    ASSERT_TRUE(Eventually([&] { return ::waitpid(program, &status, WNOHANG) == program; }));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    ::prctl(PR_SET_CHILD_SUBREAPER, 0);
}

TEST_F(RunCommand, StartsAgainUntilTheEndIsInOrder) {
    const std::string program = "echo start >>starts; [ $(wc -l <starts) -lt 3 ] && exit 5; exec \"$0\" c3.ini end";
    EXPECT_EQ(StatusOf({"--restart", "--backoff", "0.01", "c3.ini"}, {"/bin/sh", "-c", program, VEXO_RUN_APP}), 0);
    EXPECT_EQ(dir.Read("starts"), "start\nstart\nstart\n");
    EXPECT_THAT(Said(), AllOf(HasSubstr("starts it again in 0.01 s"), HasSubstr("starts it again in 0.02 s"),
                              HasSubstr("ended in order")));
    EXPECT_THAT(dir.Read("c3.out"), HasSubstr("Init dma channel"));
    EXPECT_EQ(::access("c3.out.1", F_OK) + ::access("c3.out.2", F_OK), 0);
}

TEST_F(RunCommand, DoesNotRepeatAStartThatCannotSucceed) {
    EXPECT_EQ(StatusOf({"--restart", "bad.ini"}, App("end", "bad.ini")), 4);
    EXPECT_THAT(Said(), Not(HasSubstr("again")));
}

TEST_F(RunCommand, CanBeStoppedWhileItWaits) {
    Process vexo(Run({"--restart", "--backoff", "3600", "--backoff-limit", "3600", "c3.ini"}, App("status")), "",
                 "said");
    ASSERT_TRUE(SaysAtLast(vexo, "starts it again in 3600 s"));
    vexo.Signal(SIGTERM);
    EXPECT_EQ(vexo.Wait(), 0);
}

TEST_F(RunCommand, TheWatchdogEndsAProgramThatPollsNoMore) {
    EXPECT_EQ(StatusOf({"--watchdog", "0.05", "c3.ini"}, App("hang")), 1);
    EXPECT_THAT(Said(),
                AllOf(HasSubstr("polls have stood still for 0.05 s"), HasSubstr("because its polls stood still")));
    EXPECT_EQ(StatusOf({"--watchdog", "0.05", "--kill-after", "0.05", "c3.ini"}, App("deaf")), 1);
}

TEST_F(RunCommand, IsReadyWhenTheStreamIsOpenAndNotBefore) {
    for (const std::string& address : {"@vexo-run-test-" + std::to_string(::getpid()), dir.Path("socket")}) {
        const Manager manager(address);
        dir.Write("hold", "");
        Process vexo(Run({"c3.ini"}, App("poll")), "", "said");
        ASSERT_TRUE(IsThereAtLast(vexo, "holding")) << Said();
        EXPECT_EQ(manager.TryNext(), "");
        ::unlink("hold");
        EXPECT_EQ(manager.Next(), "READY=1\nSTATUS=The stream is open.");
        vexo.Signal(SIGTERM);
        EXPECT_EQ(vexo.Wait(), 0);
        EXPECT_TRUE(manager.HasTold("STOPPING=1"));
        ::unlink("holding");
    }
}

TEST_F(RunCommand, AFailedStartIsNeverReady) {
    const Manager manager("@vexo-run-test-" + std::to_string(::getpid()));
    EXPECT_EQ(StatusOf({"bad.ini"}, App("end", "bad.ini")), 4);
    EXPECT_FALSE(manager.HasTold("READY=1"));
}

TEST_F(RunCommand, GivesSignsOfLifeWhileTheProgramPollsAQuietMarket) {
    const Manager manager("@vexo-run-test-" + std::to_string(::getpid()));
    ::setenv("WATCHDOG_USEC", "2000000", 1);
    Process vexo(Run({"c3.ini"}, App("poll")), "", "said");
    while (manager.Next().find("READY=1") != 0) ASSERT_TRUE(vexo.IsRunning());
    EXPECT_EQ(manager.Next(), "WATCHDOG=1");
    EXPECT_EQ(manager.Next(), "WATCHDOG=1");
    vexo.Signal(SIGTERM);
    vexo.Wait();
    EXPECT_THAT(dir.Read("c3.out"), Not(HasSubstr("dma2soft:1")));
}

TEST_F(RunCommand, ASignOfLifeForAnotherProcessIsNotGiven) {
    const Manager manager("@vexo-run-test-" + std::to_string(::getpid()));
    ::setenv("WATCHDOG_USEC", "1000", 1);
    ::setenv("WATCHDOG_PID", "1", 1);
    EXPECT_EQ(StatusOf({"c3.ini"}, App("end")), 0);
    EXPECT_FALSE(manager.HasTold("WATCHDOG=1"));
}

TEST_F(RunCommand, WhatIsForTheSupervisorDoesNotReachTheProgram) {
    const Manager manager("@vexo-run-test-" + std::to_string(::getpid()));
    ::setenv("WATCHDOG_USEC", "1000000", 1);
    StatusOf({"c3.ini"}, {"/bin/sh", "-c", "echo \"[$NOTIFY_SOCKET$WATCHDOG_USEC]\""});
    EXPECT_THAT(dir.Read("c3.out"), HasSubstr("[]\n"));
}

TEST_F(RunCommand, AnAddressThatNoSocketCanHaveIsRefused) {
    for (const std::string& address : {std::string("vsock:2:1"), "/" + std::string(200, 'a')}) {
        ::setenv("NOTIFY_SOCKET", address.c_str(), 1);
        EXPECT_EQ(StatusOf({"c3.ini"}, App("end")), 2);
    }
    EXPECT_THAT(Said(), HasSubstr("NOTIFY_SOCKET=vsock:2:1: no address of a socket of this machine"));
}

TEST_F(RunCommand, OneConfigurationHasOneSupervisor) {
    Process first(Run({"c3.ini"}, App("poll")), "", "said");
    ASSERT_TRUE(IsThereAtLast(first, "up")) << Said();
    EXPECT_EQ(StatusOf({"c3.ini"}, {"/bin/touch", "started"}), 1);
    EXPECT_THAT(Said(), HasSubstr("vexo: c3.ini: another vexo run has this configuration"));
    EXPECT_NE(::access("started", F_OK), 0);
}

TEST_F(RunCommand, ChecksFirstWhenAsked) {
    EXPECT_EQ(StatusOf({"--check", "bad.ini"}, {"/bin/touch", "started"}), 4);
    EXPECT_THAT(Said(), AllOf(HasSubstr("bad.ini:1: fatal: [config] device is missing"), HasSubstr("not started")));
    EXPECT_NE(::access("started", F_OK), 0);
    EXPECT_EQ(StatusOf({"--check", "c3.ini"}, App("end")), 0) << Said();
}

TEST_F(RunCommand, KeepsTheOutputWhereItIsTold) {
    ASSERT_EQ(::mkdir("kept", 0755), 0);
    EXPECT_EQ(StatusOf({"--directory", "kept", "c3.ini"}, App("end")), 0);
    EXPECT_THAT(dir.Read("kept/c3.out"), HasSubstr("Init dma channel"));
    EXPECT_NE(::access("c3.out", F_OK), 0);
}

// It passes a signal on in its loop only, after it has looked at the output for the first time.
TEST_F(RunCommand, OutputThatIsLostWhileTheProgramRunsIsToldAtItsEnd) {
    ASSERT_EQ(::mkdir("gone", 0755), 0);
    Process vexo(Run({"--directory", "gone", "c3.ini"}, Script("true", "rm -r gone; exit 1")), "", "said");
    ASSERT_TRUE(IsThereAtLast(vexo, "up")) << Said();
    vexo.Signal(SIGUSR1);
    EXPECT_EQ(vexo.Wait(), 4);
    EXPECT_THAT(Said(), AllOf(HasSubstr("gone/c3.out cannot be written: No such file or directory; what the program "
                                        "prints, the library's log too, is lost; make room\n"),
                              HasSubstr("nobody knows why: gone/c3.out could not be written\n")));
}

// Nobody reads what it says of the start before the directory is gone.
TEST_F(RunCommand, OutputThatIsLostFromTheBeginIsToldOnceWhileTheProgramRuns) {
    ASSERT_EQ(::mkdir("gone", 0755), 0);
    ASSERT_EQ(::mkfifo("told", 0600), 0);
    const int pipe = ::open("told", O_RDWR | O_NONBLOCK | O_CLOEXEC);
    std::string told(4096, '-');
    while (::write(pipe, told.data(), told.size()) > 0) {
    }
    const auto isToldAtLast = [&](Process& vexo, const std::string& what) {
        return Eventually([&] {
            char part[4096];
            for (ssize_t n; (n = ::read(pipe, part, sizeof part)) > 0;) told.append(part, static_cast<std::size_t>(n));
            return told.find(what) != std::string::npos || !vexo.IsRunning();
        });
    };
    Process vexo(Run({"--directory", "gone", "c3.ini"}, Script("rm -r gone", "echo >signalled")), "", "told");
    ASSERT_TRUE(IsThereAtLast(vexo, "up"));
    EXPECT_TRUE(isToldAtLast(vexo, "started /bin/sh"));
    vexo.Signal(SIGUSR1);
    ASSERT_TRUE(IsThereAtLast(vexo, "signalled"));
    isToldAtLast(vexo, "");
    EXPECT_THAT(told, HasSubstr("gone/c3.out cannot be written: No such file or directory; "));
    dir.Write("end", "");
    EXPECT_EQ(vexo.Wait(), 4);
    told.clear();
    isToldAtLast(vexo, "");
    EXPECT_THAT(told, AllOf(HasSubstr("gone/c3.out could not be written"), Not(HasSubstr("cannot be written"))));
    ::close(pipe);
}

TEST_F(RunCommand, ADirectoryThatTheUserCannotWriteIsWrongUsage) {
    const std::string vexo = AsUser() + VexoForUser();
    ASSERT_EQ(::mkdir("shut", 0555), 0);
    const capture::ProgramResult here = capture::runProgram("cd shut; " + vexo + " run ../c3.ini -- /bin/true");
    EXPECT_EQ(here.status, 2);
    EXPECT_EQ(here.output, "vexo: c3.out: this user cannot write in the directory .; use --directory DIR\n");
    const capture::ProgramResult there = capture::runProgram(vexo + " run --directory shut c3.ini -- /bin/true");
    EXPECT_EQ(there.status, 2);
    EXPECT_EQ(there.output, "vexo: shut/c3.out: this user cannot write in the directory shut; use --directory DIR\n");
}

// The counting library, started by something else than vexo run.
TEST_F(RunCommand, PollsAreCountedUntilTheStreamIsClosed) {
    const vexo::run::PollReader page;
    EXPECT_FALSE(page.isAttached());
    const std::string command = capture::preloading(VEXO_POLLS_LIBRARY) + std::string(polls::kVariable) + "=9 " +
                                capture::word(VEXO_RUN_APP) + " c3.ini three 9<>/proc/" + std::to_string(::getpid()) +
                                "/fd/" + std::to_string(page.descriptor());
    const capture::ProgramResult result = capture::runProgram(command);
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_TRUE(page.isAttached());
    EXPECT_TRUE(page.isReady());
    std::uint64_t polls = 0;
    for (const vexo::run::StreamPolls& stream : page.streams()) {
        EXPECT_EQ(stream.owner, 0U);
        polls += stream.polls;
    }
    EXPECT_EQ(polls, 4U);  // opening counts as one
}

namespace {

// The counting library in another program than vexo run starts: on the library's card, or on the scripted one.
std::string Counted(const vexo::run::PollReader& page, const std::string& program) {
    return "9<>/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(page.descriptor()) + " " +
           capture::preloading(VEXO_POLLS_LIBRARY) + polls::kVariable + "=9 " + program;
}

std::vector<vexo::run::StreamPolls> OpenOnes(const vexo::run::PollReader& page) {
    std::vector<vexo::run::StreamPolls> open = page.streams();
    open.erase(std::remove_if(open.begin(), open.end(), [](const auto& stream) { return stream.owner == 0; }),
               open.end());
    return open;
}

}  // namespace

TEST_F(RunCommand, APageWithMoreSealsIsThePage) {
    const vexo::run::PollReader page;
    EXPECT_NE(::fcntl(page.descriptor(), F_GET_SEALS) & 0x20, 0) << "this system does not seal against execution";
    EXPECT_EQ(capture::runProgram(Counted(page, capture::word(VEXO_RUN_APP) + " c3.ini end")).status, 0);
    EXPECT_TRUE(page.isAttached());
}

TEST_F(RunCommand, AHelperThatDiedHasNoStreamThatStandsStill) {
    const vexo::run::PollReader page;
    EXPECT_EQ(capture::runProgram(Counted(page, capture::word(VEXO_RUN_APP) + " c3.ini abort")).status, 128 + SIGABRT);
    EXPECT_TRUE(page.isReady());
    EXPECT_TRUE(OpenOnes(page).empty());
}

// The one that nobody has waited for yet.
TEST_F(RunCommand, AHelperThatDiedAndIsStillThereHasNoStreamThatStandsStill) {
    const vexo::run::PollReader page;
    const std::string program = Counted(page, capture::word(VEXO_RUN_APP) + " c3.ini abort");
    Process shell({"/bin/sh", "-c", program + " & echo $! >child; exec sleep 1000"}, "", "said");
    ASSERT_TRUE(Eventually([&] { return page.isReady() && OpenOnes(page).empty(); })) << Said();
    shell.Signal(SIGKILL);
}

TEST_F(RunCommand, AProgramThatBecameAnotherHasNoStreamThatStandsStill) {
    const vexo::run::PollReader page;
    const std::string app = capture::word(VEXO_RUN_APP);
    {
        // One that knows nothing of the page, and has its memory.
        Process shell({"/bin/sh", "-c", Counted(page, "exec " + app + " c3.ini become /usr/bin/env -i sleep 1000")}, "",
                      "said");
        EXPECT_TRUE(Eventually([&] { return page.isReady() && OpenOnes(page).empty(); })) << Said();
        shell.Signal(SIGKILL);
    }
    // One that counts again, in a slot of its own.
    Process shell({"/bin/sh", "-c", Counted(page, "exec " + app + " c3.ini become " + app + " c3.ini deaf")}, "",
                  "said");
    ASSERT_TRUE(IsThereAtLast(shell, "up")) << Said();
    EXPECT_EQ(OpenOnes(page).size(), 1U);
    shell.Signal(SIGKILL);
}

TEST_F(RunCommand, TheWatchdogLeavesAProgramAloneThatBecameAnother) {
    EXPECT_EQ(StatusOf({"--watchdog", "0.2", "c3.ini"},
                       {VEXO_RUN_APP, "c3.ini", "become", "/bin/sh", "-c", "exec env -i sleep 1"}),
              0)
        << Said();
    EXPECT_THAT(Said(), AllOf(HasSubstr("the stream is open"), Not(HasSubstr("stood still"))));
}

TEST_F(RunCommand, PollsOfAChildAreNotItsParents) {
    const vexo::run::PollReader page;
    const capture::ProgramResult result = capture::runProgram("SCRIPTED_PACKETS=10 " +
                                                              Counted(page, capture::word(VEXO_TAP_APP) + " fork"));
    EXPECT_EQ(result.status, 0) << result.output;
    std::uint64_t polls = 0;
    for (const vexo::run::StreamPolls& stream : page.streams()) polls += stream.polls;
    EXPECT_EQ(polls, 12U);  // opening, 10 packets, one idle
}

TEST_F(RunCommand, APollWithoutAHandlerIsNoSignOfLife) {
    const vexo::run::PollReader page;
    EXPECT_EQ(capture::runProgram(Counted(page, capture::word(VEXO_TAP_APP) + " no-handler")).status, 0);
    std::uint64_t polls = 0;
    for (const vexo::run::StreamPolls& stream : page.streams()) polls += stream.polls;
    EXPECT_EQ(polls, 1U);  // opening
}

TEST_F(RunCommand, AFileThatHasTheNumberOfThePageIsNotWritten) {
    polls::PollPage page{};
    page.magic = polls::kMagic;
    const std::string content(reinterpret_cast<const char*>(&page), sizeof page);
    dir.Write("data", content);
    const capture::ProgramResult result = capture::runProgram(capture::preloading(VEXO_POLLS_LIBRARY) +
                                                              std::string(polls::kVariable) + "=3 " +
                                                              capture::word(VEXO_RUN_APP) + " c3.ini end 3<>data");
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(dir.Read("data"), content);
}
