#include <cmath>
#include <cstdio>
#include <iterator>

#include "VexoZceSession.h"
#include "tools/vexo/info/Charts.h"
#include "tools/vexo/info/Words.h"

namespace vexo::info {
namespace {

constexpr std::uint64_t kSecond = 1'000'000'000;
constexpr std::uint64_t kDay = 86400 * kSecond;
constexpr std::uint64_t kMostTimes = 7;
constexpr double kAmounts = 4;

// Distances between times that people like: 1, 2, 5 and so on below a second; then those of a clock.
std::uint64_t timeStep(std::uint64_t spanNs) {
    const std::uint64_t least = spanNs / kMostTimes + 1;
    std::uint64_t step = 1;
    for (std::size_t i = 0; step < least && step < kSecond; ++i) step = i % 3 == 1 ? step / 2 * 5 : step * 2;
    static constexpr std::uint64_t kSeconds[] = {1,   2,   5,    10,   15,   30,    60,    120,   300,
                                                 600, 900, 1800, 3600, 7200, 14400, 21600, 43200, 86400};
    for (const std::uint64_t seconds : kSeconds) {
        if (step < least) step = seconds * kSecond;
    }
    while (step < least) step *= 2;
    return step;
}

unsigned placesOf(std::uint64_t stepNs) {
    unsigned places = 0;
    for (std::uint64_t unit = kSecond; unit > stepNs; unit /= 10) ++places;
    return places;
}

// 20,000 as 20 k: the axis has little room.
std::string amountText(double amount) {
    char text[32];
    if (amount >= 1000 && amount < 10'000) return grouped(static_cast<std::uint64_t>(amount));
    if (amount < 1000) {
        std::snprintf(text, sizeof text, "%.4g", amount);
    } else if (amount < 1e6) {
        std::snprintf(text, sizeof text, "%.4g k", amount / 1e3);
    } else {
        std::snprintf(text, sizeof text, "%.4g M", amount / 1e6);
    }
    return text;
}

}  // namespace

std::vector<Tick> timeTicks(std::uint64_t startNs, std::uint64_t spanNs) {
    constexpr std::uint64_t kZone = static_cast<std::uint64_t>(vexo_zce::kExchangeUtcOffset) * kSecond;
    const std::uint64_t step = timeStep(spanNs);
    const bool hasDays = dateText(startNs) != dateText(startNs + spanNs);
    std::vector<Tick> ticks;
    // Whole multiples of the exchange's clock.
    std::uint64_t at = (startNs + kZone + step - 1) / step * step - kZone;
    for (; at - startNs <= spanNs; at += step) {
        std::string label = hasDays ? dateText(at).substr(5) : "";
        if (step < kDay)
            label += (hasDays ? " " : "") +
                     clockText(at, placesOf(step)).substr(0, step % (60 * kSecond) == 0 ? 5 : 18);
        ticks.push_back({spanNs == 0 ? 0 : static_cast<double>(at - startNs) / static_cast<double>(spanNs), label});
    }
    return ticks;
}

std::vector<Tick> amountTicks(double& most) {
    if (!(most > 0)) most = 1;
    double step = std::pow(10, std::floor(std::log10(most / kAmounts)));
    for (const double factor : {2.0, 2.5, 2.0}) {
        if (most / step > kAmounts) step *= factor;
    }
    std::vector<Tick> ticks;
    const double count = std::ceil(most / step - 1e-9);
    most = count * step;
    for (double i = 0; i <= count; ++i) ticks.push_back({i / count, amountText(i * step)});
    return ticks;
}

}  // namespace vexo::info
