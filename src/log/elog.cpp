#include "src/log/elog.h"

#include <unistd.h>
#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "src/log/LineBuilder.h"
#include "src/log/LinePrefix.h"
#include "src/log/LocalSecond.h"
#include "src/log/StandardWrite.h"
#include "src/log/ZoneOffsets.h"
#include "src/log/elog_mutex.h"
#include "src/util/LocalTime.h"

elog_assert_hook_t elog_assert_hook = nullptr;

namespace {

constexpr char kLogFile[] = "elog";

// Atomic because a signal handler reads them at any instruction of a thread that sets them.
struct ElogRecord {
    std::atomic<std::uint8_t> filter_level{0};
    std::atomic<std::uint64_t> format_masks[ELOG_LVL_TOTAL]{};
    std::atomic<bool> output_enabled{false};
};

ElogRecord elog;
char log_buf_huge[ELOG_HUGE_SIZE];  // used by the thread that holds the lock of standard output

constexpr std::size_t kLevelTagSize = 9;
constexpr char level_output_info[ELOG_LVL_TOTAL][kLevelTagSize + 1] = {
    "[ASSERT ]", "[ERROR  ]", "[WARN   ]", "[EVENT  ]", "[INFO   ]", "[DEBUG  ]", "[VERBOSE]",
};

constexpr std::uint64_t kBriefFormat = ELOG_FMT_LVL | ELOG_FMT_TAG | ELOG_FMT_TIME;
constexpr std::uint64_t kDebugFormat = 255 & ~ELOG_FMT_FUNC;
constexpr std::uint64_t kDefaultMasks[ELOG_LVL_TOTAL] = {
    255, kBriefFormat, kBriefFormat, kBriefFormat, kBriefFormat, kDebugFormat, kDebugFormat,
};

struct ErrnoKeeper {
    const int saved = errno;
    ErrnoKeeper() = default;
    ~ErrnoKeeper() { errno = saved; }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
};

bool isWritten(std::uint8_t level) {
    return elog.output_enabled.load(std::memory_order_relaxed) && level < ELOG_LVL_TOTAL &&
           level <= elog.filter_level.load(std::memory_order_relaxed);
}

void appendTimeGroup(LineBuilder& line, std::uint64_t mask, const char* time) {
    line.append('[');
    if (mask & ELOG_FMT_TIME) {
        if (time != nullptr) line.append(time, LocalSecond::kTextSize);
        if (mask & (ELOG_FMT_PID | ELOG_FMT_TID)) line.append(' ');
    }
    if (mask & ELOG_FMT_PID) {
        line.append("pid:");
        line.appendNumber(getpid(), 4);
        if (mask & ELOG_FMT_TID) line.append(' ');
    }
    if (mask & ELOG_FMT_TID) {
        line.append("tid:");
        line.appendNumber(gettid(), 4);
    }
    line.append(']');
}

void appendSourceGroup(LineBuilder& line, std::uint64_t mask, const char* file, const char* func, long number) {
    line.append('(');
    if (mask & ELOG_FMT_FILE) {
        line.append(trunc_filename(file));
        if (mask & ELOG_FMT_FUNC) {
            line.append(' ');
        } else if (mask & ELOG_FMT_LINE) {
            line.append(':');
        }
    }
    if (mask & ELOG_FMT_FUNC) {
        line.append(func);
        if (mask & ELOG_FMT_LINE) line.append(':');
    }
    if (mask & ELOG_FMT_LINE) line.appendLineNumber(number);
    line.append(')');
}

// Everything before the message. Safe in a signal handler. @p time is null when the time cannot be had.
void appendPrefix(LineBuilder& line, std::uint8_t level, const char* tag, const char* file, const char* func,
                  long number, const char* time) {
    const std::uint64_t mask = elog.format_masks[level].load(std::memory_order_relaxed);
    if (mask & ELOG_FMT_LVL) line.append(level_output_info[level], kLevelTagSize);
    if (mask & (ELOG_FMT_TIME | ELOG_FMT_PID | ELOG_FMT_TID)) appendTimeGroup(line, mask, time);
    if (mask & ELOG_FMT_TAG) {
        line.append('[');
        line.append(tag);
        line.append(']');
    }
    if (mask & (ELOG_FMT_FILE | ELOG_FMT_FUNC | ELOG_FMT_LINE)) appendSourceGroup(line, mask, file, func, number);
}

// Sets the second of a line and time_cache to now. @return false when the local time cannot be had
inline bool stampTime(LocalSecond& second) {
    const std::time_t now = ::time(nullptr);
    if (!second.set(now)) return false;
    time_cache.store(now, std::memory_order_relaxed);
    return true;
}

// The prefix of nearly all lines, for the usual settings only. @return false when the line needs another prefix
inline bool beginBriefLine(LineBuilder& text, LocalSecond& second, std::uint8_t level, const char* tag) {
    if (elog.format_masks[level].load(std::memory_order_relaxed) != kBriefFormat) return false;
    if (std::strcmp(tag, LocalSecond::kTag) != 0 || !stampTime(second)) return false;
    text.begin<LocalSecond::kHeadSize, kLevelTagSize>(second.head(), level_output_info[level]);
    return true;
}

// The part of a line before its message, with the current time.
__attribute__((noinline)) void beginLine(LineBuilder& text, LocalSecond& second, std::uint8_t level, const char* tag,
                                         const char* file, const char* func, long line) {
    const std::uint64_t mask = elog.format_masks[level].load(std::memory_order_relaxed);
    const bool isTimed = (mask & ELOG_FMT_TIME) != 0 && stampTime(second);
    appendPrefix(text, level, tag, file, func, line, isTimed ? second.text() : nullptr);
}

// What both raw outputs do. They write as many characters as the formatted text has, up to the buffer's size.
void rawOutput(char* buf, std::size_t size, const char* format, std::va_list args) {
    const int length = std::vsnprintf(buf, size, format, args);
    if (length <= 0) return;
    const auto wanted = static_cast<std::size_t>(length);
    elog_port_output(buf, wanted < size ? wanted : size);
}

void hexdumpLine(const char* name, unsigned int width, const unsigned char* data, unsigned int offset,
                 unsigned int size) {
    char head[ELOG_LINE_SIZE];
    std::snprintf(head, sizeof head, "[DEBUG  ]HEX %s: %04X-%04X: ", name, offset, offset + width);
    char buf[ELOG_LINE_SIZE];
    LineBuilder line(buf, sizeof buf);
    line.append(head);
    for (unsigned int i = 0; i < width; ++i) {
        if (offset + i < size) {
            line.appendHexByte(data[offset + i]);
        } else {
            line.append("   ");
        }
        if ((i + 1) % 8 == 0) line.append(' ');
    }
    line.append("  ");
    for (unsigned int i = 0; i < width && offset + i < size; ++i) {
        const unsigned char byte = data[offset + i];
        line.append(byte >= 32 && byte <= 126 ? static_cast<char>(byte) : '.');
    }
    elog_port_output(buf, line.finishLine());
}

}  // namespace

