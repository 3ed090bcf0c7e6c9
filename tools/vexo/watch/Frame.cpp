#include "tools/vexo/watch/Frame.h"

#include <algorithm>
#include <cstdio>

#include "tools/cli/Color.h"
#include "tools/vexo/show/LogLine.h"
#include "tools/vexo/show/Terminal.h"
#include "tools/vexo/stat/Views.h"

namespace vexo::watch {
namespace {

using stat::grouped;
using vexo_stats::kBuckets;
using Block = std::vector<Line>;

constexpr std::size_t kHalf = 39;  // columns of one half
constexpr std::size_t kGap = 2;    // between the halves
constexpr std::size_t kTwoHalves = 2 * kHalf + kGap;
constexpr std::size_t kWidestHalf = 79;

// How much there is of everything: from a tall window to one with little room.
struct Size {
    std::size_t histogram;
    std::size_t instruments;
    std::size_t log;
    bool hasBlanks;
};
constexpr Size kSizes[] = {{12, 10, 8, true}, {8, 5, 4, true}, {6, 5, 3, true}, {4, 3, 3, false}, {0, 0, 4, false}};

template <typename... Arguments>
std::string format(const char* how, Arguments... arguments) {
    char text[256];
    std::snprintf(text, sizeof text, how, arguments...);
    return text;
}

Line title(const std::string& text) { return Line(text, cli::kBold); }

// ---- what is watched ----

Block header(const Scene& scene) {
    Block lines;
    if (scene.page) {
        const stat::Page& page = *scene.page;
        Line first(stat::processName(page), cli::kBold);
        first.add(" " + stat::lifeLine(page) + ", counted by the " + stat::writerOf(page));
        lines.push_back(first);
    }
    if (!scene.source.empty()) lines.emplace_back(scene.source);
    if (!scene.page) {
        lines.emplace_back("starting");
        return lines;
    }
    if (scene.page->process.clockIsEven == 0)
        lines.emplace_back("the processor's clock is uneven: times are rough", cli::kYellow);
    if (scene.now.allPackets == 0) {
        const std::string steps = stat::startUpLine(*scene.page);
        lines.emplace_back(steps.empty() ? "no stream is open yet" : "start-up: " + steps);
    }
    return lines;
}

// ---- packets ----

std::string rowOfPackets(const Scene& scene, const std::string& name, std::uint64_t packets, std::uint64_t more,
                         std::uint64_t bytes) {
    const bool knowsBytes = scene.now.allBytes != 0;
    const std::string rate = scene.isRated() ? format("%.0f", scene.perSecond(more)) : "-";
    const std::string megabytes = scene.isRated() && knowsBytes ? format("%.2f", scene.perSecond(bytes) / 1e6) : "-";
    return format("%-9s%10s%8s%12s", name.c_str(), rate.c_str(), megabytes.c_str(), grouped(packets).c_str());
}

std::string nameOfType(std::size_t slot) {
    if (slot == vexo_stats::kOtherType) return "others";
    if (slot == vexo_stats::kNoType) return "no type";
    return "type " + stat::typeName(slot);
}

// The time since the last packet of any stream; negative without one.
double quietSeconds(const stat::Page& page) {
    double least = -1;
    for (const vexo_stats::Stream& stream : page.streams) {
        if (stream.firstPacket == 0) continue;
        const bool isPast = page.readClock > stream.lastPacket;
        const double seconds = isPast ? page.seconds(page.readClock - stream.lastPacket) : 0;
        least = least < 0 ? seconds : std::min(least, seconds);
    }
    return least;
}

Block packets(const Scene& scene) {
    Block lines = {title(format("%-9s%10s%8s%12s", "packets", "a second", "MB/s", "all"))};
    for (std::size_t slot = 0; slot < vexo_stats::kTypeSlots; ++slot) {
        if (scene.now.packets[slot] == 0) continue;
        lines.emplace_back(rowOfPackets(scene, nameOfType(slot), scene.now.packets[slot], scene.more.packets[slot],
                                        scene.more.bytes[slot]));
    }
    lines.emplace_back(rowOfPackets(scene, "all", scene.now.allPackets, scene.more.allPackets, scene.more.allBytes));
    const std::uint64_t polls = scene.more.allPackets + scene.more.idlePolls + scene.more.failedPolls;
    if (scene.now.pollsKnown && scene.isRated() && polls > 0) {
        lines.emplace_back(
            "polls " + shortNumber(scene.perSecond(polls)) + " a second, " +
            format("%.1f %% idle", 100 * static_cast<double>(scene.more.idlePolls) / static_cast<double>(polls)));
    }
    if (scene.now.failedPolls != 0)
        lines.emplace_back(grouped(scene.now.failedPolls) + " polls have failed", cli::kBoldRed);
    const double quiet = quietSeconds(*scene.page);
    if (scene.page->life == stat::Life::kRunning && quiet >= 0)
        lines.emplace_back("last packet " + stat::duration(quiet) + " ago");
    return lines;
}

// ---- losses ----

void addLosses(Block& lines, const data::Losses* losses, std::size_t streams, std::size_t first, std::size_t other) {
    for (const data::LossCause cause : data::kAllLossCauses) {
        Line line(format("%-*s", static_cast<int>(first), data::nameOf(cause)));
        for (std::size_t i = 0; i < streams; ++i) {
            const data::Count& count = losses[i][cause];
            line.add(format("%*s", static_cast<int>(other), data::groupedLossText(count).c_str()),
                     count.value_or(0) != 0 ? cli::kRed : "");
        }
        lines.push_back(line);
    }
}

// One column for each stream.
Block losses(const Scene& scene) {
    constexpr std::size_t kFirst = 19;
    constexpr std::size_t kOther = 10;
    const std::vector<vexo_stats::Stream>& streams = scene.page->streams;
    if (streams.size() <= 1) {
        Block lines = {title(format("%-19s%20s", "lost", "packets"))};
        addLosses(lines, &scene.now.losses, 1, kFirst, kHalf - kFirst);
        return lines;
    }
    std::string names = format("%-19s", "card/channel");
    std::string rates = format("%-19s", "packets a second");
    std::vector<data::Losses> all;
    for (std::size_t i = 0; i < streams.size(); ++i) {
        const std::string name = stat::numberOrNone(streams[i].card) + "/" + stat::numberOrNone(streams[i].channel);
        const bool isRated = scene.isRated() && i < scene.streamMore.size();
        names += format("%10s", name.c_str());
        rates += format("%10s", isRated ? format("%.0f", scene.perSecond(scene.streamMore[i])).c_str() : "-");
        all.push_back(stat::lossOf(streams[i]));
    }
    Block lines = {title(names), Line(rates), Line("lost:")};
    addLosses(lines, all.data(), all.size(), kFirst, kOther);
    return lines;
}

// ---- times ----

std::string bar(std::uint64_t count, std::uint64_t most, std::size_t width) {
    if (count == 0 || most == 0) return "";
    const double share = static_cast<double>(count) / static_cast<double>(most);
    return std::string(std::max<std::size_t>(1, static_cast<std::size_t>(share * static_cast<double>(width))), '#');
}

// The rows of a histogram: as many buckets in each as it takes to have no more than so many rows.
struct Rows {
    std::size_t first = 0;
    std::size_t buckets = 1;  // of a row
    std::size_t count = 0;

