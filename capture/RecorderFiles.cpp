#include "capture/RecorderFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <utility>

#include "capture/Format.h"
#include "capture/StandardStreams.h"
#include "capture/StoredFrame.h"

namespace capture {
namespace {

constexpr std::size_t kLeastDigits = 8;
constexpr std::size_t kMostDigits = 18;
constexpr unsigned kMostTries = 1000;
constexpr std::uint64_t kSecondNs = 1'000'000'000;
constexpr std::uint64_t kMegabyte = 1U << 20;
constexpr mode_t kMode = 0644;  // less the umask

/// Closes a descriptor, and leaves errno as it is.
class Descriptor {
public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor() {
        const int error = errno;
        if (m_fd >= 0) ::close(m_fd);
        errno = error;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return m_fd; }
    int release() { return std::exchange(m_fd, -1); }

private:
    int m_fd;
};

Descriptor openFolder(const std::string& folder) {
    return Descriptor(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

// Days since 1970 as year, month, day of the Gregorian calendar. The C library's functions share a lock with the
// application, which a child of fork() may find taken for ever.
std::string timeText(std::uint64_t ns) {
    const std::uint64_t seconds = ns / kSecondNs;
    const std::uint64_t shifted = seconds / 86400 + 719468;  // days since March of the year 0
    const std::uint64_t era = shifted / 146097;
    const std::uint64_t day = shifted % 146097;
    const std::uint64_t yearOfEra = (day - day / 1460 + day / 36524 - day / 146096) / 365;
    const std::uint64_t dayOfYear = day - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);  // March 1 is 0
    const std::uint64_t month = (5 * dayOfYear + 2) / 153;                                      // March is 0
    const std::uint64_t year = yearOfEra + era * 400 + (month >= 10 ? 1 : 0);
    char text[128];
    std::snprintf(text, sizeof text, "%04lu%02lu%02luT%02lu%02lu%02luZ", year, month < 10 ? month + 3 : month - 9,
                  dayOfYear - (153 * month + 2) / 5 + 1, seconds / 3600 % 24, seconds / 60 % 60, seconds % 60);
    return text;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool isTimeText(const std::string& text) {
    return text.size() == 16 && text[8] == 'T' && text[15] == 'Z' &&
           std::all_of(text.begin(), text.begin() + 8, isDigit) &&
           std::all_of(text.begin() + 9, text.begin() + 15, isDigit);
}

// A lock of a process: a child of fork() does not have it, and it ends with the process, however that ends.
struct flock wholeFile() {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

bool isBeingWritten(int fd) {
    struct flock lock = wholeFile();
    return ::fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

// The section of a file of the recorder begins with its mark as a comment: see RecorderFiles::create().
bool hasMark(int fd, const std::string& mark) {
    unsigned char bytes[sizeof(format::SectionHead) + sizeof(format::OptionHead) + 512];
    const std::size_t wanted = sizeof(format::SectionHead) + sizeof(format::OptionHead) + mark.size();
    unsigned char frame[kStoredFrameHead];
    const bool isStored = ::pread(fd, frame, sizeof frame, 0) == sizeof frame && isStoredFrame(frame);
    const off_t begin = isStored ? kStoredFrameHead : 0;
    if (wanted > sizeof bytes || ::pread(fd, bytes, wanted, begin) != static_cast<ssize_t>(wanted)) return false;
    format::SectionHead head{};
    format::OptionHead option{};
    std::memcpy(&head, bytes, sizeof head);
    std::memcpy(&option, bytes + sizeof head, sizeof option);
    return head.type == format::kSectionHeader && option.code == format::kComment && option.length == mark.size() &&
           std::memcmp(bytes + sizeof head + sizeof option, mark.data(), mark.size()) == 0;
}

bool writeWhole(int fd, const BlockBuffer& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t count = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        done += static_cast<std::size_t>(count);
    }
    return true;
}

}  // namespace

RecorderFiles::RecorderFiles(const std::string& path, Limits limits, Report report, Maker maker)
    : m_limits(limits), m_report(std::move(report)), m_maker(std::move(maker.name)) {
    // The application may change its directory.
    std::error_code error;
    std::filesystem::path whole = std::filesystem::absolute(path, error);
    if (error) whole = path;
    m_folder = whole.has_parent_path() ? whole.parent_path().string() : ".";
    if (maker.compresses) {
        m_ending = whole.extension().string();
        whole.replace_extension();
    }
    m_stem = whole.stem().string() + ".";
    m_ending = whole.extension().string() + m_ending;
}

std::string RecorderFiles::markOf(const std::string& name) const { return m_maker + " recorder, file " + name; }

std::map<std::uint64_t, std::string> RecorderFiles::files() {
    look();
    std::map<std::uint64_t, std::string> paths;
    for (const auto& file : m_own) paths.emplace(file.first.first, m_folder + "/" + file.first.second);
    return paths;
}

std::string RecorderFiles::nameOf(std::uint64_t number, std::uint64_t nowNs) const {
    std::string digits = std::to_string(number);
    if (digits.size() < kLeastDigits) digits.insert(0, kLeastDigits - digits.size(), '0');
    return m_stem + digits + "." + timeText(nowNs) + m_ending;
}

std::optional<std::uint64_t> RecorderFiles::numberIn(const std::string& name) const {
    const std::size_t around = m_stem.size() + m_ending.size();
    if (name.size() <= around || name.compare(0, m_stem.size(), m_stem) != 0 ||
        name.compare(name.size() - m_ending.size(), std::string::npos, m_ending) != 0) {
        return std::nullopt;
    }
    const std::string inside = name.substr(m_stem.size(), name.size() - around);
    const std::size_t dot = inside.find('.');
    if (dot == std::string::npos || dot < kLeastDigits || dot > kMostDigits || !isTimeText(inside.substr(dot + 1)) ||
        !std::all_of(inside.begin(), inside.begin() + static_cast<std::ptrdiff_t>(dot), isDigit)) {
        return std::nullopt;
    }
    return std::strtoull(inside.c_str(), nullptr, 10);
}

// Opens nothing but regular files of this user: opening another one may have an effect, or wait.
RecorderFiles::Found RecorderFiles::judge(int directory, const std::string& name) const {
    struct stat named {};
    if (::fstatat(directory, name.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? Found::kGone : Found::kUnclear;
    if (!S_ISREG(named.st_mode) || named.st_uid != ::geteuid() || named.st_nlink != 1) return Found::kForeign;
    const StandardNumbersTaken taken;
    const Descriptor file(::openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (file.get() < 0) return errno == ENOENT ? Found::kGone : errno == ELOOP ? Found::kForeign : Found::kUnclear;
    struct stat opened {};
    if (::fstat(file.get(), &opened) != 0 || opened.st_dev != named.st_dev || opened.st_ino != named.st_ino ||
        opened.st_nlink != 1) {
        return Found::kUnclear;  // it changes at this moment
    }
    if (opened.st_size == 0) return Found::kUnclear;  // another recorder may just have created it
    if (!hasMark(file.get(), markOf(name))) return Found::kForeign;
    return isBeingWritten(file.get()) ? Found::kInUse : Found::kOwn;
}

// One name that looks like this recorder's. What was judged before is not opened again.
void RecorderFiles::lookAt(int folder, const Key& key, ino_t inode, Files& own, Files& foreign) {
    const auto isKnown = [&](const Files& files) {
        const auto found = files.find(key);
        return found != files.end() && found->second == inode;
    };
    // The file that is written must not be opened: closing it again would end its lock.
    if (key.second == m_current || isKnown(m_own)) {
        own.emplace(key, inode);
        return;
    }
    const Found found = isKnown(m_foreign) ? Found::kForeign : judge(folder, key.second);
    if (found == Found::kOwn || found == Found::kInUse) own.emplace(key, inode);
    if (found != Found::kForeign) return;
    foreign.emplace(key, inode);
    tellForeign(key.second);
}

// Which files of this recorder there are: those of earlier runs and of other processes, too.
void RecorderFiles::look() {
    const StandardNumbersTaken taken;
    DIR* directory = ::opendir(m_folder.c_str());
    if (directory == nullptr) {
        reportOnce(m_folderReported, "cannot read the folder " + m_folder + ": " + std::strerror(errno) +
                                         "; only files of this run are removed");
        return;
    }
    Files own;
    Files foreign;
    while (const dirent* entry = ::readdir(directory)) {
        const std::optional<std::uint64_t> number = numberIn(entry->d_name);
        if (number) lookAt(::dirfd(directory), {*number, entry->d_name}, entry->d_ino, own, foreign);
    }
    ::closedir(directory);
    m_own = std::move(own);
    m_foreign = std::move(foreign);
    if (!m_own.empty()) m_lastNumber = std::max(m_lastNumber, m_own.rbegin()->first.first);
}

// Judges the file again: much may have happened since it was found. @return kGone if it is removed
RecorderFiles::Found RecorderFiles::remove(const std::string& name) {
    const StandardNumbersTaken taken;
    const Descriptor folder = openFolder(m_folder);
    const Found found = judge(folder.get(), name);
    if (found == Found::kForeign) tellForeign(name);
    if (found != Found::kOwn) return found;
    if (::unlinkat(folder.get(), name.c_str(), 0) == 0) {
        m_removalReported = false;
        return Found::kGone;
    }
    reportOnce(m_removalReported, "cannot remove " + m_folder + "/" + name + ": " + std::strerror(errno) +
                                      "; there will be more files than wanted");
    return found;
}

// @return its name; empty when none can be removed
std::string RecorderFiles::removeOldest() {
    for (auto file = m_own.begin(); file != m_own.end();) {
        const std::string name = file->first.second;
        const Found found = name == m_current ? Found::kInUse : remove(name);
        const bool stays = found != Found::kGone && found != Found::kForeign;
        file = stays ? std::next(file) : m_own.erase(file);
        if (found == Found::kGone) return name;
    }
    return {};
}

// Makes place for one more. @return what was removed: ", removed NAME"
std::string RecorderFiles::prune() {
    std::string removed;
    std::size_t count = 0;
    while (m_own.size() >= m_limits.keep) {
        const std::string name = removeOldest();
        if (name.empty()) break;
        removed = name;
        ++count;
    }
    if (count == 0) return {};
    return "; removed " + (count == 1 ? removed : std::to_string(count) + " files up to " + removed);
}

std::uint64_t RecorderFiles::freeBytes() const {
    struct statvfs state {};
    if (::statvfs(m_folder.c_str(), &state) != 0) return ~std::uint64_t{0};  // not known: no reason to stop
    return std::uint64_t{state.f_bavail} * state.f_frsize;
}

bool RecorderFiles::hasRoom(std::uint64_t bytes, std::uint64_t nowNs) {
    if (m_limits.keepFreeBytes == 0) return true;
    const auto isEnough = [&] { return m_freeBytes >= m_limits.keepFreeBytes + bytes; };
    m_freeBytes = freeBytes();
    if (isEnough()) return true;
    // A removed file gives no space while somebody reads it. Removing all others would not help either.
    if (m_uselessNs != 0 && nowNs >= m_uselessNs && nowNs - m_uselessNs < kSecondNs) return false;
    look();
    m_uselessNs = 0;
    while (!isEnough() && m_uselessNs == 0) {
        const std::string why = whyNoRoom();
        const std::string name = removeOldest();
        const std::uint64_t before = std::exchange(m_freeBytes, freeBytes());
        if (!name.empty()) m_report("removed " + name + ": " + why);
        if (name.empty() || m_freeBytes <= before) m_uselessNs = std::max<std::uint64_t>(nowNs, 1);
    }
    return isEnough();
}

std::string RecorderFiles::whyNoRoom() const {
    return "only " + std::to_string(m_freeBytes / kMegabyte) + " of " +
           std::to_string(m_limits.keepFreeBytes / kMegabyte) + " MB to keep are free in " + m_folder;
}

// The file gets its name when its head is in it: so no kill leaves a file that the next run does not know as its own.
int RecorderFiles::createWithHead(const std::string& name, const BlockBuffer& head) const {
    const Descriptor folder = openFolder(m_folder);
    if (folder.get() < 0) return -1;
    struct flock lock = wholeFile();
    Descriptor nameless(::openat(folder.get(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC, kMode));
    if (nameless.get() >= 0) {
        if (!writeWhole(nameless.get(), head)) return -1;
        ::fcntl(nameless.get(), F_SETLK, &lock);
        const std::string open = "/proc/self/fd/" + std::to_string(nameless.get());
        if (::linkat(AT_FDCWD, open.c_str(), folder.get(), name.c_str(), AT_SYMLINK_FOLLOW) == 0)
            return nameless.release();
        if (errno == EEXIST) return -1;
    }
    // A file system without files that have no name, or no /proc.
    Descriptor file(::openat(folder.get(), name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kMode));
    if (file.get() < 0) return -1;
    ::fcntl(file.get(), F_SETLK, &lock);
    if (writeWhole(file.get(), head)) return file.release();
    const int error = errno;
    ::unlinkat(folder.get(), name.c_str(), 0);
    errno = error;
    return -1;
}

RecorderFiles::Created RecorderFiles::create(std::uint64_t nowNs, const MakeHead& makeHead) {
    const StandardNumbersTaken taken;
    Created created;
    look();
    const std::string removed = prune();
    created.name = m_folder + "/" + nameOf(m_lastNumber + 1, nowNs);
    if (!hasRoom(0, nowNs)) {
        created.problem = whyNoRoom();
        return created;
    }
    errno = EEXIST;
    for (unsigned n = 0; n < kMostTries && created.fd < 0 && errno == EEXIST; ++n) {
        const std::string name = nameOf(++m_lastNumber, nowNs);
        const BlockBuffer head = makeHead(markOf(name));
        created.name = m_folder + "/" + name;
        created.number = m_lastNumber;
        created.bytes = head.size();
        created.fd = createWithHead(name, head);
        if (created.fd >= 0) m_current = name;
    }
    if (created.fd < 0) {
        created.problem = std::strerror(errno);
        --m_lastNumber;
        return created;
    }
    struct stat state {};
    m_own.emplace(Key{m_lastNumber, m_current}, ::fstat(created.fd, &state) == 0 ? state.st_ino : 0);
    m_report("writing " + created.name + removed);
    return created;
}

void RecorderFiles::reportOnce(bool& reported, const std::string& what) {
    if (!reported) m_report(what);
    reported = true;
}

void RecorderFiles::tellForeign(const std::string& name) {
    reportOnce(m_foreignReported, m_folder + "/" + name +
                                      " is no file of this recorder, only its name is like one: it stays, and so do "
                                      "others like it");
}

}  // namespace capture
