#pragma once

#include <sys/types.h>

#include <string>

namespace vexo_sim {

/// A process, described so that an operator can find it.
struct Holder {
    pid_t pid = 0;        // 0: in another container, which hides its number
    std::string program;  // empty when it is not known
    std::string user;
};

Holder describeProcess(pid_t pid);

/// Whether a process was stopped, by a signal or by a debugger. False when that is not known.
bool isStopped(pid_t pid);

/// The name of a user, or the number when there is no name.
std::string userName(uid_t uid);

/// "process 4711 (trader, user alice)"
std::string toText(const Holder& holder);

}  // namespace vexo_sim
