#include "tools/vexo/show/LogSource.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "tools/cli/Values.h"
#include "tools/vexo/Failure.h"
#include "tools/vexo/show/Harmless.h"
#include "tools/vexo/show/LogLine.h"

namespace vexo {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kChunk = 65536;
constexpr std::size_t kLongestLine = 65536;  // a log has no such line; another file may be one line of gigabytes
constexpr std::string_view kOwnPrefix = "fpga";
constexpr std::size_t kDateDigits = 8;
constexpr std::string_view kEnding = ".log";
constexpr off_t kFarthestFirstLine = 16 << 20;  // an application hardly prints more before it starts the library
constexpr std::size_t kLongestTag = 16;

struct DatedName {
    std::string prefix;  // "fpga"
    std::string date;    // "20261115", empty for another name
};

DatedName datedName(const fs::path& file) {
    const std::string name = file.filename().string();
    const std::size_t tail = kDateDigits + kEnding.size();
    if (name.size() <= tail || name.substr(name.size() - kEnding.size()) != kEnding) return {};
    const std::string date = name.substr(name.size() - tail, kDateDigits);
    const std::size_t mark = name.size() - tail - 1;
    if (name[mark] != '_' || date.find_first_not_of("0123456789") != std::string::npos) return {};
    return {name.substr(0, mark), date};
}

// Whether a line of the text begins with the tag of a level. @param isBegin  the text begins where a line does
bool hasLineOfLog(std::string_view text, bool isBegin) {
    for (std::size_t at = isBegin ? 0 : text.find('\n') + 1; isBegin || at != 0; at = text.find('\n', at) + 1) {
        if (parseLogLine(text.substr(at, kLongestTag)).level != kNoLevel) return true;
        isBegin = false;
    }
    return false;
}

// The log of the directory that `better` prefers, among those with the prefix.
template <typename Accepts, typename Better>
fs::path chooseLog(const fs::path& directory, const std::string& prefix, Accepts accepts, Better better) {
    fs::path chosen;
    std::string date;
    std::error_code error;
    for (fs::directory_iterator at(directory, error), end; !error && at != end; at.increment(error)) {
        const DatedName name = datedName(at->path());
        if (name.date.empty() || name.prefix != prefix || !accepts(name.date)) continue;
        if (!date.empty() && !better(name.date, date)) continue;
        chosen = at->path();
        date = name.date;
    }
    return chosen;
}

}  // namespace

LogSource::LogSource(std::string path, bool follows) : m_name(std::move(path)), m_follows(follows) {}

LogSource::LogSource(LogSource&& other) noexcept
    : m_name(std::move(other.m_name)),
      m_follows(other.m_follows),
      m_directory(std::move(other.m_directory)),
      m_file(std::move(other.m_file)),
      m_next(std::move(other.m_next)),
      m_fd(std::exchange(other.m_fd, -1)),
      m_offset(other.m_offset),
      m_buffer(std::move(other.m_buffer)),
      m_used(other.m_used),
      m_skips(other.m_skips),
      m_ended(other.m_ended),
      m_hasLine(other.m_hasLine),
      m_line(std::move(other.m_line)) {}

LogSource::~LogSource() { close(); }

void LogSource::close() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
}

void LogSource::open() {
    std::error_code error;
    if (fs::is_directory(m_name, error)) {
        m_directory = m_name;
        if (::access(m_name.c_str(), R_OK | X_OK) != 0)
            throw Failure(kUsage, harmless(m_name) + ": " + cli::faultOfReading(errno));
        const fs::path newest = newestLog();
        if (!newest.empty()) {
            openFile(newest, kFinding);
            if (!m_follows) requireLog(kFinding);
        } else if (!m_follows) {
            throw Failure(kFinding, m_name +
                                        ": no fpga_YYYYMMDD.log here\n"
                                        "Name the working directory of the program, or a log file.");
        }
        return;
    }
    openFile(m_name, kUsage);
    if (!m_follows) requireLog(kUsage);
    if (!datedName(m_name).date.empty())
        m_directory = fs::path(m_name).has_parent_path() ? fs::path(m_name).parent_path() : fs::path(".");
}

void LogSource::openFile(const fs::path& file, int failed) {
    // A FIFO without a writer would block a plain open.
    const int fd = ::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) throw Failure(failed, harmless(file.string()) + ": " + cli::faultOfReading(errno));
    struct stat status;
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(fd);
        throw Failure(failed, harmless(file.string()) + ": this is not a regular file");
    }
    close();
    m_fd = fd;
    m_file = file;
    m_offset = 0;
    m_skips = false;
}

