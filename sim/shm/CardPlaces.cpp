#include "sim/shm/CardPlaces.h"

#include <dirent.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "sim/shm/Holder.h"

namespace vexo_sim {
namespace {

constexpr mode_t kPrivate = 0700;
constexpr mode_t kForGroup = 0710;  // members reach a card whose name they know; its own mode lets them in

std::string configuredDirectory() {
    const char* configured = ::secure_getenv("VEXO_SIM_DIR");
    return configured != nullptr ? configured : "";
}

// A real directory of this user that nobody else may write into.
bool isSafe(const std::string& path, uid_t user) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == user &&
           (status.st_mode & 0022) == 0;
}

// A real directory of this user, whatever its mode.
bool isOwnDirectory(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == geteuid();
}

bool isFor(const std::string& path, std::optional<gid_t> group) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return false;
    const mode_t mode = status.st_mode & 0777;
    return group ? mode == kForGroup && status.st_gid == *group : mode == kPrivate;
}

std::string nameFor(uid_t user) { return "vexo-simcard-" + std::to_string(user); }

// "vexo-simcard-UID", "vexo-simcard-UID-gGID" and those with a suffix, which were made because the name was taken.
std::vector<std::string> directoriesIn(const std::string& root, uid_t user) {
    std::vector<std::string> found;
    const std::string name = nameFor(user);
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir(root.c_str()), &closedir);
    if (stream == nullptr) return found;
    while (const dirent* entry = readdir(stream.get())) {
        const std::string candidate = entry->d_name;
        const std::string rest = candidate.size() > name.size() ? candidate.substr(name.size()) : "";
        const bool matches = candidate == name || rest.rfind("-g", 0) == 0 || rest.rfind('.', 0) == 0;
        if (candidate.rfind(name, 0) == 0 && matches && isSafe(root + "/" + candidate, user))
            found.push_back(root + "/" + candidate);
    }
    std::sort(found.begin(), found.end());
    return found;
}

std::string problemOf(const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) return path + ": " + std::strerror(errno);
    if (!S_ISDIR(status.st_mode)) return path + " is no directory";
    return path + " belongs to user " + userName(status.st_uid);
}

// True when the directory exists afterwards and has the required mode and group.
bool make(const std::string& path, std::optional<gid_t> group) {
    if (group && chown(path.c_str(), static_cast<uid_t>(-1), *group) != 0) return false;
    return chmod(path.c_str(), group ? kForGroup : kPrivate) == 0;
}

}  // namespace

std::vector<std::string> cardDirectories(uid_t user, const CardRoots& roots) {
    const std::string configured = configuredDirectory();
    if (!configured.empty()) return {configured};
    std::vector<std::string> all;
    const std::string session = roots.run + "/" + std::to_string(user);
    if (user == geteuid() && isSafe(session, user)) all.push_back(session);
    const std::vector<std::string> shared = directoriesIn(roots.shared, user);
    all.insert(all.end(), shared.begin(), shared.end());
    return all;
}

NewCardPlace makeCardDirectory(std::optional<gid_t> group, const CardRoots& roots) {
    const std::string configured = configuredDirectory();
    if (!configured.empty()) return {configured, "", ""};
    const uid_t self = geteuid();
    const std::string session = roots.run + "/" + std::to_string(self);
    if (!group && isSafe(session, self)) return {session, "", ""};
    for (const std::string& path : directoriesIn(roots.shared, self))
        if (isFor(path, group)) return {path, "", ""};
    const std::string name = roots.shared + "/" + nameFor(self) + (group ? "-g" + std::to_string(*group) : "");
    if (mkdir(name.c_str(), kPrivate) == 0) {
        if (make(name, group)) return {name, "", ""};
        const std::string error = std::strerror(errno);
        rmdir(name.c_str());
        return {"", "", "cannot make " + name + ": " + error};
    }
    if (errno != EEXIST) return {"", "", "cannot make " + name + ": " + std::strerror(errno)};
    if (isOwnDirectory(name) && make(name, group)) return {name, "", ""};
    std::string other = name + ".XXXXXX";
    if (mkdtemp(other.data()) == nullptr || !make(other, group))
        return {"", "", problemOf(name) + "; cannot make " + other + ": " + std::strerror(errno)};
    return {other, problemOf(name) + "; the card lies in " + other, ""};
}

std::optional<uid_t> findUser(const std::string& nameOrNumber) {
    if (const passwd* entry = getpwnam(nameOrNumber.c_str())) return entry->pw_uid;
    uid_t number = 0;
    const char* end = nameOrNumber.data() + nameOrNumber.size();
    const auto [stop, error] = std::from_chars(nameOrNumber.data(), end, number);
    if (nameOrNumber.empty() || error != std::errc() || stop != end) return std::nullopt;
    return number;
}

}  // namespace vexo_sim
