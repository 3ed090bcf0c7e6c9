#pragma once

#include <cstddef>
#include <string>

/// Files in a directory that every user of the host may write to: a path there is opened only when it names a regular
/// file itself, never through a symbolic link, and what other ordinary users left there is not believed.
namespace safe_file {

/// A file written front to back. One failed or short write ends it: nothing is written behind a gap.
class OutputFile {
public:
    OutputFile() = default;
    ~OutputFile() { Close(); }
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /// Creates or truncates the file. @return an empty text, or why it was not opened
    std::string Open(const std::string& path);
    /// @return false, with errno set, for the write that failed; later writes do nothing and return true
    bool Write(const char* data, std::size_t size);
    void Close();

private:
    int m_fd = -1;
};

inline constexpr char kMissing[] = "it does not exist";

/// Reads a whole file that this user or root owns. @return an empty text, or why it was not read (kMissing when there
/// is none)
std::string ReadWhole(const std::string& path, std::string& content);

}  // namespace safe_file
