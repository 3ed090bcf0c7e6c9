#include "src/log/elog.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <limits>

#include "src/log/LineBuilder.h"
#include "src/log/LinePrefix.h"
#include "src/log/LocalSecond.h"
#include "src/log/StandardWrite.h"
#include "src/log/ZoneOffsets.h"
#include "src/log/elog_mutex.h"
#include "src/util/LocalTime.h"
#include "src/util/SafeFile.h"
#include "src/util/StandardStreams.h"

std::atomic<std::time_t> time_cache{0};
int time_zone = 0;
std::FILE* elog_file_fp = nullptr;
std::atomic<int> elog_file_fd{-1};
std::atomic<int> elog_handlers_writing{0};
std::atomic<bool> elog_file_init_ok{false};
ElogFileCfg local_cfg{};
std::atomic<long> last_rotate_day{0};
bool is_rotating = false;

namespace {

constexpr std::uint64_t kUnusedMaxSize = 4294967294;
constexpr std::size_t kMaxDirPath = 512;  // longer paths are cut

// The value of time_cache for which the open file is the right one.
constexpr std::time_t kNoSecond = std::numeric_limits<std::time_t>::min();
std::time_t g_settledSecond = kNoSecond;

inline bool isSettled(std::time_t lastStamp) {
    return lastStamp == g_settledSecond && g_fileSecond.holds(lastStamp);  // another zone may have another day
}

// What a full disk, or a new day's file that could not be opened, left behind. A handler reads and sets them, too.
std::atomic<unsigned long> g_lostLines{0};  // since the last line that was written whole
std::atomic<int> g_lossReason{0};
std::atomic<bool> g_isMidLine{false};      // the file does not end with a newline
std::atomic<bool> g_isNextMidLine{false};  // the same of the new day's file that a handler opened before the log did

// Also counts down when the thread is cancelled in its write, because closing the log file waits for the count.
struct HandlerWriting {
    HandlerWriting() { ++elog_handlers_writing; }
    ~HandlerWriting() { --elog_handlers_writing; }
    HandlerWriting(const HandlerWriting&) = delete;
    HandlerWriting& operator=(const HandlerWriting&) = delete;
};

// Writes without the lock of stdio: the application may hold that lock while it logs, and this must not wait for it.
__attribute__((format(printf, 1, 2))) void complain(const char* format, ...) {
    char text[kMaxDirPath + 256];
    std::va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (length <= 0) return;
    const auto size = static_cast<std::size_t>(length);
    standard_write::write(STDERR_FILENO, text, size < sizeof text ? size : sizeof text - 1);
}

// Stop signals may find a thread anywhere: their handler writes to elog_file_fd without a lock. Closing waits until no
// handler uses the descriptor. Otherwise a handler's line could go into another file that has got the same number. A
// handler on this thread has ended before the thread continues here.
void closeFile() {
    elog_file_fd = -1;
    while (elog_handlers_writing != 0) ::sched_yield();
    if (elog_file_fp != nullptr) std::fclose(elog_file_fp);
    elog_file_fp = nullptr;
    g_isMidLine = false;
}

// The configured path with the date in the place of its last "%s"; a directory name may hold a '%' as well. Done by
// hand because a signal handler does it too.
void datedPath(char (&path)[ELOG_PATH_SIZE], long date) {
    const char* mark = nullptr;
    for (const char* p = local_cfg.name; *p != '\0'; ++p) {
        if (p[0] == '%' && p[1] == 's') mark = p;
    }
    LineBuilder text(path, sizeof path - 1);
    if (mark == nullptr) {
        text.append(local_cfg.name);
    } else {
        text.append(local_cfg.name, static_cast<std::size_t>(mark - local_cfg.name));
        text.appendNumber(date, 8);
        text.append(mark + 2);
    }
    path[text.size()] = '\0';
}

// Opens for appending; a signal handler may call it. Never returns one of the three standard descriptors. A daemon may
// have closed those, and a log file with such a number would get what others write to it.
int openToAppend(const char* path) {
    // O_NONBLOCK is for the open only: with a FIFO that nobody reads, the open must fail and not block the process.
    const int fd = safe_file::openAboveStandard(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, 0666);
    if (fd >= 0) ::fcntl(fd, F_SETFL, O_APPEND);
    return fd;
}

bool openFile(const char* path) {
    const int fd = openToAppend(path);
    if (fd >= 0) elog_file_fp = ::fdopen(fd, "ab");
    if (elog_file_fp == nullptr) {
        g_lossReason = errno;
        complain("Error! Create file %s fail, errmsg:%s. \n", path, std::strerror(g_lossReason));
        if (fd >= 0) ::close(fd);
        return false;
    }
    g_isMidLine = g_isNextMidLine.exchange(false);
    elog_file_fd = fd;
    return true;
}

// Continues after a first write that was short, interrupted or failed. @return false when not all of the text was
// written; the reason is kept
__attribute__((noinline)) bool appendRest(int fd, std::atomic<bool>& isMidLine, const char* text, std::size_t size,
                                          ssize_t written) {
    for (;;) {
        if (written == 0 || (written < 0 && errno != EINTR)) {
            g_lossReason = written < 0 ? errno : EIO;
            return false;
        }
        if (written > 0) {
            isMidLine = text[written - 1] != '\n';
            text += written;
            size -= static_cast<std::size_t>(written);
        }
        if (size == 0) return true;
        written = ::write(fd, text, size);
    }
}

// Appends all of a text, and notes in @p isMidLine how the file ends now. @return false when that fails
inline bool append(int fd, std::atomic<bool>& isMidLine, const char* text, std::size_t size) {
    const ssize_t written = ::write(fd, text, size);
    if (written != static_cast<ssize_t>(size)) return appendRest(fd, isMidLine, text, size, written);
    if (size != 0) isMidLine.store(text[size - 1] != '\n', std::memory_order_relaxed);
    return true;
}

// After lost lines: ends the line that was cut, and writes how many lines are missing. @return false when the disk does
// not take that either
bool endLoss(int fd) {
    if (g_isMidLine && !append(fd, g_isMidLine, "\n", 1)) return false;
    char line[ELOG_LINE_SIZE];
    const unsigned long lost = g_lostLines;
    const std::size_t size = ownWarning(line, sizeof line, __func__, __LINE__,
                                        "Lines lost in the log file: %lu, errmsg:%s.", lost,
                                        std::strerror(g_lossReason));
    if (!append(fd, g_isMidLine, line, size)) return false;
    g_lostLines -= lost;
    return true;
}

void appendLine(int fd, const char* buf, std::size_t size) {
    if (fd < 0) {
        if (elog_file_init_ok) ++g_lostLines;
        return;
    }
    const bool isReady = g_lostLines.load(std::memory_order_relaxed) == 0 || endLoss(fd);
    if (!isReady || !append(fd, g_isMidLine, buf, size)) ++g_lostLines;
}

void appendLineFromHandler(int fd, std::atomic<bool>& isMidLine, const char* buf, std::size_t size) {
    const bool isReady = g_lostLines == 0 || !isMidLine || append(fd, isMidLine, "\n", 1);
    if (!isReady || !append(fd, isMidLine, buf, size)) ++g_lostLines;
}

struct Rotating {
    Rotating() { is_rotating = true; }
    ~Rotating() { is_rotating = false; }
    Rotating(const Rotating&) = delete;
    Rotating& operator=(const Rotating&) = delete;
};

}  // namespace

