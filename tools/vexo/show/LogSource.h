#pragma once

#include <sys/types.h>
#include <cstdint>
#include <filesystem>
#include <string>

namespace vexo {

/// A line as it is shown: a line without brackets of its own counts with the one before it.
struct ShownLine {
    std::string text;
    std::string time;    ///< never before that of the line before it
    std::uint8_t level;  ///< kNoLevel before the first line with brackets
};

/// The lines of a log: of one file, and of the files of the later days in its directory.
class LogSource {
public:
    /// @param path    a file, or the working directory of a program: then its newest log counts
    /// @param follows whether the log may still grow
    LogSource(std::string path, bool follows);
    ~LogSource();
    LogSource(LogSource&& other) noexcept;
    LogSource(const LogSource&) = delete;
    LogSource& operator=(const LogSource&) = delete;

    /// Opens the log. Throws Failure with the reason when it cannot be read or is no log: with kUsage when the path is
    /// wrong. For a source that follows, a directory without a log is fine, and so is a file that may become one.
    void open();
    bool isOpen() const { return m_fd >= 0; }
    const std::string& name() const { return m_name; }  ///< as the user gave it

    /// The next line, or null when there is none at the moment.
    const ShownLine* peek();
    /// Goes on behind the line that peek() returned.
    void drop() { m_hasLine = false; }

private:
    void openFile(const std::filesystem::path& file, int failed);
    void requireLog(int failed) const;
    void close();
    bool readMore();
    bool startAgainIfCut();
    bool changeFile();
    bool takeLine();
    void setLine(const std::string& text);
    std::filesystem::path newestLog() const;
    std::filesystem::path laterLog() const;

    std::string m_name;
    bool m_follows;
    std::filesystem::path m_directory;  // where later logs appear; empty: nowhere
    std::filesystem::path m_file;       // the open file
    std::filesystem::path m_next;       // known to follow it, once it is read to its end
    int m_fd = -1;
    off_t m_offset = 0;
    std::string m_buffer;
    std::size_t m_used = 0;  // bytes of the buffer that have become lines
    bool m_skips = false;    // the rest of a line that was too long
    bool m_ended = false;    // the file has been read to its end, and does not grow
    bool m_hasLine = false;
    ShownLine m_line{"", "", 255};
};

}  // namespace vexo
