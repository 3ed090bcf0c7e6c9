#pragma once

#include <sys/types.h>
#include <chrono>
#include <optional>
#include <string>

#include "tools/vexo/Command.h"
#include "tools/vexo/run/Child.h"
#include "tools/vexo/run/Ending.h"
#include "tools/vexo/run/Events.h"
#include "tools/vexo/run/KeptOutput.h"
#include "tools/vexo/run/Notifier.h"
#include "tools/vexo/run/PollReader.h"
#include "tools/vexo/run/Signals.h"
#include "tools/vexo/run/Watchdog.h"

namespace vexo::run {

/// What a supervisor is to do. Times are in seconds; 0 = never.
struct Plan {
    Program program;
    KeptOutput output;
    bool isMaster = false;
    std::optional<unsigned int> card{};  ///< that the configuration names
    double watchdog = 0;                 ///< polls may stand still for so long
    double managersWatchdog = 0;         ///< the service manager wants a sign of life so often
    double killAfter = 0;                ///< from SIGTERM of the watchdog to SIGKILL
    bool restart = false;
    double firstWait = 0;
    double longestWait = 0;
};

/// Starts an application, watches it, and starts it again if the plan says so. One thread; no lock.
class Supervisor {
public:
    Supervisor(const Plan& plan, const Notifier& notifier, const Events& events);
    ~Supervisor();
    Supervisor(const Supervisor&) = delete;
    Supervisor& operator=(const Supervisor&) = delete;

    /// @return the exit status. Throws Failure when the application cannot be started.
    int run();

private:
    using Clock = std::chrono::steady_clock;

    // One start, until it has ended.
    struct Start {
        PollReader page;
        Watchdog watchdog;
        pid_t child = 0;
        std::optional<int> waitStatus;
        std::optional<Clock::time_point> readySince;
        bool managerKnows = false;  // that it is ready
        bool wasStanding = false;
        std::string lost{};  // why the output may not be whole
        Clock::time_point began = Clock::now();
        Clock::time_point lastLook = began;
        Clock::time_point killAt{};
    };

    Ending tryStart();
    Ending superviseStart();
    double lookEvery(const Start& start) const;
    void take(const signalfd_siginfo& signal, pid_t child);
    void reap(Start& start) const;
    void look(Start& start, double longest);
    void tellManager(Start& start) const;
    void endStanding(Start& start) const;
    bool waitToRestart(double seconds);
    void tellLostOutput(Start& start) const;
    Ending endingOf(const Start& start) const;

    const Plan& m_plan;
    const Notifier& m_notifier;
    const Events& m_events;
    Signals m_signals;
    BackOff m_backOff;
    int m_output = -1;  // of the next start; a try that found no process leaves it empty, and it is used again
    unsigned m_starts = 0;
    double m_lastRan = 0;  // with its stream open
    bool m_stopAsked = false;
    bool m_isLast = false;  // start it no more
};

}  // namespace vexo::run
