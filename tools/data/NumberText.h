#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string>

namespace vexo::data {

/// Room that each function here needs at most.
inline constexpr std::size_t kNumberRoom = 32;

template <typename Number>
char* putNumber(char* at, Number number) {
    return std::to_chars(at, at + kNumberRoom, number).ptr;
}

/// The digits after the point, as many as there are places; zeros in front are written.
inline char* putPlaces(char* at, std::uint64_t places, std::uint32_t count) {
    for (std::uint32_t i = count; i > 0; places /= 10) at[--i] = static_cast<char>('0' + places % 10);
    return at + count;
}

inline std::uint64_t powerOfTen(std::uint32_t exponent) {
    std::uint64_t power = 1;
    for (std::uint32_t i = 0; i < exponent; ++i) power *= 10;
    return power;
}

/// @param scale  of @p magnitude: @p decimals zeros. Zeros at the end of the places are left out: 6000, 6000.5.
inline char* putDecimal(char* at, bool isNegative, std::uint64_t magnitude, std::uint64_t scale,
                        std::uint32_t decimals) {
    if (isNegative) *at++ = '-';
    at = putNumber(at, magnitude / scale);
    std::uint64_t places = magnitude % scale;
    if (places == 0) return at;
    while (places % 10 == 0) {
        places /= 10;
        --decimals;
    }
    *at++ = '.';
    return putPlaces(at, places, decimals);
}

/// 1234567 as 1,234,567: for people.
inline std::string grouped(std::uint64_t n) {
    std::string text = std::to_string(n);
    for (std::size_t at = text.size(); at > 3;) text.insert(at -= 3, ",");
    return text;
}

/// Seconds since 1970 with nine places.
inline char* putSeconds(char* at, std::uint64_t ns) {
    at = putNumber(at, ns / 1'000'000'000);
    *at++ = '.';
    return putPlaces(at, ns % 1'000'000'000, 9);
}

}  // namespace vexo::data