int elog_init(const char* dir, const char* name) {
    const int result = elog_file_init(dir, name);
    if (result != 0) return result;
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    for (std::size_t level = 0; level < ELOG_LVL_TOTAL; ++level) elog.format_masks[level] = kDefaultMasks[level];
    elog.filter_level = ELOG_LVL_VERBOSE;
    return 0;
}

void elog_start() {
    elog_set_output_enabled(true);
    elog_output(ELOG_LVL_INFO, "log", kLogFile, "elog_start", 213, "log is initialized successfully.");
}

void elog_fini() { elog_port_fini(); }

void elog_output(std::uint8_t level, const char* tag, const char* file, const char* func, long line, const char* format,
                 ...) {
    if (!isWritten(level)) return;
    const ErrnoKeeper keep;
    const standard_write::StdoutTurn out;
    char buf[ELOG_LINE_SIZE];
    LineBuilder text(buf, sizeof buf);
    if (!out.isMine()) {
        const LogLock lock;
        beginLine(text, g_fileSecond, level, tag, file, func, line);
    } else if (!beginBriefLine(text, g_lineSecond, level, tag)) {
        beginLine(text, g_lineSecond, level, tag, file, func, line);
    }
    std::va_list args;
    va_start(args, format);
    text.appendFormatted(format, args);
    va_end(args);
    const std::size_t size = text.finishLine();
    out.write(buf, size);
    elog_file_write(buf, size);
}

