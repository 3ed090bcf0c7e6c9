#include <algorithm>

#include "tools/vexo/info/Views.h"
#include "tools/vexo/info/Words.h"
#include "tools/vexo/show/Harmless.h"

namespace vexo::info {
namespace {

using Row = std::vector<std::string>;

// Letters of other languages are taken as one column each; their other bytes are not counted.
std::size_t columnsOf(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

// The first column is aligned to the left, the others to the right.
std::string table(const std::vector<Row>& rows) {
    std::vector<std::size_t> widths;
    for (const Row& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], columnsOf(row[i]));
    }
    std::string text;
    for (const Row& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            const std::string space(widths[i] - columnsOf(row[i]), ' ');
            line += i == 0 ? "  " + row[i] + space : "  " + space + row[i];
        }
        text += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
    }
    return text;
}

std::string line(const std::string& name, const std::string& what) {
    return "  " + name + std::string(name.size() < 16 ? 16 - name.size() : 0, ' ') + "  " + what + "\n";
}

std::string peakText(const Peak& peak, unsigned places) {
    return grouped(peak.packets) + " packets, from " + clockText(peak.startNs, places);
}

std::string gapText(const Gap& gap) {
    return durationText(gap.lengthNs()) + " from " + momentText(gap.fromNs, 6) + " to " + clockText(gap.untilNs, 6);
}

std::string overview(const Summary& summary) {
    std::string text = captureNames(summary) + "\n";
    if (summary.packets == 0) return text + line("packets", "none");
    text += line("from", momentText(summary.firstNs, 9) + " (UTC+8)");
    text += line("to", momentText(summary.lastNs, 9));
    text += line("span", durationText(summary.lastNs - summary.firstNs));
    text += line("packets", grouped(summary.packets) + ", " + bytesText(summary.bytes));
    if (summary.lastNs > summary.firstNs) text += line("rate", rateText(summary.meanRate()) + " packets a second");
    text += line("busiest second", peakText(summary.second, 0));
    text += line("busiest ms", peakText(summary.millisecond, 3));
    const StreamSummary* const stream = streamWithLongestBurst(summary);
    if (stream != nullptr) {
        const Burst& burst = stream->burst;
        text += line("largest burst", grouped(burst.packets) + " packets in " +
                                          durationText(burst.endNs - burst.startNs) + " from " +
                                          clockText(burst.startNs, 6) + " on " + harmless(stream->name) + ", each " +
                                          durationText(summary.burstNs) + " or less after the one before");
    }
    const char* name = "largest gaps";
    for (const Gap& gap : summary.longestGaps) {
        text += line(name, gapText(gap));
        name = "";
    }
    if (summary.registerAccesses > 0) text += line("registers", grouped(summary.registerAccesses) + " accesses");
    return text;
}

std::string streams(const Summary& summary) {
    std::vector<Row> rows = {
        {"channel", "type", "packets", "bytes", "a second", "busiest s", "busiest ms", "longest gap"}};
    for (const StreamSummary& stream : summary.streams) {
        const auto rate = [&](std::uint64_t packets) {
            const std::uint64_t ns = stream.lastNs - stream.firstNs;
            return ns == 0 ? "-" : rateText(static_cast<double>(packets) * 1e9 / static_cast<double>(ns));
        };
        rows.push_back({harmless(stream.name), "all", grouped(stream.packets), grouped(stream.bytes),
                        rate(stream.packets), grouped(stream.second.packets), grouped(stream.millisecond.packets),
                        durationText(stream.longestGap.lengthNs())});
        for (const TypeCounts& type : stream.types) {
            const std::string meaning = type.meaning.empty() ? "" : "  " + harmless(type.meaning);
            rows.push_back(
                {meaning, typeName(type.type), grouped(type.packets), grouped(type.bytes), rate(type.packets)});
        }
    }
    return table(rows);
}

std::string losses(const Summary& summary) {
    std::vector<Row> rows = {{"channel"}};
    for (const data::LossCause cause : data::kAllLossCauses) rows.front().emplace_back(data::nameOf(cause));
    for (const StreamSummary& stream : summary.streams) {
        const data::Losses lost = data::lossesOf(stream.lost);
        rows.push_back({harmless(stream.name)});
        for (const data::LossCause cause : data::kAllLossCauses)
            rows.back().push_back(data::groupedLossText(lost[cause]));
    }
    return table(rows);
}

std::string sequences(const Summary& summary) {
    std::vector<Row> rows = {{"channel", "gaps", "missing", "again or late", "restarts"}};
    for (const StreamSummary& stream : summary.streams) {
        if (!stream.sequence) {
            rows.push_back({harmless(stream.name), "-", "-", "-", "-"});
            continue;
        }
        const SequenceCounts& counts = *stream.sequence;
        rows.push_back({harmless(stream.name), grouped(counts.gaps), grouped(counts.lost), grouped(counts.late),
                        grouped(counts.restarts)});
    }
    return table(rows);
}

std::string instruments(const View& view) {
    std::vector<Row> rows = {{"id", "packets", "share", "bytes"}};
    if (view.other != nullptr) rows.front().emplace_back("packets of the other");
    const std::vector<InstrumentCounts>& all = view.summary->instruments;
    for (std::size_t i = 0; i < all.size() && i < view.top; ++i) {
        rows.push_back({harmless(all[i].id), grouped(all[i].packets), shareText(all[i].packets, view.summary->packets),
                        grouped(all[i].bytes)});
        if (view.other == nullptr) continue;
        const InstrumentCounts* const same = findInstrument(*view.other, all[i].id);
        rows.back().push_back(same != nullptr ? grouped(same->packets) : "-");
    }
    return table(rows);
}

std::string comparison(const View& view) {
    std::vector<Row> rows = {{"", "this one", "the other", "change"}};
    for (const Compared& one : compare(*view.summary, *view.other))
        rows.push_back({one.name, one.one, one.other, one.change});
    return "\nCompared with " + captureNames(*view.other) + "\n" + table(rows);
}

}  // namespace

std::string asText(const View& view) {
    const Summary& summary = *view.summary;
    std::string text = overview(summary);
    if (!summary.streams.empty()) {
        text += "\nChannels and types\n" + streams(summary);
        text += "\nPackets lost, by cause\n" + losses(summary);
        text += "\nSequence numbers\n" + sequences(summary);
    }
    if (!summary.instruments.empty() && view.top > 0) {
        const std::size_t shown = std::min(view.top, summary.instruments.size());
        text += "\nBusiest instruments: " + grouped(shown) + " of " + grouped(summary.instruments.size()) + "\n" +
                instruments(view);
    }
    if (view.other != nullptr) text += comparison(view);
    return text;
}

}  // namespace vexo::info
