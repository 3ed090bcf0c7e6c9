#pragma once

#include <sys/types.h>
#include <cstddef>
#include <string>

/// Files that other processes or users can affect: descriptors that nobody mistakes for a standard stream, and files in
/// a directory that every user of the host may write to.
namespace safe_file {

/// Opens a file as open() does, but never as descriptor 0, 1 or 2: a daemon may have closed these. Then the file would
/// get what others write to standard output or standard error. A signal handler may call it.
/// @return the descriptor, or -1 with errno set
int openAboveStandard(const char* path, int flags, mode_t mode = 0);

/// Takes the free descriptors below 3 while it lives, for a call that opens files without openAboveStandard. Nobody can
/// write to them: they only name the root directory.
class Placeholders {
public:
    Placeholders();
    ~Placeholders();
    Placeholders(const Placeholders&) = delete;
    Placeholders& operator=(const Placeholders&) = delete;

private:
    int m_fds[3];
};

/// A file in a directory that everybody may write to. One process at a time writes it, from front to back.
class OutputFile {
public:
    OutputFile() = default;
    ~OutputFile() { close(); }
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /// Creates the file, or empties the existing one, whoever owns it. Opens only a regular file with no second hard
    /// link, and never through a symbolic link.
    /// @param refusal  why the file is not written although the system would let it; empty when the system does not
    bool open(const std::string& path, std::string& refusal);
    /// Needs no memory.
    /// @return null when all is written, otherwise the reason. After a failure, write no more: the file may end in the
    /// middle of @p data.
    const char* write(const char* data, std::size_t size);
    /// Drops what was written behind the first @p size bytes. @return whether that worked
    bool cut(std::size_t size);
    void close();

    bool isOpen() const { return m_fd >= 0; }
    std::size_t size() const { return m_size; }  ///< bytes written since open()

private:
    bool isOnlyWriter();

    int m_fd = -1;
    bool m_locked = false;
    std::size_t m_size = 0;
};

/// Reads a whole file that this user or root owns.
/// @param refusal  why an existing file is not trusted; empty when the system could not open or read it
/// @return whether it was read
bool readWhole(const std::string& path, std::string& content, std::string& refusal);

}  // namespace safe_file