std::size_t ownWarning(char* buf, std::size_t size, const char* func, long line, const char* format, ...) {
    if (!isWritten(ELOG_LVL_WARN)) return 0;
    LineBuilder text(buf, size);
    beginLine(text, g_fileSecond, ELOG_LVL_WARN, "log", kLogFile, func, line);
    std::va_list args;
    va_start(args, format);
    text.appendFormatted(format, args);
    va_end(args);
    return text.finishLine();
}

void elog_output_from_handler(std::uint8_t level, const char* tag, const char* file, const char* func, long line,
                              const char* format, int value) {
    if (!isWritten(level)) return;
    const ErrnoKeeper keep;

    std::tm local;
    const std::time_t now = ::time(nullptr);
    breakDownWithOffset(now, zone_offsets::at(now), local);
    char time[LocalSecond::kTextSize];
    LineBuilder(time, sizeof time).appendTime(local);
    char buf[ELOG_LINE_SIZE];
    LineBuilder text(buf, sizeof buf);
    appendPrefix(text, level, tag, file, func, line, time);
    for (const char* p = format; *p != '\0'; ++p) {
        if (p[0] == '%' && p[1] == 'd') {
            text.appendNumber(value, 1);
            ++p;
        } else {
            text.append(*p);
        }
    }
    elog_port_output_from_handler(buf, text.finishLine(), local_time::date(local));
}

void elog_raw(const char* format, ...) {
    if (!elog_get_output_enabled()) return;
    const ErrnoKeeper keep;
    char buf[ELOG_LINE_SIZE];
    std::va_list args;
    va_start(args, format);
    rawOutput(buf, sizeof buf, format, args);
    va_end(args);
}

void elog_raw_huge(const char* format, ...) {
    if (!elog_get_output_enabled()) return;
    const ErrnoKeeper keep;
    const standard_write::StdoutTurn out;
    std::va_list args;
    va_start(args, format);
    if (out.isMine()) {
        rawOutput(log_buf_huge, sizeof log_buf_huge, format, args);
    } else {
        char buf[ELOG_LINE_SIZE];  // a stuck thread may hold the large buffer; a cut text is better than none
        rawOutput(buf, sizeof buf, format, args);
    }
    va_end(args);
}

void elog_hexdump(const char* name, std::uint8_t width, const void* buf, std::uint16_t size) {
    if (!isWritten(ELOG_LVL_DEBUG) || width == 0) return;
    const ErrnoKeeper keep;
    const standard_write::StdoutTurn out;  // keeps the lines together
    for (unsigned int offset = 0; offset < size; offset += width)
        hexdumpLine(name, width, static_cast<const unsigned char*>(buf), offset, size);
}

void elog_set_output_enabled(bool enabled) { elog.output_enabled = enabled; }

bool elog_get_output_enabled() { return elog.output_enabled; }

void elog_set_filter_lvl(std::uint8_t level) { elog.filter_level = level; }

void elog_set_fmt(std::uint8_t level, std::uint64_t mask) {
    if (level < ELOG_LVL_TOTAL) elog.format_masks[level] = mask;
}

void elog_assert_set_hook(elog_assert_hook_t hook) { elog_assert_hook = hook; }

const char* trunc_filename(const char* path) {
    const char* slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

int get_time_zone() {
    std::tm epoch{};
    local_time::breakDown(0, epoch);
    return epoch.tm_hour >= 13 ? epoch.tm_hour - 24 : epoch.tm_hour;
}