int elog_mkdirs(const char* path, mode_t mode) {
    char buf[kMaxDirPath + 1];
    std::snprintf(buf, sizeof buf, "%s", path);
    for (char* p = buf; *p != '\0'; ++p) {
        if (*p != '/') continue;
        *p = '\0';
        if (::access(buf, F_OK) != 0) ::mkdir(buf, mode);
        *p = '/';
    }
    if (::access(buf, F_OK) != 0) ::mkdir(buf, mode);
    struct stat status;
    return ::stat(buf, &status) == 0 && S_ISDIR(status.st_mode) ? 0 : -1;
}

int elog_file_init(const char* dir, const char* name) {
    if (elog_file_init_ok) return 0;
    standard_streams::noteClosed();
    if (::access(dir, F_OK) == 0 && ::access(dir, W_OK) != 0) {
        complain("Error! file or dir: [%s] already exist and havn't write authority. use root try again ?\n", dir);
        return -1;
    }
    if (::access(dir, W_OK) != 0 && elog_mkdirs(dir, 0755) != 0) {
        complain("Error! make file or log dir:[%s] failed! Maybe no access authority.use root try again ?\n", dir);
        return -1;
    }
    time_cache = ::time(nullptr);
    time_zone = get_time_zone();

    ElogFileCfg cfg{};
    std::snprintf(cfg.name, sizeof cfg.name, "%s/%s_%%s.log", dir, name);
    cfg.max_size = kUnusedMaxSize;
    if (elog_file_config(&cfg) == -1) {
        complain("Error! log init fail.\n");
        return -1;
    }
    elog_file_init_ok = true;
    return 0;
}

