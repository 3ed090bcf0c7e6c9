#pragma once

#include <sys/types.h>

#include <string>

namespace vexo_sim {

/// A process as an operator looks for it.
struct Holder {
    pid_t pid = 0;        // 0: in another container, which hides it
    std::string program;  // empty when it cannot be told
    std::string user;
};

Holder describeProcess(pid_t pid);

/// "process 4711 (trader, user alice)"
std::string toText(const Holder& holder);

}  // namespace vexo_sim