// What an application prints goes before the first line of the library, so a log need not begin with one. An empty file
// is a log in which nothing has happened yet.
void LogSource::requireLog(int failed) const {
    std::string text;
    std::string begin;
    for (off_t offset = 0; offset < kFarthestFirstLine;) {
        const std::size_t left = text.size();
        text.resize(left + kChunk);
        const ssize_t got = ::pread(m_fd, &text[left], kChunk, offset);
        text.resize(left + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        if (offset == 0) begin = text.substr(0, text.find('\n'));
        if (got <= 0) break;
        offset += got;
        if (hasLineOfLog(text, offset == got)) return;
        text.erase(0, text.size() - std::min(text.size(), kLongestTag));  // a tag may lie across the border
    }
    if (begin.empty() && text.empty()) return;
    throw Failure(failed, harmless(m_file.string()) + ":1: this is no log of the library: it begins with " +
                              quotedBegin(begin) + ", and no line begins with a level such as [INFO   ]");
}

fs::path LogSource::newestLog() const {
    return chooseLog(
        m_directory, std::string(kOwnPrefix), [](const std::string&) { return true; },
        [](const std::string& a, const std::string& b) { return a > b; });
}

fs::path LogSource::laterLog() const {
    const DatedName now = datedName(m_file);
    return chooseLog(
        m_directory, now.prefix, [&](const std::string& date) { return date > now.date; },
        [](const std::string& a, const std::string& b) { return a < b; });
}

const ShownLine* LogSource::peek() {
    while (!m_hasLine) {
        if (takeLine()) break;
        if (!readMore()) return nullptr;
    }
    return &m_line;
}

// Makes the next line of what is in the buffer.
bool LogSource::takeLine() {
    const std::size_t end = m_buffer.find('\n', m_used);
    const bool whole = end != std::string::npos;
    const std::size_t length = (whole ? end : m_buffer.size()) - m_used;
    if (m_skips) {
        m_used += length + (whole ? 1 : 0);
        m_skips = !whole;
        return whole && takeLine();
    }
    if (!whole && length < kLongestLine && !(m_ended && length > 0)) return false;
    std::string text = m_buffer.substr(m_used, std::min(length, kLongestLine));
    if (length > kLongestLine || !whole) {
        m_skips = !whole && !m_ended;
        if (length >= kLongestLine) text += "...";
    }
    m_used += length + (whole ? 1 : 0);
    m_ended = m_ended && m_used < m_buffer.size();
    setLine(text);
    return true;
}

void LogSource::setLine(const std::string& text) {
    const LogLine parsed = parseLogLine(text);
    if (parsed.level != kNoLevel) m_line.level = parsed.level;
    if (parsed.time > m_line.time) m_line.time = parsed.time;
    m_line.text = text;
    m_hasLine = true;
}

// Reads more of the log into the buffer. False when there is nothing more at the moment.
bool LogSource::readMore() {
    m_buffer.erase(0, m_used);
    m_used = 0;
    if (m_fd < 0) return changeFile();
    const std::size_t before = m_buffer.size();
    m_buffer.resize(before + kChunk);
    ssize_t got;
    do {
        got = ::read(m_fd, &m_buffer[before], kChunk);
    } while (got < 0 && errno == EINTR);
    const int why = errno;
    m_buffer.resize(before + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    if (got < 0) throw Failure(kFinding, harmless(m_file.string()) + ": " + std::strerror(why));
    m_offset += got;
    if (got > 0) return true;
    if (m_follows) return startAgainIfCut() || changeFile();
    if (m_buffer.empty() || m_ended) return false;
    m_ended = true;  // what is left is a line without a line feed
    return true;
}

// Somebody emptied the file, or replaced it.
bool LogSource::startAgainIfCut() {
    struct stat here;
    struct stat there;
    if (::fstat(m_fd, &here) != 0) return false;
    const bool cut = here.st_size < m_offset;
    const bool replaced = ::stat(m_file.c_str(), &there) == 0 &&
                          (there.st_ino != here.st_ino || there.st_dev != here.st_dev);
    if (!cut && !replaced) return false;
    m_buffer.clear();
    openFile(m_file, kFinding);
    return true;
}

// Goes on to the file of a later day. The program writes the last lines of a day before it opens the next file, so the
// old file is read once more after the new one was seen.
bool LogSource::changeFile() {
    if (!m_follows || m_directory.empty()) return false;
    if (m_fd < 0) {
        const fs::path newest = newestLog();
        if (newest.empty()) return false;
        openFile(newest, kFinding);
        return true;
    }
    if (m_next.empty()) {
        m_next = laterLog();
        return !m_next.empty();
    }
    openFile(std::exchange(m_next, fs::path()), kFinding);
    if (!m_buffer.empty()) m_buffer += '\n';
    return true;
}

}  // namespace vexo
