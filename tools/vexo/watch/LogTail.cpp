#include "tools/vexo/watch/LogTail.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "tools/vexo/show/LogLine.h"

namespace vexo::watch {
namespace {

constexpr std::string_view kForm = "fpga_dddddddd.log";
constexpr off_t kFirstBytes = 65536;
constexpr std::size_t kMostBytes = 1 << 20;  // of one call: a view shows only the last lines anyway
constexpr std::size_t kLongestLine = 2 * kLongestLogLine;

bool isLogName(std::string_view name) {
    if (name.size() != kForm.size()) return false;
    return std::equal(name.begin(), name.end(), kForm.begin(),
                      [](char c, char form) { return form == 'd' ? c >= '0' && c <= '9' : c == form; });
}

std::string todaysName() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    char name[32];
    std::strftime(name, sizeof name, "fpga_%Y%m%d.log", &local);
    return name;
}

}  // namespace

LogTail::LogTail(int directory, uid_t owner) : m_directory(directory), m_owner(owner) {
    if (m_directory < 0) m_fault = std::string("the log cannot be read: ") + std::strerror(errno);
}

LogTail::LogTail(LogTail&& other) noexcept { *this = std::move(other); }

LogTail& LogTail::operator=(LogTail&& other) noexcept {
    std::swap(m_directory, other.m_directory);
    std::swap(m_owner, other.m_owner);
    std::swap(m_file, other.m_file);
    std::swap(m_name, other.m_name);
    std::swap(m_fault, other.m_fault);
    std::swap(m_next, other.m_next);
    std::swap(m_offset, other.m_offset);
    std::swap(m_part, other.m_part);
    std::swap(m_isCut, other.m_isCut);
    std::swap(m_line, other.m_line);
    return *this;
}

LogTail::~LogTail() {
    close();
    if (m_directory >= 0) ::close(m_directory);
}

void LogTail::close() {
    if (m_file >= 0) ::close(m_file);
    m_file = -1;
}

bool LogTail::openNewest() {
    const int again = ::openat(m_directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* const listing = again >= 0 ? ::fdopendir(again) : nullptr;
    if (listing == nullptr) {
        m_fault = std::string("the log cannot be read: ") + std::strerror(errno);
        if (again >= 0) ::close(again);
        return false;
    }
    std::string newest;
    while (const dirent* const entry = ::readdir(listing))
        if (isLogName(entry->d_name) && newest < entry->d_name) newest = entry->d_name;
    ::closedir(listing);
    return !newest.empty() && open(newest);
}

bool LogTail::open(const std::string& name) {
    const auto refuse = [&](const std::string& why) {
        m_fault = name + ": " + why;
        return false;
    };
    // A FIFO without a writer would block a plain open.
    const int fd = ::openat(m_directory, name.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return refuse(std::strerror(errno));
    struct stat status;
    const bool isRead = ::fstat(fd, &status) == 0;
    const bool isFile = isRead && S_ISREG(status.st_mode);
    if (!isFile || (status.st_uid != m_owner && status.st_uid != 0)) {
        ::close(fd);
        return refuse(isFile ? "it belongs to another user" : "this is no regular file");
    }
    const bool isFirst = m_name.empty();
    close();
    m_file = fd;
    m_name = name;
    m_fault.clear();
    m_offset = isFirst ? std::max<off_t>(0, status.st_size - kFirstBytes) : 0;
    m_part.clear();
    m_isCut = m_offset > 0;
    return true;
}

// The program writes the last lines of a day before it opens the next file. So the old file is read once more after
// the new one was seen.
bool LogTail::openNext() {
    if (!m_next.empty()) return open(std::exchange(m_next, std::string()));
    const std::string today = todaysName();
    struct stat status;
    const bool isThere = today > m_name && ::fstatat(m_directory, today.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (isThere) m_next = today;
    return isThere;
}

void LogTail::take(const char* bytes, std::size_t size, std::vector<ShownLine>& lines) {
    for (const char* const end = bytes + size; bytes != end;) {
        const char* const line = std::find(bytes, end, '\n');
        m_part.append(bytes, std::min(static_cast<std::size_t>(line - bytes), kLongestLine - m_part.size()));
        if (line == end) return;
        bytes = line + 1;
        if (!m_isCut) {
            const LogLine parsed = parseLogLine(m_part);
            if (parsed.level != kNoLevel) m_line.level = parsed.level;
            m_line.time = parsed.time;
            m_line.text = m_part;
            lines.push_back(m_line);
        }
        m_isCut = false;
        m_part.clear();
    }
}

std::vector<ShownLine> LogTail::more() {
    std::vector<ShownLine> lines;
    if (m_directory < 0 || (m_file < 0 && !openNewest())) return lines;
    std::vector<char> bytes(static_cast<std::size_t>(kFirstBytes));
    for (std::size_t taken = 0; taken < kMostBytes;) {
        const ssize_t got = ::pread(m_file, bytes.data(), bytes.size(), m_offset);
        if (got > 0) {
            take(bytes.data(), static_cast<std::size_t>(got), lines);
            m_offset += got;
            taken += static_cast<std::size_t>(got);
            continue;
        }
        struct stat status;
        if (::fstat(m_file, &status) == 0 && status.st_size < m_offset) {  // somebody emptied it
            m_offset = 0;
            m_part.clear();
            m_isCut = false;
            continue;
        }
        if (!openNext()) break;
    }
    return lines;
}

}  // namespace vexo::watch
