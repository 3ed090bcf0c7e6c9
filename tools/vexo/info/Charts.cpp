#include "tools/vexo/info/Charts.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "tools/vexo/info/Words.h"
#include "tools/vexo/show/Harmless.h"

namespace vexo::info {
namespace {

// Units of the SVG, whatever its size on the screen.
constexpr double kWidth = 1000;
constexpr double kHeight = 100;
constexpr double kThinnest = 2;  // of what would be too thin to see
constexpr double kNsOfSecond = 1e9;

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", value);
    return text;
}

std::string percent(double share) { return number(share * 100) + "%"; }

std::string rect(const char* kind, double x, double width, double height, const std::string& title) {
    return std::string("<rect class=\"") + kind + "\" x=\"" + number(x) + "\" y=\"" + number(kHeight - height) +
           "\" width=\"" + number(width) + "\" height=\"" + number(height) + "\"><title>" + escaped(title) +
           "</title></rect>\n";
}

// A count on a logarithmic axis: a single one is seen beside a million.
struct Logarithmic {
    static constexpr double kBelow = 0.3;  // powers of ten below a single one, and above the largest count
    static constexpr double kAbove = 0.1;
    double most;

    double height(std::uint64_t count) const {
        if (count == 0) return 0;
        return (std::log10(static_cast<double>(count)) + kBelow) / (std::log10(most) + kBelow + kAbove);
    }
    std::vector<Tick> ticks() const {
        std::vector<Tick> all;
        const std::size_t step = most > 1e6 ? 2 : 1;
        std::uint64_t power = 1;
        for (std::size_t i = 0; static_cast<double>(power) <= most && i < 20; ++i, power *= 10) {
            if (i % step == 0) all.push_back({height(power), grouped(power)});
        }
        return all;
    }
};

struct Frame {
    std::string caption;
    std::string description;  // of the whole picture, for those who do not see it
    std::string kind;         // of the plot: its height
    std::vector<Tick> across;
    std::vector<Tick> up;
    std::string axis;  // below: what it is, and its unit
};

std::string labels(const char* axis, const char* edge, const std::vector<Tick>& ticks) {
    std::string html = std::string("<div class=\"") + axis + "\" aria-hidden=\"true\">";
    for (std::size_t i = 0; i < ticks.size(); ++i) {
        html += std::string(i % 2 == 1 ? "<span class=\"odd\"" : "<span") + " style=\"" + edge + ":" +
                percent(ticks[i].at) + "\">" + escaped(ticks[i].label) + "</span>";
    }
    return html + "</div>\n";
}

std::string chart(const Frame& frame, const std::string& inside) {
    std::string html = "<figure>\n<figcaption>" + escaped(frame.caption) + "</figcaption>\n<div class=\"plot " +
                       frame.kind + "\">\n" + labels("up", "bottom", frame.up) + "<svg viewBox=\"0 0 " +
                       number(kWidth) + " " + number(kHeight) + "\" preserveAspectRatio=\"none\" role=\"img\" " +
                       "aria-label=\"" + escaped(frame.description) + "\">\n";
    for (const Tick& tick : frame.up) {
        const std::string y = number(kHeight * (1 - tick.at));
        html += "<line class=\"grid\" x1=\"0\" x2=\"" + number(kWidth) + "\" y1=\"" + y + "\" y2=\"" + y + "\"/>\n";
    }
    return html + inside + "</svg>\n" + labels("across", "left", frame.across) + "</div>\n<p class=\"axis\">" +
           escaped(frame.axis) + "</p>\n</figure>\n";
}

// Where bins stand on the axis of a chart.
struct Across {
    const Timeline& timeline;
    std::uint64_t spanNs;  // of the axis

