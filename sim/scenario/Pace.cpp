#include "sim/scenario/Pace.h"

#include <charconv>

#include "sim/card/CardConfig.h"

namespace vexo_sim {

std::string paceName(std::uint32_t pace) {
    if (pace == kPaceOfReaders) return "max";
    return pace == 1 ? "real" : "x" + std::to_string(pace);
}

std::optional<std::uint32_t> parsePace(const std::string& text) {
    if (text == "real") return 1;
    if (text == "max") return kPaceOfReaders;
    if (text.empty() || text[0] != 'x') return std::nullopt;
    std::uint32_t times = 0;
    const char* end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data() + 1, end, times);
    if (result.ec != std::errc{} || result.ptr != end || times < 1 || times > kMaxPace) return std::nullopt;
    return times;
}

}  // namespace vexo_sim
