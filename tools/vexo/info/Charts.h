#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/vexo/info/Summary.h"

/// Pictures of a page, as SVG with HTML around it. The SVG stretches to any width; all text is HTML, so that it keeps
/// its size.
namespace vexo::info {

/// Text of any origin as text of a page: no byte of it is a command for the browser.
std::string escaped(const std::string& text);

/// A moment, or an amount, on an axis.
struct Tick {
    double at = 0;  // 0 to 1 of the axis
    std::string label;
};

/// Times on an axis that begins at @p startNs. @param isOfDay  set to whether the labels lack the day
std::vector<Tick> timeTicks(std::uint64_t startNs, std::uint64_t spanNs);
/// Amounts from 0 on. @param most  made a little larger, to a round number
std::vector<Tick> amountTicks(double& most);

/// Packets a second over time. @param spanNs, mostRate  of the axes: two charts with the same ones can be compared
std::string rateChart(const Summary& summary, std::uint64_t spanNs, double mostRate);
double mostRateOf(const Summary& summary);

/// How long packets were apart. @param other  beside it, or null
std::string gapChart(const Summary& summary, const Summary* other);

/// When packets were lost: a strip for each stream, by its sequence numbers or by what the captures counted. Empty if
/// there is nothing to show. @param spanNs, mostLost  of the axes
std::string lossChart(const Summary& summary, std::uint64_t spanNs, std::uint64_t mostLost);
std::uint64_t mostLostOf(const Summary& summary);

/// A bar in a cell of a table.
std::string cellBar(double share);

}  // namespace vexo::info