    double at(std::size_t bin) const {
        return kWidth * static_cast<double>(bin) * static_cast<double>(timeline.widthNs()) /
               static_cast<double>(spanNs);
    }
    double width() const { return at(1); }
    // Any moment, also one of a hostile capture.
    double atTime(std::uint64_t ns) const {
        if (ns <= timeline.startNs()) return 0;
        return std::min(kWidth, kWidth * static_cast<double>(ns - timeline.startNs()) / static_cast<double>(spanNs));
    }
    std::string timesOf(std::size_t bin) const {
        const std::uint64_t from = timeline.startNs() + bin * timeline.widthNs();
        const unsigned places = timeline.widthNs() % 1'000'000'000 == 0 ? 0 : 3;
        return clockText(from, places) + " to " + clockText(from + timeline.widthNs(), places);
    }
};

double perSecond(std::uint64_t packets, const Timeline& timeline) {
    return static_cast<double>(packets) * kNsOfSecond / static_cast<double>(timeline.widthNs());
}

// In bins of more than a second, the mean hides what happened in one.
bool showsPeaks(const Timeline& timeline) { return timeline.widthNs() > 1'000'000'000; }

std::string dayAxis(const Timeline& timeline, std::uint64_t spanNs) {
    const std::string first = dateText(timeline.startNs());
    const std::string last = dateText(timeline.startNs() + spanNs);
    return "time of the exchange (UTC+8), " + (first == last ? first : first + " to " + last);
}

// Steps along the tops of the bins.
template <typename Height>
std::string stepPath(const Across& across, const Height& height, bool isClosed) {
    const std::size_t count = across.timeline.bins().size();
    std::string path = isClosed ? "M0 " + number(kHeight) + "V" : "M0 ";
    for (std::size_t i = 0; i < count; ++i) {
        const std::string top = number(kHeight - height(across.timeline.bins()[i]));
        path += (i == 0 ? top : "V" + top) + "H" + number(across.at(i + 1));
    }
    return isClosed ? path + "V" + number(kHeight) + "Z" : path;
}

std::string rateTitle(const Across& across, std::size_t i) {
    const Timeline::Bin& bin = across.timeline.bins()[i];
    std::string title = across.timesOf(i) + ": " + grouped(bin.packets) + " packets, " + bytesText(bin.bytes) + ", " +
                        rateText(perSecond(bin.packets, across.timeline)) + " packets a second";
    if (showsPeaks(across.timeline)) title += ", " + grouped(bin.peakSecond) + " in the busiest second";
    return title;
}

std::string peakSentence(const Summary& summary) {
    return "The busiest second, from " + clockText(summary.second.startNs, 0) + ", has " +
           grouped(summary.second.packets) + " packets.";
}

}  // namespace

std::string escaped(const std::string& text) {
    std::string out;
    for (const char c : harmless(text)) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            case '\'': out += "&#39;"; break;
            default: out += c;
        }
    }
    return out;
}

double mostRateOf(const Summary& summary) {
    double most = 0;
    for (const Timeline::Bin& bin : summary.timeline.bins()) {
        most = std::max(most, perSecond(bin.packets, summary.timeline));
        if (showsPeaks(summary.timeline)) most = std::max(most, static_cast<double>(bin.peakSecond));
    }
    return most;
}

std::string rateChart(const Summary& summary, std::uint64_t spanNs, double mostRate) {
    const Timeline& timeline = summary.timeline;
    const Across across{timeline, spanNs};
    Frame frame;
    frame.up = amountTicks(mostRate);
    frame.across = timeTicks(timeline.startNs(), spanNs);
    frame.kind = "tall";
    const std::string width = durationText(timeline.widthNs());
    frame.caption = "Packets a second: the mean of each " + width +
                    (showsPeaks(timeline) ? " (filled), and its busiest second (line)" : "");
    frame.axis = dayAxis(timeline, spanNs);
    frame.description = "Packets a second over time, " + rateText(summary.meanRate()) + " on average. " +
                        peakSentence(summary);
    const auto mean = [&](const Timeline::Bin& bin) { return kHeight * perSecond(bin.packets, timeline) / mostRate; };
    const auto peak = [&](const Timeline::Bin& bin) {
        return kHeight * static_cast<double>(bin.peakSecond) / mostRate;
    };
    std::string inside = "<path class=\"mean\" d=\"" + stepPath(across, mean, true) + "\"/>\n";
    if (showsPeaks(timeline)) inside += "<path class=\"peak\" d=\"" + stepPath(across, peak, false) + "\"/>\n";
    for (std::size_t i = 0; i < timeline.bins().size(); ++i) {
        if (timeline.bins()[i].packets > 0)
            inside += rect("hit", across.at(i), across.width(), kHeight, rateTitle(across, i));
    }
    return chart(frame, inside);
}

