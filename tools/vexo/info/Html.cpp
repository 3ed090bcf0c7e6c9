#include <algorithm>

#include "tools/Version.h"
#include "tools/vexo/info/Charts.h"
#include "tools/vexo/info/Style.h"
#include "tools/vexo/info/Views.h"
#include "tools/vexo/info/Words.h"

namespace vexo::info {
namespace {

// ---- tables ----

std::string head(const std::vector<std::string>& names) {
    std::string html = "<thead><tr>";
    for (const std::string& name : names) html += "<th scope=\"col\">" + escaped(name) + "</th>";
    return html + "</tr></thead>\n";
}

std::string cell(const std::string& text, bool isBad = false) {
    return (isBad ? "<td class=\"bad\">" : "<td>") + escaped(text) + "</td>";
}

std::string row(const std::string& name, const std::string& cells, const char* kind = "") {
    return std::string("<tr") + kind + "><th scope=\"row\">" + escaped(name) + "</th>" + cells + "</tr>\n";
}

// A wide table scrolls by itself, also with the keyboard; the page does not.
// @param kind  "narrow" for a table of few columns: an eye has to find the way from the first to the last one
std::string table(const std::string& name, const std::vector<std::string>& columns, const std::string& rows,
                  const std::string& kind = "wide") {
    return "<div class=\"scroll\" tabindex=\"0\" role=\"region\" aria-label=\"" + escaped(name) + "\"><table class=\"" +
           kind + "\">\n" + head(columns) + "<tbody>\n" + rows + "</tbody></table></div>\n";
}

// ---- the figures on top ----

std::string figure(const std::string& name, const std::string& value, const std::string& detail, bool isBad = false) {
    const std::string small = detail.empty() ? "" : "<small>" + escaped(detail) + "</small>";
    return std::string("<div") + (isBad ? " class=\"bad\"" : "") + "><dt>" + escaped(name) + "</dt><dd>" +
           escaped(value) + small + "</dd></div>\n";
}

std::string figures(const Summary& summary) {
    std::string html = "<dl class=\"figures\">\n";
    html += figure("Span", durationText(summary.lastNs - summary.firstNs), "");
    html += figure("Packets", grouped(summary.packets), bytesText(summary.bytes));
    html += figure("Packets a second", rateText(summary.meanRate()), "on average");
    html += figure("Busiest second", grouped(summary.second.packets),
                   "packets, from " + clockText(summary.second.startNs, 0));
    html += figure("Busiest millisecond", grouped(summary.millisecond.packets),
                   "packets, from " + clockText(summary.millisecond.startNs, 3));
    if (const StreamSummary* const stream = streamWithLongestBurst(summary)) {
        html += figure("Largest burst", grouped(stream->burst.packets),
                       "packets in " + durationText(stream->burst.endNs - stream->burst.startNs) + ", from " +
                           clockText(stream->burst.startNs, 3) + ", " + stream->name);
    }
    if (!summary.longestGaps.empty()) {
        const Gap& gap = summary.longestGaps.front();
        html += figure("Longest time without a packet", durationText(gap.lengthNs()),
                       "from " + clockText(gap.fromNs, 3));
    }
    const data::Count missing = missingOf(summary);
    html += figure("Missing in the sequence", data::groupedLossText(missing),
                   missing ? "packets" : "no layout has a sequence number", missing.value_or(0) > 0);
    return html + "</dl>\n";
}

std::string notes(const Summary& summary) {
    const std::vector<std::string> all = notesOf(summary);
    if (all.empty()) return "";
    std::string html = "<ul class=\"notes\">\n";
    for (const std::string& note : all) html += "<li>" + escaped(note) + "</li>\n";
    return html + "</ul>\n";
}

// ---- sections ----

// A row for each cause: a phone is high, not wide.
std::string losses(const Summary& summary) {
    std::vector<std::string> columns = {""};
    std::vector<data::Losses> lost;
    for (const StreamSummary& stream : summary.streams) {
        columns.push_back(stream.name);
        lost.push_back(data::lossesOf(stream.lost));
    }
    std::string rows;
    for (const data::LossCause cause : data::kAllLossCauses) {
        std::string cells;
        for (const data::Losses& one : lost)
            cells += cell(data::groupedLossText(one[cause]), one[cause].value_or(0) > 0);
        rows += row(std::string("lost ") + data::nameOf(cause), cells);
    }
    const auto counted = [&](const char* name, std::uint64_t SequenceCounts::*count, bool isLoss) {
        std::string cells;
        for (const StreamSummary& stream : summary.streams) {
            const std::uint64_t n = stream.sequence ? (*stream.sequence).*count : 0;
            cells += cell(stream.sequence ? grouped(n) : "-", isLoss && n > 0);
        }
        rows += row(name, cells);
    };
    counted("sequence: missing", &SequenceCounts::lost, true);
    counted("sequence: gaps", &SequenceCounts::gaps, false);
    counted("sequence: again or late", &SequenceCounts::late, false);
    counted("sequence: restarts", &SequenceCounts::restarts, false);
    return table("Packets lost, by channel and cause", columns, rows, "narrow");
}

std::string channels(const Summary& summary) {
    std::string rows;
    for (const StreamSummary& stream : summary.streams) {
        rows += row(stream.name, cell(grouped(stream.packets)) + cell(bytesText(stream.bytes)) +
                                     cell(shareText(stream.packets, summary.packets)) +
                                     cell(grouped(stream.second.packets)) + cell(grouped(stream.millisecond.packets)) +
                                     cell(durationText(stream.longestGap.lengthNs())));
        for (const TypeCounts& type : stream.types) {
            const std::string meaning = type.meaning.empty() ? "" : ", " + type.meaning;
            rows += row("type " + typeName(type.type) + meaning,
                        cell(grouped(type.packets)) + cell(bytesText(type.bytes)) +
                            cell(shareText(type.packets, summary.packets)) + cell("") + cell("") + cell(""),
                        " class=\"part\"");
        }
    }
    return table("Channels and types of packets",
                 {"channel", "packets", "bytes", "share", "busiest second", "busiest ms", "longest gap"}, rows);
}

std::string instruments(const View& view) {
    const std::vector<InstrumentCounts>& all = view.summary->instruments;
    if (all.empty() || view.top == 0) return "";
    const std::size_t shown = std::min(view.top, all.size());
    std::vector<std::string> columns = {"id", "", "packets", "share"};
    if (view.other != nullptr) columns.emplace_back("packets of the other");
    std::string rows;
    for (std::size_t i = 0; i < shown; ++i) {
        const double share = static_cast<double>(all[i].packets) / static_cast<double>(all.front().packets);
        std::string cells = "<td class=\"bars\">" + cellBar(share) + "</td>" + cell(grouped(all[i].packets)) +
                            cell(shareText(all[i].packets, view.summary->packets));
        if (view.other != nullptr) {
            const InstrumentCounts* const same = findInstrument(*view.other, all[i].id);
            cells += cell(same != nullptr ? grouped(same->packets) : "-");
        }
        rows += row(all[i].id, cells);
    }
    return "<h2>Busiest instruments</h2>\n<p class=\"faint\">" + grouped(shown) + " of " + grouped(all.size()) +
           "</p>\n" + table("Busiest instruments", columns, rows);
}

std::string comparison(const View& view) {
    std::string rows;
    for (const Compared& one : compare(*view.summary, *view.other))
        rows += row(one.name, cell(one.one) + cell(one.other) + cell(one.change));
    return "<h2>Comparison</h2>\n<p><span class=\"key one\"></span> This one: " + escaped(captureNames(*view.summary)) +
           "</p>\n<p><span class=\"key other\"></span> The other: " + escaped(captureNames(*view.other)) + "</p>\n" +
           table("Comparison", {"", "this one", "the other", "change"}, rows, "narrow");
}

std::uint64_t spanOf(const Summary& summary) { return summary.timeline.bins().size() * summary.timeline.widthNs(); }

// Charts of both have the same axes, so that they can be compared by eye.
template <typename Chart>
std::string forBoth(const View& view, const Chart& chart) {
    std::string html;
    for (const Summary* const summary : {view.summary, view.other}) {
        if (summary == nullptr || summary->packets == 0) continue;
        if (view.other == nullptr) {
            html += chart(*summary);
        } else if (summary == view.summary) {
            html += "<h3>This one</h3>\n" + chart(*summary);
        } else {
            html += "<div class=\"second\">\n<h3>The other</h3>\n" + chart(*summary) + "</div>\n";
        }
    }
    return html;
}

std::string sentenceOf(const std::string& before, const std::vector<std::string>& names, const std::string& behind) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
    return text.empty() ? "" : "<p>" + escaped(before + text + behind) + "</p>\n";
}

// Of the streams that have no picture of their losses.
std::string whyNoChart(const Summary& summary) {
    std::vector<std::string> whole;
    std::vector<std::string> counted;
    std::vector<std::string> unknown;
    for (const StreamSummary& stream : summary.streams) {
        if (stream.packets == 0) continue;
        if (stream.sequence) {
            if (stream.sequence->lost == 0) whole.push_back(stream.name);
        } else if (stream.counted.empty()) {
            (stream.lost.backPressure && stream.countedWithoutTime == 0 ? counted : unknown).push_back(stream.name);
        }
    }
    return sentenceOf("No number is missing in the sequence: ", whole, ".") +
           sentenceOf("No layout says where the sequence number is, and no loss was counted: ", counted, ".") +
           sentenceOf("When packets were lost is not known, because no layout says where the sequence number is: ",
                      unknown, ".");
}

std::string charts(const View& view) {
    std::uint64_t spanNs = spanOf(*view.summary);
    double mostRate = mostRateOf(*view.summary);
    std::uint64_t mostLost = mostLostOf(*view.summary);
    if (view.other != nullptr) {
        spanNs = std::max(spanNs, spanOf(*view.other));
        mostRate = std::max(mostRate, mostRateOf(*view.other));
        mostLost = std::max(mostLost, mostLostOf(*view.other));
    }
    std::string html = "<h2>Rate</h2>\n" +
                       forBoth(view, [&](const Summary& one) { return rateChart(one, spanNs, mostRate); });
    html += "<h2>Losses</h2>\n" + forBoth(view, [&](const Summary& one) {
                return lossChart(one, spanNs, mostLost) + whyNoChart(one) + losses(one);
            });
    return html + "<h2>Gaps</h2>\n" + gapChart(*view.summary, view.other);
}

std::string begin(const View& view) {
    std::string name = escaped(captureNames(*view.summary));
    if (view.other != nullptr) name += " compared with " + escaped(captureNames(*view.other));
    // Nothing of a capture can make the browser load or run anything.
    return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\"/>\n"
           "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src 'unsafe-inline'\"/>\n"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"/>\n<title>" +
           name + "</title>\n<style>" + kStyle + "</style>\n</head>\n<body>\n<header>\n<h1>" + name + "</h1>\n";
}

// A recorder makes thousands of them.
std::string filesOf(const Summary& summary) {
    constexpr std::size_t kMost = 50;
    std::string names;
    for (std::size_t i = 0; i < std::min(kMost, summary.files.size()); ++i)
        names += (i == 0 ? "" : ", ") + summary.files[i].path;
    if (summary.files.size() > kMost) names += " and " + grouped(summary.files.size() - kMost) + " more";
    return names;
}

std::string end(const View& view) {
    const Summary& summary = *view.summary;
    std::string html =
        "<footer class=\"faint\">\n<p>Times are those of the exchange's zone, UTC+8. A burst is packets of "
        "one channel, each of which came " +
        durationText(summary.burstNs) + " or less after the one before. A dash: not known.</p>\n";
    html += "<p>" + escaped(filesOf(summary)) + "</p>\n";
    return html + "<p>vexo info " + kVexoVersion + "</p>\n</footer>\n</body>\n</html>\n";
}

}  // namespace

std::string asHtml(const View& view) {
    const Summary& summary = *view.summary;
    std::string html = begin(view);
    if (summary.packets == 0) return html + "<p>No packet.</p>\n</header>\n" + notes(summary) + end(view);
    html += "<p class=\"faint\">" + momentText(summary.firstNs, 3) + " to " + momentText(summary.lastNs, 3) +
            "</p>\n</header>\n<main>\n" + figures(summary) + notes(summary);
    if (view.other != nullptr) html += comparison(view);
    html += charts(view) + instruments(view) + "<h2>Channels and types</h2>\n" + channels(summary) + "</main>\n";
    return html + end(view);
}

}  // namespace vexo::info
