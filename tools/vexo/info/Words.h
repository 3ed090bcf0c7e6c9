#pragma once

#include <cstdint>
#include <string>

#include "tools/data/NumberText.h"
#include "tools/vexo/info/Summary.h"

/// Numbers, times and names, as people read them.
namespace vexo::info {

using data::grouped;
/// "512 bytes", "3.52 MB": powers of 1000.
std::string bytesText(std::uint64_t bytes);
/// "5,004", or "4.2" below a hundred.
std::string rateText(double perSecond);
/// "850 ns", "1.23 ms", "2.50 s", "3 min 20 s", "6 h 30 min": two or three digits.
std::string durationText(std::uint64_t ns);
/// "2026-11-22", of the exchange's zone.
std::string dateText(std::uint64_t ns);
/// "21:00:00.123", of the exchange's zone. @param places  0 to 9 of the second
std::string clockText(std::uint64_t ns, unsigned places);
/// Both: "2026-11-22 21:00:00.123".
std::string momentText(std::uint64_t ns, unsigned places);
/// "12.3 %"
std::string shareText(std::uint64_t part, std::uint64_t all);
/// "+12.3 %" of a change; "-" if there was nothing before.
std::string changeText(double before, double after);
/// "17", "other", "none".
std::string typeName(std::uint64_t type);
/// "morning.pcapng and 2 more"
std::string captureNames(const Summary& summary);

}  // namespace vexo::info
