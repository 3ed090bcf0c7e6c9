#include "src/log/LineBuilder.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace {

constexpr std::size_t kLongDigits = 20;

// The decimal text of a number, written backwards from the end of buf. Returns its first character.
const char* decimal(long value, int minDigits, char (&buf)[kLongDigits + 1]) {
    const bool negative = value < 0;
    unsigned long rest = negative ? 0UL - static_cast<unsigned long>(value) : static_cast<unsigned long>(value);
    char* p = buf + kLongDigits;
    *p = '\0';
    int digits = 0;
    do {
        *--p = static_cast<char>('0' + rest % 10);
        rest /= 10;
        ++digits;
    } while (rest != 0 || digits < minDigits);
    if (negative) *--p = '-';
    return p;
}

// Where the next character goes, and the last place that it may take.
struct Cursor {
    char* out;
    char* const last;

    bool put(const char* text, std::size_t length) {
        if (length > static_cast<std::size_t>(last - out)) return false;
        std::memcpy(out, text, length);
        out += length;
        return true;
    }
    template <typename Number>
    bool put(Number value, int base = 10) {
        const std::to_chars_result result = std::to_chars(out, last, value, base);
        out = result.ptr;
        return result.ec == std::errc();
    }
};

struct Arguments {
    std::va_list list;
};

// Handles the usual conversions, without flags, width or precision, and moves @p spec behind the conversion. False for
// all others.
inline bool putConversion(Cursor& cursor, const char*& spec, Arguments& args) {
    switch (*spec++) {
        case 's': {
            const char* text = va_arg(args.list, const char*);
            return text != nullptr && cursor.put(text, std::strlen(text));
        }
        case 'd': return cursor.put(va_arg(args.list, int));
        case 'u': return cursor.put(va_arg(args.list, unsigned int));
        case 'x': return cursor.put(va_arg(args.list, unsigned int), 16);
        case 'l': return *spec++ == 'u' && cursor.put(va_arg(args.list, unsigned long));
        default: return false;
    }
}

// False when the format needs vsnprintf or the text does not fit.
bool putPlain(Cursor& cursor, const char* format, Arguments& args) {
    for (;;) {
        const char* percent = ::strchrnul(format, '%');
        if (!cursor.put(format, static_cast<std::size_t>(percent - format))) return false;
        if (*percent == '\0') return true;
        format = percent + 1;
        if (!putConversion(cursor, format, args)) return false;
    }
}

}  // namespace

void LineBuilder::appendNumber(long value, int minDigits) {
    char buf[kLongDigits + 1];
    append(decimal(value, minDigits, buf));
}

void LineBuilder::appendHexByte(unsigned char byte) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    append(kDigits[byte >> 4]);
    append(kDigits[byte & 15]);
    append(' ');
}

void LineBuilder::appendTime(const std::tm& local) {
    appendNumber(local.tm_year + 1900L, 4);
    appendNumber(local.tm_mon + 1L, 2);
    appendNumber(local.tm_mday, 2);
    append('-');
    appendNumber(local.tm_hour, 2);
    append(':');
    appendNumber(local.tm_min, 2);
    append(':');
    appendNumber(local.tm_sec, 2);
}

void LineBuilder::appendLineNumber(long value) {
    char buf[kLongDigits + 1];
    const char* text = decimal(value, 1, buf);
    for (int i = 0; i < 4 && text[i] != '\0'; ++i) append(text[i]);
}

void LineBuilder::appendFormatted(const char* format, std::va_list args) {
    if (m_pos < m_size) {
        Cursor cursor{m_buf + m_pos, m_buf + m_size - 1};
        Arguments copy;
        va_copy(copy.list, args);
        const bool plain = putPlain(cursor, format, copy);
        va_end(copy.list);
        if (plain) {
            m_pos = static_cast<std::size_t>(cursor.out - m_buf);
            return;
        }
    }
    const int length = std::vsnprintf(m_buf + m_pos, m_size - m_pos, format, args);
    if (length < 0) {
        // A line that cannot be formatted takes the whole buffer. Blanks replace what an earlier line left there.
        std::memset(m_buf + m_pos, ' ', m_size - m_pos);
        m_pos = m_size;
        return;
    }
    m_pos = std::min(m_pos + static_cast<std::size_t>(length), m_size);
}

void breakDownWithOffset(std::time_t when, long utcOffset, std::tm& out) {
    constexpr long kDay = 86400;
    const long seconds = static_cast<long>(when) + utcOffset;
    long days = seconds / kDay;
    long ofDay = seconds % kDay;
    if (ofDay < 0) {
        ofDay += kDay;
        --days;
    }
    // Years counted from March in eras of 400: leap days then fall at the end of a year.
    const long shifted = days + 719468;
    const long era = (shifted >= 0 ? shifted : shifted - 146096) / 146097;
    const long dayOfEra = shifted - era * 146097;
    const long yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const long dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const long marchMonth = (5 * dayOfYear + 2) / 153;

    out = std::tm{};
    out.tm_mday = static_cast<int>(dayOfYear - (153 * marchMonth + 2) / 5 + 1);
    out.tm_mon = static_cast<int>(marchMonth < 10 ? marchMonth + 2 : marchMonth - 10);
    out.tm_year = static_cast<int>(yearOfEra + era * 400 + (out.tm_mon < 2 ? 1 : 0) - 1900);
    out.tm_hour = static_cast<int>(ofDay / 3600);
    out.tm_min = static_cast<int>(ofDay / 60 % 60);
    out.tm_sec = static_cast<int>(ofDay % 60);
}