    std::size_t lastBucket(std::size_t row) const {
        return std::min(first + (row + 1) * buckets, std::size_t{kBuckets}) - 1;
    }
    std::uint64_t sum(const std::uint64_t (&numbers)[kBuckets], std::size_t used, std::size_t row) const {
        std::uint64_t sum = 0;
        for (std::size_t b = first + row * buckets; b <= lastBucket(row) && b < used; ++b) sum += numbers[b];
        return sum;
    }
    std::uint64_t most(const std::uint64_t (&numbers)[kBuckets], std::size_t used) const {
        std::uint64_t most = 0;
        for (std::size_t row = 0; row < count; ++row) most = std::max(most, sum(numbers, used, row));
        return most;
    }
};

Rows rowsOf(const Totals& now, std::size_t mostRows) {
    const auto isUsed = [&](std::size_t b) {
        return (b < stat::kGapBuckets && now.gaps[b] != 0) || now.callbacks[b] != 0;
    };
    std::size_t low = 0;
    std::size_t high = kBuckets;
    while (low < kBuckets && !isUsed(low)) ++low;
    while (high > low && !isUsed(high - 1)) --high;
    if (mostRows == 0 || low == high) return {};
    const std::size_t buckets = (high - low + mostRows - 1) / mostRows;
    return {low, buckets, (high - low + buckets - 1) / buckets};
}

Block times(const Scene& scene, std::size_t width, std::size_t mostRows) {
    constexpr std::size_t kNumbers = 8 + 2 * 6 + 3;
    const Totals& now = scene.now;
    const Rows rows = rowsOf(now, mostRows);
    if (rows.count == 0) return {};
    const std::size_t barWidth = (width - kNumbers) / 2;
    const auto pad = static_cast<int>(barWidth);
    Block lines = {title(format("%-8s%6s %-*s %6s", "below", "apart", pad, "", "callback"))};
    const std::uint64_t mostGaps = rows.most(now.gaps, stat::kGapBuckets);
    const std::uint64_t mostCallbacks = rows.most(now.callbacks, kBuckets);
    for (std::size_t row = 0; row < rows.count; ++row) {
        const std::uint64_t gaps = rows.sum(now.gaps, stat::kGapBuckets, row);
        const std::uint64_t callbacks = rows.sum(now.callbacks, kBuckets, row);
        // In a colour where packets have come since the look before.
        const bool hasGaps = rows.sum(scene.more.gaps, stat::kGapBuckets, row) != 0;
        const bool hasCallbacks = rows.sum(scene.more.callbacks, kBuckets, row) != 0;
        Line line(format("%-8s", stat::duration(scene.page->endOfBucket(rows.lastBucket(row))).c_str()));
        line.add(format("%6s ", shortNumber(static_cast<double>(gaps)).c_str()));
        line.add(format("%-*s ", pad, bar(gaps, mostGaps, barWidth).c_str()), hasGaps ? cli::kCyan : cli::kFaint);
        line.add(format("%6s ", shortNumber(static_cast<double>(callbacks)).c_str()));
        line.add(bar(callbacks, mostCallbacks, barWidth), hasCallbacks ? cli::kCyan : cli::kFaint);
        lines.push_back(line);
    }
    const double gap = stat::boundOf(scene.more.gaps, stat::kGapBuckets, 0.99, *scene.page);
    const double callback = stat::boundOf(scene.more.callbacks, kBuckets, 0.99, *scene.page);
    const auto text = [](double bound) { return bound > 0 ? stat::duration(bound) : "-"; };
    if (gap > 0 || callback > 0)
        lines.emplace_back(format("%-9s%-*s%s", "99% now", pad + 7, text(gap).c_str(), text(callback).c_str()));
    return lines;
}

// ---- instruments ----

Block instruments(const Scene& scene, std::size_t mostRows) {
    if (mostRows == 0) return {};
    if (!scene.countsInstruments)
        return {title("instruments"), Line("not counted here: a page has no ids."),
                Line("vexo tap and vexo info show them.")};
    Block lines = {title(format("%-16s%11s%12s", "busiest", "a second", "all"))};
    for (std::size_t i = 0; i < std::min(mostRows, scene.instruments.size()); ++i) {
        const BusyInstrument& one = scene.instruments[i];
        Line line(one.id);
        line = line.cutTo(16);
        line.padTo(16);
        line.add(format("%11s%12s", scene.isRated() ? format("%.0f", scene.perSecond(one.more)).c_str() : "-",
                        grouped(one.packets).c_str()));
        lines.push_back(line);
    }
    if (scene.unknown != 0)
        lines.emplace_back(shortNumber(static_cast<double>(scene.unknown)) + " without id: no layout fits",
                           cli::kYellow);
    if (scene.crowded != 0)
        lines.emplace_back(shortNumber(static_cast<double>(scene.crowded)) + " of more instruments", cli::kYellow);
    return lines;
}

// ---- log ----

Block log(const Scene& scene, std::size_t mostRows) {
    if (!scene.logFault.empty()) return {title("log"), Line(scene.logFault, cli::kYellow)};
    Block lines = {title(scene.logName.empty() ? "log: none yet" : "log " + scene.logName)};
    const std::size_t count = std::min(mostRows, scene.log.size());
    for (std::size_t i = scene.log.size() - count; i < scene.log.size(); ++i) lines.push_back(logLine(scene.log[i]));
    return lines;
}

// ---- together ----

void add(Block& to, const Block& block, bool hasBlank) {
    if (block.empty()) return;
    if (hasBlank && !to.empty()) to.emplace_back();
    to.insert(to.end(), block.begin(), block.end());
}

Block sideBySide(const Block& left, const Block& right) {
    Block lines;
    for (std::size_t i = 0; i < std::max(left.size(), right.size()); ++i) {
        Line line = i < left.size() ? left[i].cutTo(kHalf) : Line();
        if (i < right.size()) {
            line.padTo(kHalf + kGap);
            line.append(right[i]);
        }
        lines.push_back(line);
    }
    return lines;
}

Block body(const Scene& scene, std::size_t columns, const Size& size) {
    const bool hasHalves = columns >= kTwoHalves;
    const bool isWide = scene.page->streams.size() > 2;  // the table of losses needs more than a half
    const std::size_t rightWidth = hasHalves ? std::min(columns - kHalf - kGap, kWidestHalf) : std::max(columns, kHalf);
    Block left = packets(scene);
    Block right = times(scene, std::min(rightWidth, kWidestHalf), size.histogram);
    add(right, instruments(scene, size.instruments), size.hasBlanks);
    if (!hasHalves || !isWide) add(left, losses(scene), size.hasBlanks);
    Block all;
    if (hasHalves) {
        all = sideBySide(left, right);
        if (isWide) add(all, losses(scene), size.hasBlanks);
    } else {
        all = left;
        add(all, right, size.hasBlanks);
    }
    return all;
}

}  // namespace

std::string shortNumber(double n) {
    constexpr double kWhole = 9999.5;
    constexpr char kUnits[] = "kMGTPE";
    if (n < kWhole) return format("%.0f", n);
    std::size_t unit = 0;
    for (n /= 1000; n >= 999.5 && unit + 2 < sizeof kUnits; n /= 1000) ++unit;
    return format(n < 99.95 ? "%.1f%c" : "%.0f%c", n, kUnits[unit]);
}

Line logLine(const ShownLine& line) {
    const LogLine parsed = parseLogLine(line.text);
    constexpr std::size_t kDate = sizeof "20261115-" - 1;
    Line shown(parsed.time.empty() ? "" : std::string(parsed.time.substr(kDate)) + " ");
    if (parsed.level != kNoLevel) {
        std::string level = levelName(parsed.level);
        std::transform(level.begin(), level.end(), level.begin(),
                       [](char c) { return static_cast<char>(c - 'a' + 'A'); });
        shown.add(level + " ", terminal::colorOfLevel(parsed.level));
    }
    shown.add(std::string(parsed.message));
    return shown;
}

std::vector<Line> frame(const Scene& scene, std::size_t columns, std::size_t rows) {
    const Block head = header(scene);
    Block all;
    for (const Size& size : kSizes) {
        all = head;
        if (scene.page) add(all, body(scene, columns, size), false);
        const std::size_t left = rows > all.size() ? rows - all.size() : 0;
        const std::size_t room = left > 1 + (size.hasBlanks ? 1U : 0U) ? left - 1 - (size.hasBlanks ? 1 : 0) : 0;
        if (room < size.log && &size != std::end(kSizes) - 1) continue;
        add(all, log(scene, std::min(room, 2 * kSizes[0].log)), size.hasBlanks);
        break;
    }
    if (all.size() > rows) all.resize(rows);
    for (Line& line : all) line = line.cutTo(columns);
    return all;
}

}  // namespace vexo::watch