int elog_file_config(const ElogFileCfg* cfg) {
    closeFile();
    if (cfg != &local_cfg) local_cfg = *cfg;
    std::tm local{};
    if (!local_time::breakDown(time_cache, local)) {
        g_lossReason = errno;
        return -1;
    }
    char path[ELOG_PATH_SIZE];
    datedPath(path, local_time::date(local));
    return openFile(path) ? elog_file_fd.load() : -1;
}

void elog_file_write(const char* buf, std::size_t size) {
    {
        const LogLock lock;
        if (!is_rotating) {
            if (!isSettled(time_cache.load(std::memory_order_relaxed))) elog_file_rotate_day();
            appendLine(elog_file_fd, buf, size);
            return;
        }
    }
    constexpr char kNotice[] = "======================log file is rotating, exit log file!===================\n";
    const standard_write::StdoutTurn out;
    out.write(kNotice, sizeof kNotice - 1);
}

void elog_file_write_from_handler(const char* buf, std::size_t size, long date) {
    if (!elog_file_init_ok) return;
    const long day = last_rotate_day;
    int ofItsDay = -1;
    if (day != 0 && date > day) {
        char path[ELOG_PATH_SIZE];
        datedPath(path, date);
        ofItsDay = openToAppend(path);
    }
    const HandlerWriting writing;
    const int fd = ofItsDay >= 0 ? ofItsDay : elog_file_fd.load();
    if (fd >= 0) {
        appendLineFromHandler(fd, ofItsDay >= 0 ? g_isNextMidLine : g_isMidLine, buf, size);
    } else {
        ++g_lostLines;
    }
    if (ofItsDay >= 0) ::close(ofItsDay);
}

void elog_renew_after_fork() { elog_handlers_writing = 0; }

void elog_file_rotate() {
    const LogLock lock;
    elog_file_rotate_day();
}

void elog_file_rotate_day() {
    const std::time_t lastStamp = time_cache.load(std::memory_order_relaxed);
    if (isSettled(lastStamp) || !elog_file_init_ok || !g_fileSecond.set(lastStamp)) return;
    zone_offsets::learn(lastStamp, g_fileSecond.utcOffset(), g_fileSecond.isNewZone());
    const long day = g_fileSecond.date();
    if (last_rotate_day == 0) last_rotate_day = day;
    if (day > last_rotate_day) {
        const Rotating rotating;
        // If the file of a day cannot be opened, the day does not count as begun. So the next line tries again.
        if (elog_file_config(&local_cfg) == -1) return;
        last_rotate_day = day;
    }
    g_settledSecond = lastStamp;
}

void elog_file_fini() {
    const LogLock lock;
    closeFile();
    g_isNextMidLine = false;
    g_lostLines = 0;
    g_fileSecond.forget();
    g_settledSecond = kNoSecond;
    elog_file_init_ok = false;
}
