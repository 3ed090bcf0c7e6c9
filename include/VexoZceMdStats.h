/// @file
/// Statistics of an application's market data, for `vexo stat` to show: a wrapper around the callback object.
///
///     class Quotes final : public IVexoZceMdSpi { ... };
///     Quotes quotes;
///     VexoZceMdStats<Quotes> counted(quotes);
///     if (api->VexoStart(counted, "zce.ini") == 0)
///         while (counted.recv(*api) != -1) {}
///
/// A packet costs 25 instructions more, and no lock or system call. Header only, C++11. The page is the
/// file PID.app.page in $VEXO_STATS_DIR, or else in /dev/shm/vexo-stats-UID; it is removed when the process ends. An
/// application that cannot be changed is counted by `vexo tap --stats-only -- ./app`.
#ifndef VEXO_ZCE_MD_STATS_H
#define VEXO_ZCE_MD_STATS_H

#include "VexoZceMdApi.h"
#include "VexoZceMdStatsPage.h"

#include <cpuid.h>
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
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

inline std::uint64_t nowNs(clockid_t clock) {
    timespec now;
    ::clock_gettime(clock, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000 + static_cast<std::uint64_t>(now.tv_nsec);
}

/// Field 22 of /proc/PID/stat: when the process started. 0: there is no such process.
inline std::uint64_t processStart(unsigned long pid) {
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%lu/stat", pid);
    char text[1024];
    std::size_t size = 0;
    std::FILE* const file = std::fopen(path, "re");
    if (file == nullptr) return 0;
    size = std::fread(text, 1, sizeof text - 1, file);
    std::fclose(file);
    text[size] = '\0';
    const char* at = std::strrchr(text, ')');  // the name in front may hold blanks
    for (int field = 2; at != nullptr && field < 22; ++field) at = std::strchr(at + 1, ' ');
    return at != nullptr ? std::strtoull(at, nullptr, 10) : 0;
}

/// Makes the file of a page and removes it. The page itself stays mapped for as long as the process lives.
class PageFile {
public:
    PageFile() = default;
    PageFile(const PageFile&) = delete;
    PageFile& operator=(const PageFile&) = delete;

    /// @param writer  who will count; it is a part of the file's name
    /// @return false: there is no page, and error() says why
    bool make(Writer writer) {
        if (!openDirectory()) return false;
        removeDeadPages();
        const char* const kind = writer == kTap ? "tap" : writer == kRelay ? "relay" : "app";
        m_name = std::to_string(::getpid()) + "." + kind + ".page";
        ::unlinkat(m_directory, m_name.c_str(), 0);  // of a dead process that had this number
        m_file = aboveStandardStreams(
            ::openat(m_directory, m_name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
        if (m_file < 0) return fail(m_path + "/" + m_name, errno);
        ::fchmod(m_file, 0644);  // whatever the umask says
        // A page without memory behind it would end the process at the first count.
        const int noMemory = ::posix_fallocate(m_file, 0, static_cast<off_t>(kPageBytes));
        if (noMemory != 0) {
            ::unlinkat(m_directory, m_name.c_str(), 0);
            return fail(m_path + "/" + m_name, noMemory);
        }
        m_owner = ::getpid();
        return true;
    }

    /// Maps blocks: 0 is the process, the others are streams. @param place  null, or an address of whole pages
    void* map(std::size_t first, std::size_t blocks, void* place = nullptr) const {
        const int flags = MAP_SHARED | (place != nullptr ? MAP_FIXED : 0);
        void* const at = ::mmap(place, blocks * kBlockBytes, PROT_READ | PROT_WRITE, flags, m_file,
                                static_cast<off_t>(first * kBlockBytes));
        return at == MAP_FAILED ? nullptr : at;
    }
    /// After the last map(). An application may close descriptors that it does not know, and open a file of its own
    /// there.
    void close() {
        ::close(m_file);
        m_file = -1;
    }

    /// At the end of the process. A child of fork() leaves the page to its parent.
    void end(Process& process) {
        if (m_owner != ::getpid()) return;
        process.steps[kEnded] = startNow();
        const char* const keep = ::secure_getenv(kKeepVariable);
        if (keep == nullptr || std::strcmp(keep, "1") != 0) ::unlinkat(m_directory, m_name.c_str(), 0);
        m_owner = 0;
    }

    const std::string& error() const { return m_error; }

private:
    bool fail(const std::string& what, int error) {
        m_error = what + ": " + std::strerror(error);
        return false;
    }
    bool refuse(const std::string& why) {
        m_error = m_path + ": " + why;
        return false;
    }

    // No file gets the number of a standard stream that is closed: others print there.
    static int aboveStandardStreams(int fd) {
        if (fd < 0 || fd > STDERR_FILENO) return fd;
        const int above = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        const int error = errno;
        ::close(fd);
        errno = error;
        return above;
    }

    // Others must not be able to exchange files in it.
    bool openDirectory() {
        const char* const wanted = ::secure_getenv(kDirectoryVariable);
        const bool isNamed = wanted != nullptr && *wanted != '\0';
        m_path = isNamed ? std::string(wanted) : kDirectoryPrefix + std::to_string(::geteuid());
        if (::mkdir(m_path.c_str(), 0755) == 0) ::chmod(m_path.c_str(), 0755);
        m_directory = aboveStandardStreams(::open(m_path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        struct stat found;
        if (m_directory < 0 || ::fstat(m_directory, &found) != 0) return fail(m_path, errno);
        if (found.st_uid != ::geteuid()) return refuse("the directory belongs to another user");
        if ((found.st_mode & (S_IWGRP | S_IWOTH)) != 0) return refuse("other users can write to the directory");
        return true;
    }

    // Pages of this user's processes that were killed. Pages that were to be kept stay.
    void removeDeadPages() const {
        const int again = ::openat(m_directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        DIR* const listing = again >= 0 ? ::fdopendir(again) : nullptr;
        if (listing == nullptr) {
            if (again >= 0) ::close(again);
            return;
        }
        while (const dirent* entry = ::readdir(listing)) {
            if (isDeadPage(entry->d_name)) ::unlinkat(m_directory, entry->d_name, 0);
        }
        ::closedir(listing);
    }

    static bool isKnownVersion(std::uint32_t version) { return version >= kOldestVersion && version <= kVersion; }

    bool isDeadPage(const char* name) const {
        const std::size_t size = std::strlen(name);
        if (size < 5 || std::strcmp(name + size - 5, ".page") != 0) return false;
        const int file = aboveStandardStreams(
            ::openat(m_directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (file < 0) return false;
        Process process;
        const bool isRead = ::pread(file, &process, sizeof process, 0) == static_cast<ssize_t>(sizeof process);
        ::close(file);
        return isRead && process.magic == kMagic && isKnownVersion(process.version) && process.steps[kEnded] == 0 &&
               processStart(process.pid) != process.processStart;
    }

    std::string m_path;
    std::string m_name;
    std::string m_error;
    int m_directory = -1;  // stays open, to remove the page from
    int m_file = -1;
    pid_t m_owner = 0;
};

// "Invariant TSC": the same rate in every state of the processor.
inline bool counterIsEven() {
    unsigned a = 0;
    unsigned b = 0;
    unsigned c = 0;
    unsigned d = 0;
    return __get_cpuid(0x80000007, &a, &b, &c, &d) != 0 && (d & (1U << 8)) != 0;
}

/// Takes five milliseconds.
inline std::uint64_t measureClock() {
    const std::uint64_t startNs = nowNs(CLOCK_MONOTONIC);
    const std::uint64_t start = startNow();
    const timespec pause = {0, 5000000};
    ::nanosleep(&pause, nullptr);
    const std::uint64_t ns = nowNs(CLOCK_MONOTONIC) - startNs;
    double rate = static_cast<double>(startNow() - start) * 1e9 / static_cast<double>(ns != 0 ? ns : 1);
    double unit = 1;
    for (; rate >= 1000; rate /= 10) unit *= 10;
    return static_cast<std::uint64_t>((rate + 0.5)) * static_cast<std::uint64_t>(unit);
}

/// Fills in a new Process block. The magic comes last: without it the page is none.
inline void describe(Process& process, Writer writer) {
    process.version = kVersion;
    process.blockBytes = kBlockBytes;
    process.streams = kStreams;
    process.pid = static_cast<std::uint32_t>(::getpid());
    process.processStart = processStart(process.pid);
    process.writer = writer;
    process.clockPerSecond = measureClock();
    process.clockIsEven = counterIsEven() ? 1 : 0;
    process.startClock = startNow();
    process.startNs = nowNs(CLOCK_REALTIME);
    process.steps[kBegun] = process.startClock;
    std::strncpy(process.program, program_invocation_short_name, kProgramBytes - 1);
    __atomic_store_n(&process.magic, kMagic, __ATOMIC_RELEASE);
}

/// The page that the wrappers of this process share.
class ApplicationPage {
public:
    static ApplicationPage& get() {
        static ApplicationPage page;
        return page;
    }
    /// A block for a stream: of the page, or of private memory when there is no page or no room in it.
    Stream& newStream() {
        const std::size_t n = __atomic_fetch_add(&m_used, 1, __ATOMIC_RELAXED);
        static Stream unseen;
        return m_blocks != nullptr && n < kStreams ? *reinterpret_cast<Stream*>(m_blocks + (1 + n) * kBlockBytes)
                                                   : unseen;
    }
    Process& process() {
        static Process unseen;
        return m_blocks != nullptr ? *reinterpret_cast<Process*>(m_blocks) : unseen;
    }
    const std::string& error() const { return m_file.error(); }

private:
    ApplicationPage() {
        if (!m_file.make(kApplication)) return;
        m_blocks = static_cast<unsigned char*>(m_file.map(0, 1 + kStreams));
        m_file.close();
        if (m_blocks == nullptr) return;
        describe(process(), kApplication);
        ::pthread_atfork(nullptr, nullptr, &leaveToParent);
    }
    ~ApplicationPage() { m_file.end(process()); }

    // In a child of fork(): what it counts goes nowhere.
    static void leaveToParent() {
        ::mmap(get().m_blocks, kPageBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    }

    PageFile m_file;
    unsigned char* m_blocks = nullptr;
    std::size_t m_used = 0;
};

}  // namespace vexo_stats

/// The payload's layout is not known: sequence numbers are not looked at. A class for a known layout has kIsKnown true
/// and an of() that reads the number from the payload; a quote that follows another has the next number.
struct VexoNoSequence {
    static constexpr bool kIsKnown = false;  ///< whether of() tells a number
    /// Reads a payload as a callback gets it. @return the number of its quote
    static std::uint64_t of(const unsigned char*) { return 0; }
};

/// Counts what passes to @p Spi. If that class is final, the compiler calls its callbacks directly.
/// @tparam Sequence  tells the sequence number in a payload; see VexoNoSequence
template <class Spi = IVexoZceMdSpi, class Sequence = VexoNoSequence>
class VexoZceMdStats : public IVexoZceMdSpi {
public:
    /// @param inner    must outlive this object
    /// @param channel  to show; the wrapper itself cannot know it
    explicit VexoZceMdStats(Spi& inner, std::uint64_t channel = vexo_stats::kUnknown)
        : m_stream(&vexo_stats::ApplicationPage::get().newStream()), m_inner(inner) {
        m_stream->sequenceKnown = Sequence::kIsKnown ? 1 : 0;
        vexo_stats::describe(*m_stream, vexo_stats::kUnknown, channel);
    }
    ~VexoZceMdStats() override { m_stream->state = vexo_stats::kClosed; }
    VexoZceMdStats(const VexoZceMdStats&) = delete;
    VexoZceMdStats& operator=(const VexoZceMdStats&) = delete;

    int OnUpSubsResult17(const unsigned char* data) override { return measured(Type<17>(), data); }
    int OnUpSubsResult18(const unsigned char* data) override { return measured(Type<18>(), data); }
    int OnUpSubsResult19(const unsigned char* data) override { return measured(Type<19>(), data); }
    int OnUpSubsResult20(const unsigned char* data) override { return measured(Type<20>(), data); }

    /// VexoRecv, with its polls counted. Without it the page has no polls.
    /// @param api  the object whose callbacks this one wraps
    /// @return what VexoRecv returns
    int recv(IVexoZceMdApi& api) {
        const int result = api.VexoRecv();
        if (result == 0) {
            vexo_stats::addOne(m_stream->idlePolls);
            m_stream->pollsKnown = 1;
        }
        return result;
    }

    /// Asks whether this process has a page. Without one, everything works and nothing is counted.
    /// @return why there is no page; empty when there is one
    static const std::string& error() { return vexo_stats::ApplicationPage::get().error(); }

private:
    template <unsigned kNumber>
    struct Type {
        static constexpr unsigned kType = kNumber;
    };
    void call(Type<17>, const unsigned char* data) { m_inner.OnUpSubsResult17(data); }
    void call(Type<18>, const unsigned char* data) { m_inner.OnUpSubsResult18(data); }
    void call(Type<19>, const unsigned char* data) { m_inner.OnUpSubsResult19(data); }
    void call(Type<20>, const unsigned char* data) { m_inner.OnUpSubsResult20(data); }

    template <class T>
    __attribute__((always_inline)) int measured(T type, const unsigned char* data) {
        const bool isUsual = Sequence::kIsKnown ? Sequence::of(data) == m_next : m_stream->firstPacket != 0;
        if (__builtin_expect(!isUsual, 0)) return measuredSlow(type, data);
        return measureCall(type, data);
    }

    template <class T>
    __attribute__((always_inline)) int measureCall(T type, const unsigned char* data) {
        vexo_stats::Stream& stream = *m_stream;
        const std::uint64_t start = vexo_stats::startNow();
        const std::uint64_t gap = vexo_stats::between(stream.lastPacket, start);
        vexo_stats::set(stream.lastPacket, start);
        vexo_stats::addOne(stream.gaps[vexo_stats::bucketOf(gap)]);
        vexo_stats::addOne(stream.packets[T::kType]);
        if (Sequence::kIsKnown) ++m_next;
        call(type, data);
        const std::uint64_t time = vexo_stats::endNow() - stream.lastPacket;
        vexo_stats::add(stream.callbackClock, time);
        const std::uint64_t bucket = vexo_stats::bucketOf(time);
        vexo_stats::addOne(stream.callbacks[bucket]);
        return static_cast<int>(bucket);  // nobody uses the result, and this one is in its register already
    }

    // The first packet, and one out of turn.
    template <class T>
    __attribute__((noinline, cold)) int measuredSlow(T type, const unsigned char* data) {
        const std::uint64_t sequence = Sequence::of(data);
        bool goesOn = true;
        if (m_stream->firstPacket == 0) {
            const std::uint64_t now = vexo_stats::startNow();
            std::uint64_t& first = vexo_stats::ApplicationPage::get().process().steps[vexo_stats::kFirstQuote];
            if (first == 0) first = now;
            vexo_stats::expectFirst(*m_stream, now);
        } else {
            goesOn = vexo_stats::countOutOfTurn(*m_stream, static_cast<std::int64_t>(sequence - m_next));
        }
        m_next = goesOn ? sequence : m_next - 1;  // one is added for this packet
        return measureCall(type, data);
    }

    vexo_stats::Stream* const m_stream;
    Spi& m_inner;
    std::uint64_t m_next = 0;
};

#endif