namespace {

std::string bucketTitle(const std::string& name, std::size_t bucket, const GapCounts& gaps, std::uint64_t all) {
    const std::uint64_t from = bucket == 0 ? 0 : std::uint64_t{1} << bucket;
    const std::string to = durationText(bucket < 63 ? std::uint64_t{1} << (bucket + 1) : ~std::uint64_t{0});
    return name + durationText(from) + " to " + to + ": " + grouped(gaps[bucket]) + " gaps, " +
           shareText(gaps[bucket], all);
}

std::uint64_t sumOf(const GapCounts& gaps) {
    std::uint64_t sum = 0;
    for (const std::uint64_t count : gaps) sum += count;
    return sum;
}

struct Buckets {
    std::size_t first = kGapBuckets;
    std::size_t end = 0;
    std::uint64_t most = 1;

    void cover(const GapCounts& gaps) {
        for (std::size_t b = 0; b < kGapBuckets; ++b) {
            if (gaps[b] == 0) continue;
            first = std::min(first, b);
            end = std::max(end, b + 1);
            most = std::max(most, gaps[b]);
        }
    }
    double width() const { return kWidth / static_cast<double>(end - first); }
};

std::string bars(const GapCounts& gaps, const Buckets& buckets, const Logarithmic& up, const char* kind,
                 const std::string& name, double from, double share) {
    std::string inside;
    const std::uint64_t all = sumOf(gaps);
    for (std::size_t b = buckets.first; b < buckets.end; ++b) {
        if (gaps[b] == 0) continue;
        const double x = (static_cast<double>(b - buckets.first) + from) * buckets.width();
        inside += rect(kind, x, share * buckets.width(), kHeight * up.height(gaps[b]), bucketTitle(name, b, gaps, all));
    }
    return inside;
}

std::vector<Tick> bucketTicks(const Buckets& buckets) {
    std::vector<Tick> ticks;
    const std::size_t count = buckets.end - buckets.first;
    const std::size_t step = std::max<std::size_t>(1, (count + 7) / 8);
    for (std::size_t b = buckets.first; b <= buckets.end && b < kGapBuckets; b += step) {
        const double at = static_cast<double>(b - buckets.first) / static_cast<double>(count);
        ticks.push_back({at, durationText(std::uint64_t{1} << b)});
    }
    return ticks;
}

}  // namespace

std::string gapChart(const Summary& summary, const Summary* other) {
    const GapCounts gaps = gapsOf(summary);
    const GapCounts others = other != nullptr ? gapsOf(*other) : GapCounts{};
    Buckets buckets;
    buckets.cover(gaps);
    buckets.cover(others);
    if (buckets.end == 0) return "<p>There are no two packets of one channel.</p>\n";
    const Logarithmic up{static_cast<double>(buckets.most)};
    Frame frame;
    frame.caption =
        "Gaps: times from a packet to the next one of the same channel, each bar twice as long as the one before";
    frame.axis = "length of the gap; the number of gaps is on a logarithmic axis";
    frame.kind = "tall";
    frame.up = up.ticks();
    frame.across = bucketTicks(buckets);
    frame.description = "Histogram of " + grouped(sumOf(gaps)) + " gaps between packets.";
    const bool isAlone = other == nullptr;
    std::string inside = bars(gaps, buckets, up, "one", isAlone ? "" : "this one, ", 0.05, isAlone ? 0.9 : 0.42);
    if (!isAlone) inside += bars(others, buckets, up, "other", "the other, ", 0.53, 0.42);
    return chart(frame, inside);
}

