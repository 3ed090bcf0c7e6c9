#include "src/log/elog.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <string>

#include "src/log/LocalSecond.h"
#include "src/log/elog_mutex.h"
#include "src/util/LocalTime.h"

std::atomic<std::time_t> time_cache{0};
int time_zone = 0;
std::FILE* elog_file_fp = nullptr;
std::atomic<int> elog_file_fd{-1};
std::atomic<int> elog_handlers_writing{0};
bool elog_file_init_ok = false;
ElogFileCfg local_cfg{};
long last_rotate_day = 0;
bool is_rotating = false;

namespace {

constexpr std::uint64_t kUnusedMaxSize = 4294967294;
constexpr std::size_t kMaxDirPath = 512;  // longer paths are cut

// Stop signals may find a thread anywhere: their handler writes to elog_file_fd without a lock. Closing waits until no
// handler is at it, so that its line never reaches a descriptor that has become somebody else's. A handler on this very
// thread has run to its end before the thread comes here again.
void closeFile() {
    elog_file_fd = -1;
    while (elog_handlers_writing != 0) ::sched_yield();
    if (elog_file_fp != nullptr) std::fclose(elog_file_fp);
    elog_file_fp = nullptr;
}

// The configured path with the date in the place of its "%s". Done by hand: a directory name may hold a '%' as well.
std::string datedPath(const ElogFileCfg& cfg, const std::tm& local) {
    char date[16];
    std::snprintf(date, sizeof date, "%08u", local_time::date(local));
    std::string path = cfg.name;
    const std::size_t mark = path.rfind("%s");
    if (mark != std::string::npos) path.replace(mark, 2, date);
    if (path.size() >= ELOG_PATH_SIZE) path.resize(ELOG_PATH_SIZE - 1);
    return path;
}

// Opens for appending. Not one of the three standard descriptors, which a daemon may have closed: a log file there
// would get what others write to them.
int openAbove(const char* path) {
    // O_NONBLOCK for the open alone: a FIFO that nobody reads must fail here, not hold the process up.
    const int fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, 0666);
    if (fd < 0) return -1;
    ::fcntl(fd, F_SETFL, O_APPEND);
    if (fd > STDERR_FILENO) return fd;
    const int above = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    ::close(fd);
    return above;
}

bool openFile(const std::string& path) {
    const int fd = openAbove(path.c_str());
    if (fd >= 0) elog_file_fp = ::fdopen(fd, "ab");
    if (elog_file_fp == nullptr) {
        std::fprintf(stderr, "Error! Create file %s fail, errmsg:%s. \n", path.c_str(), std::strerror(errno));
        if (fd >= 0) ::close(fd);
        return false;
    }
    elog_file_fd = fd;
    return true;
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
    if (::access(dir, F_OK) == 0 && ::access(dir, W_OK) != 0) {
        std::fprintf(stderr,
                     "Error! file or dir: [%s] already exist and havn't write authority. use root try again ?\n", dir);
        return -1;
    }
    if (::access(dir, W_OK) != 0 && elog_mkdirs(dir, 0755) != 0) {
        std::fprintf(stderr,
                     "Error! make file or log dir:[%s] failed! Maybe no access authority.use root try again ?\n", dir);
        return -1;
    }
    time_cache = ::time(nullptr);
    time_zone = get_time_zone();

    ElogFileCfg cfg{};
    std::snprintf(cfg.name, sizeof cfg.name, "%s/%s_%%s.log", dir, name);
    cfg.max_size = kUnusedMaxSize;
    if (elog_file_config(&cfg) == -1) {
        std::fprintf(stderr, "Error! log init fail.\n");
        return -1;
    }
    elog_file_init_ok = true;
    return 0;
}

int elog_file_config(const ElogFileCfg* cfg) {
    closeFile();
    if (cfg != &local_cfg) local_cfg = *cfg;
    std::tm local{};
    if (!local_time::breakDown(time_cache, local)) return -1;
    return openFile(datedPath(local_cfg, local)) ? elog_file_fd.load() : -1;
}

void elog_file_write(const char* buf, std::size_t size) {
    const LogLock lock;
    elog_file_write_locked(buf, size);
}

void elog_file_write_locked(const char* buf, std::size_t size) {
    if (is_rotating) {
        std::puts("======================log file is rotating, exit log file!===================");
        return;
    }
    elog_file_rotate_day();
    elog_write_fully(elog_file_fd, buf, size);
}

void elog_file_rotate() {
    const LogLock lock;
    elog_file_rotate_day();
}

void elog_file_rotate_day() {
    if (!elog_file_init_ok) return;
    const LocalSecond* lastStamp = localSecondOf(time_cache.load(std::memory_order_relaxed));
    if (lastStamp == nullptr) return;
    const long day = lastStamp->date;
    if (last_rotate_day == 0) {
        last_rotate_day = day;
        return;
    }
    if (day <= last_rotate_day) return;
    const Rotating rotating;
    // A day whose file cannot be opened is not taken as begun, so that the next line tries again.
    if (elog_file_config(&local_cfg) != -1) last_rotate_day = day;
}

void elog_file_fini() {
    const LogLock lock;
    closeFile();
    forgetLocalSecond();
    elog_file_init_ok = false;
}
