#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <ctime>

/// Builds one log line in a caller's buffer; what does not fit is cut. Everything but appendFormatted may be called
/// from a signal handler.
class LineBuilder {
public:
    LineBuilder(char* buf, std::size_t size) : m_buf(buf), m_size(size) {}

    void append(char c) {
        if (m_pos < m_size) m_buf[m_pos++] = c;
    }
    void append(const char* text) { append(text, std::strlen(text)); }
    void append(const char* text, std::size_t length) {
        if (length > m_size - m_pos) length = m_size - m_pos;
        std::memcpy(m_buf + m_pos, text, length);
        m_pos += length;
    }
    /// Begins an empty line with a head, whose first characters are @p start instead. The line must have room for it.
    template <std::size_t kHead, std::size_t kStart>
    void begin(const char* head, const char* start) {
        std::memcpy(m_buf, head, kHead);
        std::memcpy(m_buf, start, kStart);
        m_pos = kHead;
    }
    void appendNumber(long value, int minDigits);
    void appendHexByte(unsigned char byte);  ///< "%02X "
    void appendTime(const std::tm& local);   ///< YYYYMMDD-HH:MM:SS
    void appendLineNumber(long value);       ///< its first four characters: the field of the line has room for no more
    /// What vsnprintf makes of @p format, cut at the end of the buffer.
    void appendFormatted(const char* format, std::va_list args);

    std::size_t size() const { return m_pos; }

    /// Ends the line with a newline, in the buffer's last byte at the latest. @return its length, newline included.
    std::size_t finishLine() {
        if (m_pos == m_size) --m_pos;
        m_buf[m_pos] = '\n';
        return m_pos + 1;
    }

private:
    char* m_buf;
    std::size_t m_size;
    std::size_t m_pos = 0;
};

/// Calendar fields of @p when for a fixed offset from UTC, with arithmetic alone.
void breakDownWithOffset(std::time_t when, long utcOffset, std::tm& out);
