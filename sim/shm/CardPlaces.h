#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace vexo_sim {

/// Where to look for directories of cards, and where to make them. Tests use other places.
struct CardRoots {
    std::string run = "/run/user";  // RUN/UID is the session's own directory of a user
    std::string shared = "/dev/shm";
};

/// The existing directories that may hold cards of @p user. Each is a real directory and belongs to the user, and
/// nobody else may write into it. When VEXO_SIM_DIR is set, it is the only one, and it is not checked.
std::vector<std::string> cardDirectories(uid_t user, const CardRoots& roots = {});

/// A directory for a new card of the calling user, made when it is missing.
struct NewCardPlace {
    std::string directory;  // empty when there is none
    std::string notice;     // what the user should know; empty for nothing
    std::string error;      // why there is none
};
/// @param group  the group that may look up the card's name; none: only the user
NewCardPlace makeCardDirectory(std::optional<gid_t> group, const CardRoots& roots = {});

/// The user of that name or number; nothing when there is none.
std::optional<uid_t> findUser(const std::string& nameOrNumber);

}  // namespace vexo_sim
