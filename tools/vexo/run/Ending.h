#pragma once

#include <optional>
#include <string>

namespace vexo::run {

/// The status of a start that need not be tried again: it would end in the same way, or do harm.
inline constexpr int kUseless = 4;

/// What a supervisor knows of a start of the application that has ended.
struct Ended {
    int waitStatus = 0;     ///< of waitpid
    std::string output;     ///< file with what it printed
    std::string lost;       ///< why that file may not be whole; empty = it is
    bool isMaster = false;  ///< it uses channel 0
    std::optional<unsigned int> card;
    bool isAttached = false;   ///< it loaded the counting library
    bool wasReady = false;     ///< its stream was open
    bool wasStopped = false;   ///< a stop signal was passed on to it
    bool wasStanding = false;  ///< the watchdog ended it
};

/// What it means.
struct Ending {
    bool orderly = false;
    int status = 0;      ///< for who started the supervisor
    bool again = false;  ///< another start may end better
    std::string text;    ///< for people
    bool loaded = true;  ///< false: the loader ended it, before any library of it could run
};

/// The library ends a failed start with status 0, as an orderly end does. The difference is whether the stream was
/// open, and the line of the log.
Ending judge(const Ended& ended);

}  // namespace vexo::run
