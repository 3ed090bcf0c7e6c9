#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "sim/scenario/IniFile.h"

/// Values of a scenario. Each function throws Rejected for any other text.
namespace vexo_sim::scenario::parse {

/// Decimal, or hexadecimal with 0x.
std::uint64_t number(const Value& value, std::uint64_t least, std::uint64_t most);
std::int64_t signedNumber(const Value& value, std::int64_t least, std::int64_t most);
inline std::uint32_t number32(const Value& value, std::uint32_t least, std::uint32_t most) {
    return static_cast<std::uint32_t>(number(value, least, most));
}
/// A number, or @p all for the word "all".
std::uint32_t numberOrAll(const Value& value, std::uint32_t least, std::uint32_t most, std::uint32_t all);

std::uint32_t word(const Value& value, std::initializer_list<std::pair<const char*, std::uint32_t>> words);

/// Bits of numbers and ranges, "0, 3, 5-7", or "all".
std::uint32_t channels(const Value& value);

struct Range {
    std::uint32_t first;
    std::uint32_t last;
};
/// Numbers and ranges up to @p most, or "all".
std::vector<Range> ranges(const Value& value, std::uint32_t most);

/// HH:MM:SS as seconds.
std::uint32_t timeOfDay(const Value& value);
/// YYYYMMDD, a date that the calendar has.
std::uint32_t date(const Value& value);
/// An errno by name or number.
int errorNumber(const Value& value);

}  // namespace vexo_sim::scenario::parse
