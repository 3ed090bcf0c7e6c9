#pragma once

#include <sys/types.h>
#include <csignal>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// Answers the questions that the library puts to the host while this lives: `access` and `stat` of ".", `getpwuid`,
/// and `sigaction`, which then installs nothing. All of them are defined in the test binary and reach the system
/// without an object of this class, and for every other path.
class HostCalls {
public:
    HostCalls();
    ~HostCalls();
    HostCalls(const HostCalls&) = delete;
    HostCalls& operator=(const HostCalls&) = delete;

    int accessError = 0;  ///< errno of access("."), 0 = it is granted
    int statError = 0;
    uid_t owner = 0;  ///< of "."
    std::map<uid_t, std::string> users;
    int userError = 0;  ///< errno of a look-up without success, 0 = there is no such user

    std::vector<int> accessModes;  ///< what was asked about "."

    struct Installed {
        int signal;
        struct sigaction action;
    };
    std::vector<Installed> installed;  ///< calls of sigaction that were to set something, failed ones included
    std::optional<int> refusedSignal;  ///< sigaction of this one fails with EINVAL
};
