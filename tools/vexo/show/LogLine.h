#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace vexo {

inline constexpr std::size_t kLongestLogLine = 2048;  ///< the library cuts its lines here
inline constexpr std::uint8_t kNoLevel = 255;

/// A line of the log, taken apart. The parts are views into it.
struct LogLine {
    std::uint8_t level = kNoLevel;  ///< 0 ASSERT to 6 VERBOSE; kNoLevel: the line does not begin as one of the log does
    std::string_view tag;           ///< "[ERROR  ]"
    std::string_view time;          ///< "20261115-09:12:34", empty when there is none
    std::string_view message;       ///< what comes behind the brackets; the whole line when there is no level
};

LogLine parseLogLine(std::string_view line);

/// "error" for 1; empty for kNoLevel.
std::string levelName(std::uint8_t level);

/// 0 to 6 for the name of a level in any case, also "warning"; kNoLevel for another word.
std::uint8_t levelNamed(std::string_view name);

}  // namespace vexo
