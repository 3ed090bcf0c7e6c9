#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vexo_sim {

/// CardConfig::pace as users write it: "real", "x10", "max".
std::string paceName(std::uint32_t pace);
/// The opposite, x1 to x1000; empty when the text is no pace.
std::optional<std::uint32_t> parsePace(const std::string& text);

}  // namespace vexo_sim
