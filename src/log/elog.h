#pragma once

#include <sys/types.h>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

/// The log core: formats one line a message, writes it to standard output and appends it to
/// <dir>/<name>_YYYYMMDD.log, a new file each local calendar day. All state is process-global.
/// Any thread may log; lines from several threads never mix. Locks, in this order: standard output's, the log's.

constexpr std::uint8_t ELOG_LVL_ASSERT = 0;
constexpr std::uint8_t ELOG_LVL_ERROR = 1;
constexpr std::uint8_t ELOG_LVL_WARN = 2;
constexpr std::uint8_t ELOG_LVL_EVENT = 3;
constexpr std::uint8_t ELOG_LVL_INFO = 4;
constexpr std::uint8_t ELOG_LVL_DEBUG = 5;
constexpr std::uint8_t ELOG_LVL_VERBOSE = 6;
constexpr std::size_t ELOG_LVL_TOTAL = 7;

constexpr std::uint64_t ELOG_FMT_LVL = 1;
constexpr std::uint64_t ELOG_FMT_TAG = 2;
constexpr std::uint64_t ELOG_FMT_TIME = 4;
constexpr std::uint64_t ELOG_FMT_PID = 8;
constexpr std::uint64_t ELOG_FMT_TID = 16;
constexpr std::uint64_t ELOG_FMT_FILE = 32;
constexpr std::uint64_t ELOG_FMT_FUNC = 64;
constexpr std::uint64_t ELOG_FMT_LINE = 128;

constexpr std::size_t ELOG_LINE_SIZE = 2048;     ///< bytes of a line, its newline included
constexpr std::size_t ELOG_HUGE_SIZE = 2048000;  ///< bytes that one elog_raw_huge call can write
constexpr std::size_t ELOG_PATH_SIZE = 256;

/// Opens the log file of today in @p dir (created when missing, mode 0755), makes standard output unbuffered and
/// sets every level's format. Output stays disabled until elog_start.
/// @return 0, or -1 with the reason on standard error.
int elog_init(const char* dir, const char* name);
/// Enables output and writes the first line.
void elog_start();
/// Closes the log file. Output stays enabled: later lines reach standard output only.
void elog_fini();

/// Writes one line. Dropped without a trace while output is disabled or when @p level is above the filter level.
/// A line of more than ELOG_LINE_SIZE bytes is cut there. Leaves errno as it found it.
void elog_output(std::uint8_t level, const char* tag, const char* file, const char* func, long line, const char* format,
                 ...) __attribute__((format(printf, 6, 7)));
/// The same for a signal handler: takes no lock, and calls only what a handler may call. The line goes to standard
/// output only if it can be written without waiting.
/// @param format  text with at most one "%d", which @p value replaces
void elog_output_from_handler(std::uint8_t level, const char* tag, const char* file, const char* func, long line,
                              const char* format, int value);
/// The formatted text alone: no prefix, no newline, no level check; at most ELOG_LINE_SIZE bytes.
void elog_raw(const char* format, ...) __attribute__((format(printf, 1, 2)));
/// The same for at most ELOG_HUGE_SIZE bytes.
void elog_raw_huge(const char* format, ...) __attribute__((format(printf, 1, 2)));
/// Hex dump of @p size bytes at DEBUG level, @p width bytes a line. A width of 0 writes nothing.
void elog_hexdump(const char* name, std::uint8_t width, const void* buf, std::uint16_t size);

void elog_set_output_enabled(bool enabled);
bool elog_get_output_enabled();
void elog_set_filter_lvl(std::uint8_t level);
void elog_set_fmt(std::uint8_t level, std::uint64_t mask);  ///< a level above 6 is ignored

using elog_assert_hook_t = void (*)(const char* expr, const char* func, std::size_t line);
extern elog_assert_hook_t elog_assert_hook;  ///< kept for the application's own assertions; the core never calls it
void elog_assert_set_hook(elog_assert_hook_t hook);

const char* trunc_filename(const char* path);  ///< the part behind the last "/"
int get_time_zone();                           ///< local UTC offset in whole hours, -11 to 12
/// Creates every missing directory along @p path (512 characters at most).
/// @return 0 when @p path is a directory afterwards, even if a step on the way failed.
int elog_mkdirs(const char* path, mode_t mode);

// ---- file side ----

struct ElogFileCfg {
    char name[ELOG_PATH_SIZE];  ///< path of the log file with one "%s" where the date goes
    std::uint64_t max_size;     ///< set, never read: the file switches by day alone
};

extern std::atomic<std::time_t> time_cache;  ///< of the last line that has a time; chooses the log file's day
extern int time_zone;
extern std::FILE* elog_file_fp;
extern std::atomic<int> elog_file_fd;           ///< -1 while no file is open
extern std::atomic<int> elog_handlers_writing;  ///< signal handlers that use elog_file_fd at this moment
extern std::atomic<bool> elog_file_init_ok;
extern ElogFileCfg local_cfg;
extern std::atomic<long> last_rotate_day;  ///< YYYYMMDD of the open file, 0 before the first write
extern bool is_rotating;

int elog_file_init(const char* dir, const char* name);
int elog_file_config(const ElogFileCfg* cfg);  ///< @return the descriptor of the file, -1 on failure
void elog_file_write(const char* buf, std::size_t size);
/// The same from inside a signal handler. When @p date (YYYYMMDD) is later than the day of the open file, the line goes
/// into the file of its own day. The log itself switches files with its next line.
void elog_file_write_from_handler(const char* buf, std::size_t size, long date);
void elog_file_rotate();
void elog_file_rotate_day();
void elog_file_fini();

// ---- port: standard output and the file ----

int elog_port_init(const char* dir, const char* name);
void elog_port_fini();
void elog_port_output(const char* buf, std::size_t size);
/// Writes a finished line of the day @p date to both places from inside a signal handler.
void elog_port_output_from_handler(const char* buf, std::size_t size, long date);

/// In a child of fork(): resets the count of handlers that were running in other threads of the parent.
void elog_renew_after_fork();
