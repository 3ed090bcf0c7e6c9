#pragma once

#include <sys/types.h>
#include <csignal>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// While an object lives, it answers these calls of the library in place of the host: `access` and `stat` of ".",
/// `getpwuid`, and `sigaction`, which then installs nothing. The test binary defines all of them. Without an object,
/// and for every other path, they call the system.
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
    int userError = 0;  ///< errno of a look-up that fails, 0 = there is no such user

    std::vector<int> accessModes;  ///< the modes that were asked for "."

    struct Installed {
        int signal;
        struct sigaction action;
    };
    std::vector<Installed> installed;  ///< calls of sigaction that were to set something, failed ones included
    std::optional<int> refusedSignal;  ///< sigaction of this one fails with EINVAL
};
