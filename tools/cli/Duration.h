#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/cli/Command.h"

namespace cli {

/// A length of time as a user writes it: 90, 90s, 30m, 8h, 7d. @return seconds; nothing for another text
std::optional<std::uint64_t> secondsOf(const std::string& text);

/// The option's value becomes a number of seconds from 1 to @p most.
Check duration(std::uint64_t most);

}  // namespace cli
