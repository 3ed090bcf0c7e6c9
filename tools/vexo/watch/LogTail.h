#pragma once

#include <sys/types.h>
#include <cstddef>
#include <ctime>
#include <string>
#include <vector>

#include "tools/vexo/show/LogSource.h"

namespace vexo::watch {

/// The end of a process's log, and what it gets. The process may be another user's and hostile: only a regular file in
/// the directory itself is read, and only one that belongs to the process's user, or to root.
class LogTail {
public:
    LogTail() = default;
    ~LogTail();
    LogTail(LogTail&& other) noexcept;
    LogTail& operator=(LogTail&& other) noexcept;
    LogTail(const LogTail&) = delete;
    LogTail& operator=(const LogTail&) = delete;

    /// @param directory  a descriptor, or -1 with errno set; it is closed at the end
    LogTail(int directory, uid_t owner);

    /// Lines that have come since the last call; the first call gives those of the last 64 KB.
    std::vector<ShownLine> more();
    /// The name of the file, such as fpga_20261122.log; empty while there is none.
    const std::string& name() const { return m_name; }
    /// Why there is no log; empty while there is one, or may be one yet.
    const std::string& fault() const { return m_fault; }

private:
    bool openNewest();
    bool openNext();
    bool open(const std::string& name);
    void close();
    void take(const char* bytes, std::size_t size, std::vector<ShownLine>& lines);

    int m_directory = -1;
    uid_t m_owner = 0;
    int m_file = -1;
    std::string m_name;
    std::string m_fault;
    std::string m_next;  // the file of a later day has been seen: this one is read once more
    off_t m_offset = 0;
    std::string m_part;    // of a line
    bool m_isCut = false;  // m_part is not the beginning of its line
    ShownLine m_line{"", "", 255};
};

}  // namespace vexo::watch
