#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace CLI {
class Validator;
}

namespace cli {

/// A length of time as a user writes it: 90, 90s, 30m, 8h, 7d. @return seconds; nothing for another text
std::optional<std::uint64_t> secondsOf(const std::string& text);

/// For CLI::Option::transform(): the option's value becomes a number of seconds from 1 to @p most.
CLI::Validator duration(std::uint64_t most);

}  // namespace cli
