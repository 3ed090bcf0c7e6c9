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
    ~OutputFile() { close(); }
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /// Creates the file or empties it; one that another ordinary user left is replaced. Until it is closed no other
    /// process can open it so.
    /// @return false when that cannot be done
    bool open(const std::string& path);
    /// @return false, with errno set, for the write that failed; later writes do nothing and return true
    bool write(const char* data, std::size_t size);
    void close();

private:
    int m_fd = -1;
};

/// Reads a whole file that this user or root owns.
/// @param refusal  why a file that is there is not believed; empty when the system could not open or read it
/// @return whether it was read
bool readWhole(const std::string& path, std::string& content, std::string& refusal);

}  // namespace safe_file