std::uint64_t mostLostOf(const Summary& summary) {
    std::uint64_t most = 0;
    for (std::size_t i = 0; i < summary.streams.size(); ++i) {
        for (const auto& [bin, lost] : summary.timeline.lane(i)) most = std::max(most, lost);
        if (summary.streams[i].sequence) continue;
        for (const CountedLoss& loss : summary.streams[i].counted) most = std::max(most, data::totalOf(loss.lost));
    }
    return most;
}

namespace {

Frame lossFrame(const Summary& summary, std::uint64_t spanNs, const Logarithmic& up) {
    Frame frame;
    frame.up = up.ticks();
    frame.across = timeTicks(summary.timeline.startNs(), spanNs);
    frame.kind = "low";
    frame.axis = dayAxis(summary.timeline, spanNs) + "; the number of packets is on a logarithmic axis";
    return frame;
}

// By the sequence numbers: a line for each bin.
std::string missingLines(const Across& across, const Timeline::Lane& lane, const Logarithmic& up) {
    std::string inside;
    for (const auto& [bin, lost] : lane) {
        // A line has the same width on every screen; a bin may be narrower than a point of it.
        const std::string x = number(across.at(bin) + across.width() / 2);
        const double height = kHeight * up.height(lost);
        inside += "<line class=\"lost\" x1=\"" + x + "\" x2=\"" + x + "\" y1=\"" + number(kHeight) + "\" y2=\"" +
                  number(kHeight - height) + "\"><title>" + across.timesOf(bin) + ": " + grouped(lost) +
                  " missing</title></line>\n";
    }
    return inside;
}

// By the ends of the captures: a bar as long as each capture.
std::string countedBars(const Across& across, const std::vector<CountedLoss>& counted, const Logarithmic& up) {
    std::string inside;
    for (const CountedLoss& loss : counted) {
        const double from = std::min(across.atTime(loss.fromNs), kWidth - kThinnest);
        const double until = std::max(across.atTime(loss.untilNs), from + kThinnest);
        const std::string title = momentText(loss.fromNs, 3) + " to " + momentText(loss.untilNs, 3) + ": lost " +
                                  data::lossLine(loss.lost);
        inside += rect("counted", from, until - from, kHeight * up.height(data::totalOf(loss.lost)), title);
    }
    return inside;
}

}  // namespace

std::string lossChart(const Summary& summary, std::uint64_t spanNs, std::uint64_t mostLost) {
    const Across across{summary.timeline, spanNs};
    // One packet in a hundred is seen beside the thousands that an overflow costs.
    const Logarithmic up{static_cast<double>(mostLost)};
    std::string html;
    for (std::size_t i = 0; i < summary.streams.size(); ++i) {
        const StreamSummary& stream = summary.streams[i];
        const Timeline::Lane lane = summary.timeline.lane(i);
        Frame frame = lossFrame(summary, spanNs, up);
        std::string inside;
        if (!lane.empty()) {
            frame.caption = stream.name + ": packets missing in each " + durationText(summary.timeline.widthNs());
            inside = missingLines(across, lane, up);
        } else if (!stream.sequence && !stream.counted.empty()) {
            frame.caption = stream.name +
                            ": packets lost and errors of the card, as counted in the time of each capture";
            frame.axis += ". When in that time is not known: no layout says where the sequence number is";
            inside = countedBars(across, stream.counted, up);
        } else {
            continue;
        }
        frame.description = frame.caption + ", over time.";
        html += chart(frame, inside);
    }
    return html;
}

std::string cellBar(double share) {
    return "<svg class=\"cell\" viewBox=\"0 0 100 10\" preserveAspectRatio=\"none\" aria-hidden=\"true\"><rect class=\"one\" "
           "width=\"" +
           number(100 * share) + "\" height=\"10\"/></svg>";
}

}  // namespace vexo::info
