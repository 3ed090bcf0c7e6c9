#include "tools/vexo/run/Supervisor.h"

#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/vexo/Failure.h"

namespace vexo::run {
namespace {

constexpr double kStarting = 0.1;  // how soon an open stream is seen
constexpr double kUsual = 1;
constexpr double kLeast = 0.01;

std::string shortNumber(double number) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", number);
    return text;
}

template <typename Clock>
double secondsSince(std::chrono::time_point<Clock> then) {
    return std::chrono::duration<double>(Clock::now() - then).count();
}

}  // namespace

Supervisor::Supervisor(const Plan& plan, const Notifier& notifier, const Events& events)
    : m_plan(plan), m_notifier(notifier), m_events(events), m_backOff(plan.firstWait, plan.longestWait) {}

Supervisor::~Supervisor() {
    if (m_output >= 0) ::close(m_output);
}

int Supervisor::run() {
    for (;;) {
        const Ending ending = tryStart();
        if (ending.orderly || !ending.again || !m_plan.restart || m_isLast) return ending.status;
        const double wait = m_backOff.next(m_lastRan);
        m_events.tell("restart", "starts it again in " + shortNumber(wait) + " s", {{"wait_seconds", wait}});
        if (!waitToRestart(wait)) return 0;
    }
}

// Without --restart, whoever started this process may try again.
Ending Supervisor::tryStart() {
    try {
        return superviseStart();
    } catch (const Failure& failure) {
        if (failure.status != kFinding || !m_plan.restart) throw;
        m_lastRan = 0;
        m_events.tell("notice", failure.what());
        return {false, kFinding, true, failure.what()};
    }
}

Ending Supervisor::superviseStart() {
    Start start;
    if (m_output < 0) m_output = m_plan.output.openNext();
    start.child = startChild(m_plan.program, m_output, start.page.descriptor(), m_signals);
    ::close(m_output);
    m_output = -1;
    m_events.tell("start",
                  "started " + m_plan.program.front() + " as process " + std::to_string(start.child) +
                      "; its output is in " + m_plan.output.name(),
                  {{"number", ++m_starts},
                   {"program", m_plan.program.front()},
                   {"pid", start.child},
                   {"output", m_plan.output.name()}});
    tellLostOutput(start);
    while (!start.waitStatus) {
        const double every = lookEvery(start);
        if (const std::optional<signalfd_siginfo> signal = m_signals.wait(every)) take(*signal, start.child);
        look(start, 2 * every);
        reap(start);
    }
    // The stop signal may have come in the same moment as the end.
    while (const std::optional<signalfd_siginfo> signal = m_signals.wait(0))
        if (isStop(signal->ssi_signo)) m_stopAsked = m_isLast = true;
    m_lastRan = start.readySince ? secondsSince(*start.readySince) : 0;
    tellLostOutput(start);
    const Ending ending = endingOf(start);
    m_events.tell(
        "end", ending.text,
        {{"pid", start.child}, {"orderly", ending.orderly}, {"status", ending.status}, {"again", ending.again}});
    return ending;
}

double Supervisor::lookEvery(const Start& start) const {
    double every = start.managerKnows && !start.wasStanding ? kUsual : kStarting;
    for (const double limit : {m_plan.watchdog, m_plan.managersWatchdog})
        if (limit > 0) every = std::min(every, limit / 4);
    return std::max(every, kLeast);
}

void Supervisor::take(const signalfd_siginfo& signal, pid_t child) {
    if (signal.ssi_signo == SIGCHLD) return;
    if (isStop(signal.ssi_signo)) {
        m_stopAsked = true;
        m_notifier.send("STOPPING=1");
    }
    if (isStop(signal.ssi_signo) || signal.ssi_signo == SIGABRT) m_isLast = true;
    if (!isFromTerminal(signal)) ::kill(child, static_cast<int>(signal.ssi_signo));
}

// Also what the application left behind, when this is the first process of a container.
void Supervisor::reap(Start& start) const {
    int status = 0;
    for (pid_t ended; (ended = ::waitpid(-1, &status, WNOHANG)) > 0;)
        if (ended == start.child) start.waitStatus = status;
}

void Supervisor::look(Start& start, double longest) {
    start.watchdog.look(start.page.streams(), secondsSince(start.lastLook), longest);
    start.lastLook = Clock::now();
    if (!start.readySince && start.page.isReady()) {
        start.readySince = start.lastLook;
        m_events.tell("ready", "the stream is open", {{"pid", start.child}});
    }
    tellManager(start);
    endStanding(start);
}

void Supervisor::tellManager(Start& start) const {
    if (start.readySince && !start.managerKnows)
        start.managerKnows = m_notifier.send("READY=1\nSTATUS=The stream is open.");
    // The manager's limit is at least twice the time that polls stood still when the last sign of life went out.
    if (m_plan.managersWatchdog > 0 && start.watchdog.standingStill() < m_plan.managersWatchdog / 2)
        m_notifier.send("WATCHDOG=1");
}

void Supervisor::endStanding(Start& start) const {
    if (!start.wasStanding && m_plan.watchdog > 0 && start.watchdog.standingStill() >= m_plan.watchdog) {
        m_events.tell("standing",
                      "polls have stood still for " + shortNumber(m_plan.watchdog) + " s; ending process " +
                          std::to_string(start.child),
                      {{"pid", start.child}});
        start.wasStanding = true;
        start.killAt = Clock::now() +
                       std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(m_plan.killAfter));
        ::kill(start.child, SIGTERM);
    }
    if (start.wasStanding && Clock::now() >= start.killAt) ::kill(start.child, SIGKILL);
}

// The manager gets its signs of life here, too: nothing stands still.
bool Supervisor::waitToRestart(double seconds) {
    const Clock::time_point began = Clock::now();
    const double every = m_plan.managersWatchdog > 0 ? m_plan.managersWatchdog / 4 : kUsual;
    for (double left; (left = seconds - secondsSince(began)) > 0;) {
        const std::optional<signalfd_siginfo> signal = m_signals.wait(std::min(left, every));
        if (signal && isStop(signal->ssi_signo)) return false;
        if (m_plan.managersWatchdog > 0) m_notifier.send("WATCHDOG=1");
    }
    return true;
}

// Once a start: at its begin, or at its end when the disk became full meanwhile.
void Supervisor::tellLostOutput(Start& start) const {
    if (!start.lost.empty() || (start.lost = m_plan.output.fault()).empty()) return;
    m_events.tell("notice", m_plan.output.name() + " cannot be written: " + start.lost +
                                "; what the program prints, the library's log too, is lost; make room");
}

Ending Supervisor::endingOf(const Start& start) const {
    Ended ended;
    ended.waitStatus = *start.waitStatus;
    ended.output = m_plan.output.name();
    ended.lost = start.lost;
    ended.isMaster = m_plan.isMaster;
    ended.card = m_plan.card;
    ended.isAttached = start.page.isAttached();
    ended.wasReady = start.page.isReady();
    ended.wasStopped = m_stopAsked;
    ended.wasStanding = start.wasStanding;
    const Ending ending = judge(ended);
    if (!start.page.isAttached() && ending.loaded)
        m_events.tell("notice",
                      "the program did not load the library that counts polls (it is linked statically, runs with "
                      "another user's rights, or was started by a program that clears the environment)");
    return ending;
}

}  // namespace vexo::run
