#pragma once

#include <sys/types.h>
#include <cstddef>

/// The text of an ini file, whatever the path names: a file, a pipe, a FIFO, a terminal, a device. Sources that may
/// never end are refused: a FIFO that nobody writes to, a device that has nothing to read, an endless device.
class IniSource {
public:
    IniSource() = default;
    ~IniSource();
    IniSource(const IniSource&) = delete;
    IniSource& operator=(const IniSource&) = delete;

    /// @return whether the path can be opened; failure() tells what else is wrong
    bool open(const char* path);
    /// Reads up to the next line feed as fgets does. @param room  of @p line, its terminator included
    /// @return false at the end, or when the rest cannot be read
    bool readLine(char* line, std::size_t room);
    /// Whether the last readLine() reached the end of the text.
    bool isAtEnd() const { return m_atEnd; }
    /// Why the text could not be read to its end; null while nothing is wrong.
    const char* failure() const { return m_failure; }

private:
    enum class Kind { kRegular, kDirectory, kFifo, kPipe, kTerminal, kDevice };

    static Kind kindOf(int fd);
    bool fill();
    ssize_t readBlock();
    bool take(ssize_t got);

    static constexpr std::size_t kBlock = 16384;

    int m_fd = -1;
    Kind m_kind = Kind::kRegular;
    bool m_atEnd = false;
    const char* m_failure = nullptr;
    std::size_t m_total = 0;  ///< bytes read so far
    std::size_t m_next = 0;   ///< in the block
    std::size_t m_size = 0;   ///< of the block
    char m_block[kBlock];
};
