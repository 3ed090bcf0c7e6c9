#include <gtest/gtest.h>

#include <climits>
#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "src/log/LineBuilder.h"

namespace {

/// A line of @p size bytes, line end included, after a prefix.
__attribute__((format(printf, 3, 4))) std::string Line(std::size_t size, const std::string& prefix, const char* format,
                                                       ...) {
    std::vector<char> buf(size + 1, '\x7f');
    LineBuilder line(buf.data(), size);
    line.append(prefix.c_str());
    std::va_list args;
    va_start(args, format);
    line.appendFormatted(format, args);
    va_end(args);
    const std::size_t length = line.finishLine();
    EXPECT_EQ(buf[size], '\x7f') << "wrote behind the buffer";
    return std::string(buf.data(), length);
}

/// The same by snprintf: what is too long is cut before the line end.
__attribute__((format(printf, 3, 4))) std::string Reference(std::size_t size, const std::string& prefix,
                                                            const char* format, ...) {
    char text[4096];
    std::va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return (prefix + text).substr(0, size - 1) + '\n';
}

#define EXPECT_AS_SNPRINTF(size, ...) EXPECT_EQ(Line(size, "[p]", __VA_ARGS__), Reference(size, "[p]", __VA_ARGS__))

TEST(FormattedText, NumbersAreThoseOfSnprintf) {
    const std::vector<long> values = {0,        1,         -1,      9,       10,       -10,          99,
                                      100,      999,       1000,    4095,    -4096,    65535,        65536,
                                      99999999, 100000000, INT_MAX, INT_MIN, UINT_MAX, INT_MAX + 1L, LONG_MAX,
                                      LONG_MIN, -999999999};
    for (const long value : values) {
        const auto u = static_cast<unsigned int>(value);
        EXPECT_AS_SNPRINTF(200, "%d|%u|%x", static_cast<int>(value), u, u);
        EXPECT_AS_SNPRINTF(200, "%lu|%ld", static_cast<unsigned long>(value), value);
    }
}

TEST(FormattedText, RandomNumbersAreThoseOfSnprintf) {
    std::mt19937_64 random(20260301);
    for (int n = 0; n < 20000; ++n) {
        const std::uint64_t bits = random() >> random() % 64;
        const auto u = static_cast<unsigned int>(bits);
        EXPECT_AS_SNPRINTF(200, "a %d, b:%u. 0x%x/%lu", static_cast<int>(u), u, u, static_cast<unsigned long>(bits));
    }
}

TEST(FormattedText, OtherConversionsAreThoseOfSnprintf) {
    const char* text = "text";
    EXPECT_AS_SNPRINTF(200, "%08x|%04X|%5d|%-5d|%+d|%#x", 0xabcU, 0xABCU, 42, 42, 42, 42U);
    EXPECT_AS_SNPRINTF(200, "%10s|%-10s|%.2s|%c|%%", text, text, text, 'c');
    EXPECT_AS_SNPRINTF(200, "%lld|%llu|%lx|%zu|%hd|%i", 1LL, 2ULL, 3UL, std::size_t{4}, static_cast<short>(5), 6);
    EXPECT_AS_SNPRINTF(200, "%f|%e|%g|%p", 1.5, 1.5, 1.5, static_cast<const void*>(text));
    EXPECT_AS_SNPRINTF(200, "%u then %08x then %s", 1U, 2U, text);
}

TEST(FormattedText, TextsAreThoseOfSnprintf) {
    const char* volatile none = nullptr;
    const char* nothing = none;
    EXPECT_AS_SNPRINTF(200, "%s", "");
    EXPECT_AS_SNPRINTF(200, "before %s between %s behind", "one", "two");
    EXPECT_AS_SNPRINTF(200, "\xc3\xa9 %s \xff", "\xe9\x01");
    EXPECT_AS_SNPRINTF(200, "%s %u", nothing, 7U);
}

TEST(FormattedText, EveryCutIsThatOfSnprintf) {
    const std::string id(30, 'x');
    for (std::size_t size = 4; size <= 90; ++size) {
        EXPECT_AS_SNPRINTF(size, "Subscribes:%s chanbit:0x%x, index:%u", id.c_str(), 0x8001U, 4711U);
        EXPECT_AS_SNPRINTF(size, "no conversion at all, only a text of some length");
        EXPECT_AS_SNPRINTF(size, "%s", id.c_str());
        EXPECT_AS_SNPRINTF(size, "%lu%d", ULONG_MAX, INT_MIN);
    }
}

TEST(FormattedText, ALocaleOfTheApplicationChangesNothing) {
    if (std::setlocale(LC_ALL, "C.UTF-8") == nullptr) GTEST_SKIP() << "no such locale here";

    EXPECT_AS_SNPRINTF(200, "%d %u \xff %s", 1234567, 1234567U, "\xc3\x28");

    std::setlocale(LC_ALL, "C");
}

}  // namespace
