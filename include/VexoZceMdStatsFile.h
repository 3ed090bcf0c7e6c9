/// @file
/// The file of a statistics page: its name, its directory, and whether its process still runs. For VexoZceMdStats.h,
/// the tap and `vexo stat`; an application needs nothing of it.
#ifndef VEXO_ZCE_MD_STATS_FILE_H
#define VEXO_ZCE_MD_STATS_FILE_H

#include "VexoZceMdStatsPage.h"

#include <cpuid.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace vexo_stats {

// ---- clocks ----

inline std::uint64_t nowNs(clockid_t clock) {
    timespec now;
    ::clock_gettime(clock, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000 + static_cast<std::uint64_t>(now.tv_nsec);
}

/// One moment on the page's clock and on another one.
struct ClockPair {
    std::uint64_t clock;
    std::uint64_t ns;
};

/// The closest of several pairs: the thread may lose its CPU between two readings.
inline ClockPair readPair(clockid_t clock) {
    ClockPair best = {0, 0};
    std::uint64_t narrowest = kUnknown;
    for (int n = 0; n < 8; ++n) {
        const std::uint64_t before = startNow();
        const std::uint64_t ns = nowNs(clock);
        const std::uint64_t width = startNow() - before;
        if (width >= narrowest) continue;
        narrowest = width;
        best.clock = before + width / 2;
        best.ns = ns;
    }
    return best;
}

// "Invariant TSC": the same rate in every state of the processor.
inline bool counterIsEven() {
    unsigned a = 0;
    unsigned b = 0;
    unsigned c = 0;
    unsigned d = 0;
    return __get_cpuid(0x80000007, &a, &b, &c, &d) != 0 && (d & (1U << 8)) != 0;
}

/// The rate of the page's clock, rounded to three digits. Takes five milliseconds.
inline std::uint64_t measureClock() {
    const ClockPair start = readPair(CLOCK_MONOTONIC);
    timespec rest = {0, 5000000};
    while (::nanosleep(&rest, &rest) != 0 && errno == EINTR) {  // by a signal of the application
    }
    const ClockPair end = readPair(CLOCK_MONOTONIC);
    const std::uint64_t ns = end.ns != start.ns ? end.ns - start.ns : 1;
    double rate = static_cast<double>(end.clock - start.clock) * 1e9 / static_cast<double>(ns);
    double unit = 1;
    for (; rate >= 1000; rate /= 10) unit *= 10;
    return static_cast<std::uint64_t>((rate + 0.5)) * static_cast<std::uint64_t>(unit);
}

// ---- processes ----

// No file gets the number of a standard stream that is closed: others print there.
inline int aboveStandardStreams(int fd) {
    if (fd < 0 || fd > STDERR_FILENO) return fd;
    const int above = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    ::close(fd);
    errno = error;
    return above;
}

// The start of a small file of /proc, as text. Empty when there is none.
template <std::size_t kRoom>
void readSmall(const char* path, char (&text)[kRoom]) {
    text[0] = '\0';
    const int file = aboveStandardStreams(::open(path, O_RDONLY | O_CLOEXEC));
    if (file < 0) return;
    const ssize_t size = ::read(file, text, kRoom - 1);
    text[size > 0 ? size : 0] = '\0';
    ::close(file);
}

/// Field 22 of /proc/PID/stat: when the process started. 0: there is no such process.
inline std::uint64_t processStart(unsigned long pid) {
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%lu/stat", pid);
    char text[1024];
    readSmall(path, text);
    const char* at = std::strrchr(text, ')');  // the name in front may hold blanks
    for (int field = 2; at != nullptr && field < 22; ++field) at = std::strchr(at + 1, ' ');
    return at != nullptr ? std::strtoull(at, nullptr, 10) : 0;
}

/// Whose process numbers this process sees. 0: not known.
inline std::uint64_t pidNamespace() {
    struct stat found;
    return ::stat("/proc/self/ns/pid", &found) == 0 ? found.st_ino : 0;
}

/// Tells this run of the machine from the others, for which the processor's counter began elsewhere. 0: not known.
inline std::uint64_t bootNumber() {
    char text[64];
    readSmall("/proc/sys/kernel/random/boot_id", text);
    text[8] = '\0';
    return std::strtoull(text, nullptr, 16);
}

/// Asks whether a process holds the lock of a page. The lock belongs to the memory that is mapped there, so it is gone
/// when the process has ended, whatever ended it, and when the process has become another program. Only who may write
/// to a page can lock it.
/// @return 1: yes. 0: no. -1: the file system has no such locks.
inline int isHeld(int file) {
    struct flock lock = {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    if (::fcntl(file, F_OFD_GETLK, &lock) != 0) return -1;
    return lock.l_type != F_UNLCK ? 1 : 0;
}

/// Each library of a process that counts into the page locks a byte of it. @return false: there are no such locks
inline bool hold(int file) {
    for (off_t byte = 0; byte < static_cast<off_t>(kBlockBytes); ++byte) {
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        lock.l_start = byte;
        lock.l_len = 1;
        if (::fcntl(file, F_OFD_SETLK, &lock) == 0) return true;
        if (errno != EAGAIN && errno != EACCES) return false;
    }
    return false;
}

// ---- the file ----

/// How the name of a page ends, behind the process number.
inline const char* pageEnding(Writer writer) {
    return writer == kTap ? ".tap.page" : writer == kRelay ? ".relay.page" : ".app.page";
}

/// @return the process number in "PID.tap.page" or another writer's; 0 for any other name
inline std::uint32_t pidOfPage(const char* name, Writer writer) {
    if (*name < '1' || *name > '9') return 0;
    char* end = nullptr;
    const unsigned long long pid = std::strtoull(name, &end, 10);
    const bool isPage = std::strcmp(end, pageEnding(writer)) == 0;
    return isPage && end - name <= 10 && pid <= 0x7FFFFFFF ? static_cast<std::uint32_t>(pid) : 0;
}

/// Makes the file of a page and removes it. The page itself stays mapped for as long as the process lives.
class PageFile {
public:
    PageFile() = default;
    PageFile(const PageFile&) = delete;
    PageFile& operator=(const PageFile&) = delete;
    ~PageFile() {
        close();
        closeDirectory();
    }

    /// Makes a file that nobody sees yet.
    /// @param writer  who will count; it is a part of the file's name
    /// @return false: there is no page, and error() says why
    bool make(Writer writer) {
        m_name = std::to_string(::getpid()) + pageEnding(writer);
        if (!openDirectory()) return false;
        removeLeftPages();
        m_draft = "." + m_name + "." + std::to_string(startNow());
        m_file = open(m_draft.c_str(), O_RDWR | O_CREAT | O_EXCL);
        if (m_file < 0) return fail(errno);
        ::fchmod(m_file, 0644);  // whatever the umask says
        m_isHeld = hold(m_file);
        // A page without memory behind it would end the process at the first count.
        int noMemory;
        do noMemory = ::posix_fallocate(m_file, 0, static_cast<off_t>(kPageBytes));
        while (noMemory == EINTR);
        return noMemory == 0 || fail(noMemory);
    }

    /// Opens the page that another library of this process has made.
    bool join(Writer writer) {
        m_name = std::to_string(::getpid()) + pageEnding(writer);
        if (!openDirectory()) return false;
        m_file = open(m_name.c_str(), O_RDWR);
        m_isHeld = m_file >= 0 && isOfThisProcess(m_file) && hold(m_file);
        if (m_isHeld) {
            m_owner = ::getpid();
            return true;
        }
        close();
        closeDirectory();
        return false;
    }

    /// Maps blocks: 0 is the process, the others are streams. @param place  null, or an address of whole pages
    /// @return null: there is no page, and error() says why
    void* map(std::size_t first, std::size_t blocks, void* place = nullptr) {
        const int flags = MAP_SHARED | (place != nullptr ? MAP_FIXED : 0);
        void* const at = ::mmap(place, blocks * kBlockBytes, PROT_READ | PROT_WRITE, flags, m_file,
                                static_cast<off_t>(first * kBlockBytes));
        if (at != MAP_FAILED) return at;
        fail(errno);
        return nullptr;
    }

    /// After the last map() and describe(): gives the file its name. From now on, readers see it.
    /// @return false: there is no page, and error() says why; or another library of this process has made one, see
    /// join()
    bool publish(Process& process) {
        process.isLocked = m_isHeld ? 1 : 0;
        for (int tries = 0; ::linkat(m_directory, m_draft.c_str(), m_directory, m_name.c_str(), 0) != 0; ++tries) {
            if (errno != EEXIST || tries == kTries) return fail(errno);
            if (!removeOldOne()) return false;
        }
        removeDraft();
        m_owner = ::getpid();
        return true;
    }

    /// After the last map(). An application may close descriptors that it does not know, and open a file of its own
    /// there.
    void close() {
        if (m_file >= 0) ::close(m_file);
        m_file = -1;
    }

    /// When the last library of the process ends. A child of fork() leaves the page to its parent.
    void end(Process& process) {
        if (m_owner != ::getpid()) return;
        m_owner = 0;
        if (__atomic_sub_fetch(&process.users, 1, __ATOMIC_ACQ_REL) != 0) return;
        const char* const keep = ::secure_getenv(kKeepVariable);
        process.isKept = keep != nullptr && std::strcmp(keep, "1") == 0 ? 1 : 0;
        const ClockPair now = readPair(CLOCK_REALTIME);
        process.endNs = now.ns;
        __atomic_store_n(&process.steps[kEnded], now.clock, __ATOMIC_RELEASE);
        if (process.isKept == 0 && openDirectoryAgain()) ::unlinkat(m_directory, m_name.c_str(), 0);
        closeDirectory();
    }

    const std::string& error() const { return m_error; }

private:
    static constexpr int kTries = 3;
    static constexpr int kMostEntries = 10000;  // of a directory, that are looked at
    static constexpr time_t kOldDraft = 60;     // seconds: whoever made it was killed

    bool giveUp(const std::string& error) {
        m_error = error;
        removeDraft();
        close();
        closeDirectory();
        return false;
    }
    bool fail(int error) { return giveUp(m_path + "/" + m_name + ": " + std::strerror(error)); }
    bool refuse(const std::string& why) { return giveUp(m_path + ": " + why); }

    int open(const char* name, int flags) const {
        return aboveStandardStreams(
            ::openat(m_directory, name, flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644));
    }
    void removeDraft() {
        if (m_directory >= 0 && !m_draft.empty()) ::unlinkat(m_directory, m_draft.c_str(), 0);
        m_draft.clear();
    }
    void closeDirectory() {
        if (m_directory >= 0 && isTheDirectory(m_directory)) ::close(m_directory);
        m_directory = -1;
    }

    bool isTheDirectory(int fd) const {
        struct stat found;
        return ::fstat(fd, &found) == 0 && found.st_dev == m_place.st_dev && found.st_ino == m_place.st_ino;
    }
    // The application may have closed its descriptor, and opened a file of its own there.
    bool openDirectoryAgain() {
        if (isTheDirectory(m_directory)) return true;
        m_directory = aboveStandardStreams(::open(m_path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (m_directory < 0 || isTheDirectory(m_directory)) return m_directory >= 0;
        ::close(m_directory);
        m_directory = -1;
        return false;
    }

    static std::string directoryName() {
        const char* const wanted = ::secure_getenv(kDirectoryVariable);
        if (wanted == nullptr || *wanted == '\0') return kDirectoryPrefix + std::to_string(::geteuid());
        char* const here = *wanted != '/' ? ::getcwd(nullptr, 0) : nullptr;
        const std::string path = here != nullptr ? std::string(here) + "/" + wanted : std::string(wanted);
        std::free(here);
        return path;
    }

    // Others must not be able to exchange files in it.
    bool openDirectory() {
        m_path = directoryName();
        const bool isNew = ::mkdir(m_path.c_str(), 0755) == 0;
        const int fd = aboveStandardStreams(::open(m_path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (fd < 0) return refuse(std::strerror(errno));
        if (isNew) ::fchmod(fd, 0755);  // whatever the umask says
        const bool isKnown = ::fstat(fd, &m_place) == 0;
        m_directory = fd;
        if (!isKnown) return refuse(std::strerror(errno));
        if (m_place.st_uid != ::geteuid()) return refuse("the directory belongs to another user");
        if ((m_place.st_mode & (S_IWGRP | S_IWOTH)) != 0) return refuse("other users can write to the directory");
        return true;
    }

    static bool readProcess(int file, Process& process) {
        return ::pread(file, &process, sizeof process, 0) == static_cast<ssize_t>(sizeof process) &&
               process.magic == kMagic && process.version == kVersion;
    }
    static bool isOfThisProcess(int file) {
        Process process;
        struct stat found;
        return ::fstat(file, &found) == 0 && found.st_size >= static_cast<off_t>(kPageBytes) &&
               found.st_uid == ::geteuid() && readProcess(file, process) && process.steps[kEnded] == 0 &&
               process.pid == static_cast<std::uint32_t>(::getpid()) && process.pidNamespace == pidNamespace() &&
               process.processStart == processStart(process.pid) && isHeld(file) == 1;
    }

    // A page of this process number: of a process that is dead, or of this one before it became another program.
    bool removeOldOne() {
        const int file = open(m_name.c_str(), O_RDONLY);
        Process process;
        const bool isKnown = file >= 0 && readProcess(file, process);
        const bool isAlive = isKnown && process.isLocked != 0 && isHeld(file) == 1;
        const bool isOfOthers = isKnown && process.isLocked == 0 && process.pidNamespace != 0 &&
                                process.pidNamespace != pidNamespace();
        if (file >= 0) ::close(file);
        if (isAlive || isOfOthers) {
            return giveUp(m_path + "/" + m_name + ": this is the page of another process with the same number");
        }
        ::unlinkat(m_directory, m_name.c_str(), 0);
        return true;
    }

    // Pages of this user's processes that were killed or had no right to remove them. Pages that were to be kept stay.
    void removeLeftPages() const {
        const int again = aboveStandardStreams(::openat(m_directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        DIR* const listing = again >= 0 ? ::fdopendir(again) : nullptr;
        if (listing == nullptr) {
            if (again >= 0) ::close(again);
            return;
        }
        for (int n = 0; n < kMostEntries; ++n) {
            const dirent* const entry = ::readdir(listing);
            if (entry == nullptr) break;
            if (isLeft(entry->d_name)) ::unlinkat(m_directory, entry->d_name, 0);
        }
        ::closedir(listing);
    }
    bool isLeft(const char* name) const {
        const bool isDraft = *name == '.' && name[1] >= '1' && name[1] <= '9' && std::strstr(name, ".page.") != nullptr;
        const bool isPage = pidOfPage(name, kTap) != 0 || pidOfPage(name, kApplication) != 0 ||
                            pidOfPage(name, kRelay) != 0;
        if (!isDraft && !isPage) return false;
        const int file = open(name, O_RDONLY);
        if (file < 0) return false;
        const bool isLeft = isDraft ? isOldDraft(file) : isLeftPage(file);
        ::close(file);
        return isLeft;
    }
    static bool isOldDraft(int file) {
        struct stat found;
        return ::fstat(file, &found) == 0 && S_ISREG(found.st_mode) && isHeld(file) != 1 &&
               found.st_mtime < ::time(nullptr) - kOldDraft;
    }
    static bool isLeftPage(int file) {
        Process process;
        if (!readProcess(file, process)) return false;
        if (process.steps[kEnded] != 0) return process.isKept == 0;
        if (process.isLocked != 0) return isHeld(file) == 0;
        const bool isVisible = process.pidNamespace == 0 || process.pidNamespace == pidNamespace();
        return isVisible && processStart(process.pid) != process.processStart;
    }

    std::string m_path;
    std::string m_name;
    std::string m_draft;  // the name until publish()
    std::string m_error;
    struct stat m_place = {};
    int m_directory = -1;  // stays open, to remove the page from
    int m_file = -1;
    bool m_isHeld = false;
    pid_t m_owner = 0;
};

/// Fills in a new Process block.
inline void describe(Process& process, Writer writer) {
    process.version = kVersion;
    process.blockBytes = kBlockBytes;
    process.streams = kStreams;
    process.pid = static_cast<std::uint32_t>(::getpid());
    process.processStart = processStart(process.pid);
    process.pidNamespace = pidNamespace();
    process.boot = bootNumber();
    process.users = 1;
    process.writer = writer;
    process.clockPerSecond = measureClock();
    process.clockIsEven = counterIsEven() ? 1 : 0;
    const ClockPair start = readPair(CLOCK_REALTIME);
    process.startClock = start.clock;
    process.startNs = start.ns;
    process.steps[kBegun] = start.clock;
    std::strncpy(process.program, program_invocation_short_name, kProgramBytes - 1);
    __atomic_store_n(&process.magic, kMagic, __ATOMIC_RELEASE);
}

}  // namespace vexo_stats

#endif
