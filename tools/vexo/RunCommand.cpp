#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>

#include "tools/cli/Values.h"
#include "tools/vexo/Command.h"
#include "tools/vexo/InputFile.h"
#include "tools/vexo/Launch.h"
#include "tools/vexo/check/ConfigCheck.h"
#include "tools/vexo/check/HostCheck.h"
#include "tools/vexo/run/Ending.h"
#include "tools/vexo/run/Events.h"
#include "tools/vexo/run/Supervisor.h"

namespace vexo {
namespace {

namespace fs = std::filesystem;

constexpr double kDay = 86400;

struct Options {
    std::string config;
    std::string directory = ".";
    unsigned keep = 10;
    double watchdog = 0;
    double killAfter = 10;
    double firstWait = 1;
    double longestWait = 60;
    bool restart = false;
    bool check = false;
    bool json = false;
};

// A second application with the same configuration would take the same stream. While vexo lives, it holds a lock on
// the file, which the system releases however vexo ends.
class OnlyOne {
public:
    explicit OnlyOne(const std::string& config) : m_fd(::open(config.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
        if (m_fd < 0 || ::flock(m_fd, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK) return;
        throw Failure(kFinding, config + ": another vexo run has this configuration, and its application has the " +
                                    "same stream; stop that one first");
    }
    ~OnlyOne() {
        if (m_fd >= 0) ::close(m_fd);
    }
    OnlyOne(const OnlyOne&) = delete;
    OnlyOne& operator=(const OnlyOne&) = delete;

private:
    int m_fd;
};

// Every finding is shown. @return the configuration; a status when the start would end
check::ConfigFacts checkBefore(const Options& options, const run::Events& events, int& status) {
    check::Report report;
    const check::ConfigFacts facts = readable(options.config,
                                              [&] { return check::checkConfig(options.config, report); });
    if (!options.check) return facts;
    check::checkHost({facts}, {}, report);
    if (report.countFatal() != 0) status = run::kUseless;
    if (events.isJson()) {
        const std::string count = std::to_string(report.count()) + (report.count() == 1 ? " finding" : " findings");
        events.tell("check", count, nlohmann::ordered_json::parse(asJson(report)));
    } else if (report.count() != 0) {
        std::fputs(asText(report, false).c_str(), stderr);
    }
    return facts;
}

// What the service manager asks for: 0 when it asks for nothing, or asks another process.
double managersWatchdog() {
    const char* const micros = std::getenv("WATCHDOG_USEC");
    const char* const process = std::getenv("WATCHDOG_PID");
    if (micros == nullptr || (process != nullptr && std::atol(process) != ::getpid())) return 0;
    return static_cast<double>(std::strtoull(micros, nullptr, 10)) / 1e6;
}

// The file for the newest start. Status 1 would let a service manager start again what can never begin.
std::string outputOf(const Options& options) {
    const fs::path file = fs::path(options.directory) / (fs::path(options.config).stem().string() + ".out");
    const std::string output = file.lexically_normal().string();
    if (const std::string fault = cli::faultOfNewFile(output); !fault.empty())
        throw Failure(kUsage, output + ": " + fault + "; use --directory DIR");
    return output;
}

int superviseProgram(const Options& options, const Program& program) {
    if (options.config.empty())
        throw Failure(kUsage, "no configuration: name the one that the application is given\nSee vexo run --help");
    requireProgram(program);
    requireFile(options.config);
    const std::string output = outputOf(options);
    const OnlyOne lock(options.config);
    const run::Events events(options.json);
    int status = 0;
    const check::ConfigFacts facts = checkBefore(options, events, status);
    if (status != 0) {
        events.tell("refused", "not started: the start-up would end at what is fatal", {{"status", status}});
        return status;
    }
    run::Plan plan{program, run::KeptOutput(output, options.keep)};
    plan.isMaster = facts.device.valid && facts.device.channel == 0;
    if (facts.device.valid) plan.card = facts.device.card;
    plan.watchdog = options.watchdog;
    plan.managersWatchdog = managersWatchdog();
    plan.killAfter = options.killAfter;
    plan.restart = options.restart;
    plan.firstWait = options.firstWait;
    plan.longestWait = options.longestWait;
    const run::Notifier notifier(std::getenv("NOTIFY_SOCKET"));
    status = run::Supervisor(plan, notifier, events).run();
    // The status is the application's, whoever reads the events.
    if (const std::string fault = cli::faultOfOutput(); options.json && !fault.empty())
        cli::fail("vexo", status, fault);
    return status;
}

cli::Option addSeconds(const cli::Command& command, const std::string& name, double& value, double least,
                       const std::string& text) {
    return command.addOption(name, value, text).takes("SECONDS").check(cli::number(least, kDay));
}

}  // namespace

void addRun(const cli::Command& app, Invocation& invocation) {
    const auto options = std::make_shared<Options>();
    const cli::Command run = app.addCommand("run", "Supervise an application: tell a failed start from an orderly end");
    takeProgram(run, "run", invocation);
    run.addOption("CONFIG.ini", options->config, "Configuration that the application is given");
    run.addFlag("--check", options->check, "Check configuration and host first; do not start when one is fatal");
    addSeconds(run, "--watchdog", options->watchdog, 0.01,
               "End the application when it stops polling an open stream for so long");
    addSeconds(run, "--kill-after", options->killAfter, 0, "Time from SIGTERM to SIGKILL of the watchdog")
        .showsDefault();
    run.addFlag("--restart", options->restart, "Start the application again until it ends in order");
    addSeconds(run, "--backoff", options->firstWait, 0, "Wait before the first restart; doubles each time")
        .showsDefault();
    addSeconds(run, "--backoff-limit", options->longestWait, 0, "Longest wait before a restart").showsDefault();
    run.addFlag("--json", options->json,
                "Write what happens as JSON on standard output, one object a line: {\"event\": ...}");
    run.addOption("--keep", options->keep, "Starts whose output is kept")
        .takes("N")
        .check(cli::wholeNumber(1, 1000))
        .showsDefault();
    run.addOption("--directory", options->directory,
                  "Directory of the kept output, CONFIG.out for the newest start (default: this one)")
        .takes("DIR")
        .check(cli::directory());
    run.footer(
        "Run it as:  vexo run [OPTIONS] CONFIG.ini -- PROGRAM [ARGUMENTS]\n"
        "Under systemd (Type=notify) it says READY=1 once the stream is open, and WATCHDOG=1 while the application "
        "polls.");
    cli::tellStatuses(run, {{cli::kFine, "the application ended in order or as asked"},
                            {kFinding, "the start failed, no process is left for it, or polls stood still"},
                            {kUsage, "wrong usage"},
                            {kNoCard, "the start failed: there is no card"},
                            {vexo::run::kUseless, "the start failed, and another one would too, or do harm"},
                            {kCannotRun, "the program cannot be run"},
                            {kNotFound, "the program is not there, or a library that it needs"},
                            {cli::kElse, "that of the program; 128 + N after signal N"}});
    run.whenChosen([options, &invocation] {
        invocation.run = [options, &invocation] { return superviseProgram(*options, invocation.program); };
    });
}

}  // namespace vexo
