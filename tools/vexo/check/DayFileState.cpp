#include "tools/vexo/check/DayFileState.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <string_view>

#include "src/dayfile/DayLines.h"
#include "src/util/SafeFile.h"
#include "tools/vexo/check/SimulatedMap.h"

namespace vexo::check {

namespace {

constexpr int kEvening = 17;

bool isAllowed(const std::string& path, int how) { return ::faccessat(AT_FDCWD, path.c_str(), how, AT_EACCESS) == 0; }

// The library takes a lock for as long as it writes. Asking for it needs no right to write.
pid_t writerOf(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return 0;
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    const bool held = ::fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type == F_WRLCK;
    ::close(fd);
    if (!held) return 0;
    return lock.l_pid > 0 ? lock.l_pid : -1;
}

void countLines(std::string_view content, std::time_t written, DayFileState& state) {
    std::set<std::string_view> ids;
    day_file::forEachLine(
        content, [&](std::string_view, std::string_view id, unsigned short) { ids.insert(id); },
        [&] { state.complete = true; }, [](std::string_view) {});
    state.instruments = ids.size();
    state.simulated = isSimulatedMap(instrumentLines(content), written);
}

std::string ageInWords(long seconds) {
    if (seconds < 120) return std::to_string(seconds) + " s";
    if (seconds < 7200) return std::to_string(seconds / 60) + " min";
    return std::to_string(seconds / 3600) + " h";
}

std::string contentInWords(const DayFileState& state) {
    return std::to_string(state.instruments) + (state.instruments == 1 ? " instrument" : " instruments") +
           ", written " + ageInWords(state.age) + " ago, owner " + state.owner;
}

}  // namespace

std::string todaysDayFile(std::time_t now) {
    std::tm local{};
    ::localtime_r(&now, &local);
    char name[32];
    std::strftime(name, sizeof name, "/.zce_%Y%m%d", &local);
    return std::string(name) + (local.tm_hour < kEvening ? "_am" : "_pm");
}

DayFileState stateOfDayFile(const std::string& path) {
    DayFileState state;
    state.path = path;
    struct stat status;
    if (::lstat(path.c_str(), &status) != 0) {
        const std::string directory = path.substr(0, path.rfind('/'));
        state.writable = isAllowed(directory.empty() ? "/" : directory, W_OK | X_OK);
        return state;
    }
    state.present = true;
    state.age = std::max(0L, static_cast<long>(std::time(nullptr) - status.st_mtime));
    const passwd* const owner = ::getpwuid(status.st_uid);
    state.owner = owner != nullptr ? owner->pw_name : std::to_string(status.st_uid);
    state.writable = isAllowed(path, W_OK);
    std::string content;
    if (safe_file::readWhole(path, content, state.distrusted)) {
        countLines(content, status.st_mtime, state);
    } else if (state.distrusted.empty()) {
        state.unreadable = std::strerror(errno);
    }
    if (S_ISREG(status.st_mode)) state.writer = writerOf(path);
    return state;
}

Finding findingOf(const DayFileState& state, bool hasCard, bool isPrivate) {
    const auto finding = [&](Level level, const std::string& what, const std::string& todo) {
        return Finding{level, state.path, 0, what, todo};
    };
    if (state.writer != 0)
        return finding(Level::kError,
                       (state.writer > 0 ? "process " + std::to_string(state.writer) : std::string("another process")) +
                           " is writing the day file: a master is running",
                       "start no second master on its card: it would stop the quotes of the first");
    if (!state.present)
        return state.writable || isPrivate
                   ? finding(Level::kNote, "there is no day file yet; a master learns the contract map", "")
                   : finding(Level::kWarning, "there is no day file, and this user cannot write one",
                             "give this user the right to write in that directory");
    if (!state.distrusted.empty()) return finding(Level::kWarning, "the day file is not used, " + state.distrusted, "");
    if (!state.unreadable.empty())
        return finding(Level::kWarning, "the day file is not used: " + state.unreadable, "remove it");
    if (state.complete && state.simulated && !isPrivate)
        return finding(hasCard ? Level::kError : Level::kNote,
                       "this day file is the map of a simulated card: " + contentInWords(state),
                       "remove it before a start on a real card, which would load wrong indexes");
    if (state.complete && state.instruments > 0)
        return finding(Level::kNote, "a master loads this day file: " + contentInWords(state),
                       isPrivate ? "" : "remove it if a simulated card or another card left it");
    return finding(state.writable ? Level::kNote : Level::kWarning,
                   "the day file is not complete, a master learns the map again: " + contentInWords(state),
                   state.writable ? "" : "this user cannot write it: remove it");
}

}  // namespace vexo::check
