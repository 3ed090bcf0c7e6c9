#pragma once

#include <cstdarg>
#include <cstddef>
#include <ctime>

/// Builds one log line in a caller's buffer; what does not fit is cut. Everything but AppendFormatted may be called
/// from a signal handler.
class LineBuilder {
public:
    LineBuilder(char* buf, std::size_t size) : m_buf(buf), m_size(size) {}

    void Append(char c) {
        if (m_pos < m_size) m_buf[m_pos++] = c;
    }
    void Append(const char* text) {
        while (*text != '\0' && m_pos < m_size) m_buf[m_pos++] = *text++;
    }
    void AppendNumber(long value, int minDigits);
    void AppendHexByte(unsigned char byte);  ///< "%02X "
    void AppendTime(const std::tm& local);   ///< YYYYMMDD-HH:MM:SS
    void AppendLineNumber(long value);       ///< its first four characters: the field of the line has room for no more
    void AppendFormatted(const char* format, std::va_list args);

    /// Ends the line with a newline, in the buffer's last byte at the latest. @return its length, newline included.
    std::size_t FinishLine();

private:
    char* m_buf;
    std::size_t m_size;
    std::size_t m_pos = 0;
};

/// Calendar fields of @p when for a fixed offset from UTC, with arithmetic alone.
void BreakDownWithOffset(std::time_t when, long utcOffset, std::tm& out);
