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
#include <vector>

#include "sim/card/InstrumentList.h"
#include "src/util/SafeFile.h"

namespace vexo::check {

namespace {

constexpr int kEvening = 17;
constexpr std::string_view kHeader = "inst_index,inst_id";
constexpr std::string_view kEndTag = "bin_file_over_tag";

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

std::uint32_t dateOf(std::time_t time) {
    std::tm local{};
    ::localtime_r(&time, &local);
    return static_cast<std::uint32_t>((local.tm_year + 1900) * 10000 + (local.tm_mon + 1) * 100 + local.tm_mday);
}

// Whether the lines are one of the lists that the simulated card makes when no scenario gives another.
bool isSimulated(const std::set<std::string_view>& lines, std::uint32_t date) {
    using vexo_sim::InstrumentChoice;
    std::vector<vexo_sim::Instrument> list(vexo_sim::kMaxInstruments);
    for (const InstrumentChoice choice : {InstrumentChoice::kDefault, InstrumentChoice::kFull}) {
        const std::uint32_t count = vexo_sim::makeInstrumentList(choice, date, list.data());
        if (count != lines.size()) continue;
        const bool same = std::all_of(list.begin(), list.begin() + count, [&](const vexo_sim::Instrument& one) {
            const std::string line = std::to_string(one.row) + "," + one.id;
            return lines.count(line) != 0;
        });
        if (same) return true;
    }
    return false;
}

// Takes the lines as the library does: the id is what follows the first comma.
void countLines(std::string_view rest, std::uint32_t date, DayFileState& state) {
    std::set<std::string_view> ids;
    std::set<std::string_view> lines;
    while (!rest.empty()) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        const std::size_t comma = line.find(',');
        if (line == kEndTag) {
            state.complete = true;
        } else if (line != kHeader && comma != std::string_view::npos) {
            ids.insert(line.substr(comma + 1));
            lines.insert(line);
        }
    }
    state.instruments = ids.size();
    state.simulated = isSimulated(lines, date);
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
        countLines(content, dateOf(status.st_mtime), state);
    } else if (state.distrusted.empty()) {
        state.unreadable = std::strerror(errno);
    }
    if (S_ISREG(status.st_mode)) state.writer = writerOf(path);
    return state;
}

Finding findingOf(const DayFileState& state, bool hasCard) {
    const auto finding = [&](Level level, const std::string& what, const std::string& todo) {
        return Finding{level, state.path, 0, what, todo};
    };
    if (state.writer != 0)
        return finding(Level::kError,
                       (state.writer > 0 ? "process " + std::to_string(state.writer) : std::string("another process")) +
                           " is writing the day file: a master is running",
                       "start no second master on its card: it would stop the quotes of the first");
    if (!state.present)
        return state.writable ? finding(Level::kNote, "there is no day file yet; a master learns the contract map", "")
                              : finding(Level::kWarning, "there is no day file, and this user cannot write one",
                                        "give this user the right to write in that directory");
    if (!state.distrusted.empty()) return finding(Level::kWarning, "the day file is not used, " + state.distrusted, "");
    if (!state.unreadable.empty())
        return finding(Level::kWarning, "the day file is not used: " + state.unreadable, "remove it");
    if (state.complete && state.simulated)
        return finding(hasCard ? Level::kError : Level::kNote,
                       "this day file is the map of a simulated card: " + contentInWords(state),
                       "remove it before a start on a real card, which would load wrong indexes");
    if (state.complete && state.instruments > 0)
        return finding(Level::kNote, "a master loads this day file: " + contentInWords(state),
                       "remove it if a simulated card or another card left it");
    return finding(state.writable ? Level::kNote : Level::kWarning,
                   "the day file is not complete, a master learns the map again: " + contentInWords(state),
                   state.writable ? "" : "this user cannot write it: remove it");
}

}  // namespace vexo::check
