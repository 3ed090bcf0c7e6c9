#include <pwd.h>
#include <algorithm>
#include <array>
#include <cstdio>

#include "tools/vexo/show/Harmless.h"
#include "tools/vexo/stat/Views.h"

namespace vexo::stat {
namespace {

using vexo_stats::kUnknown;
using vexo_stats::Stream;

template <typename... Arguments>
std::string format(const char* how, Arguments... arguments) {
    char text[256];
    std::snprintf(text, sizeof text, how, arguments...);
    return text;
}

std::string userName(uid_t user) {
    const passwd* entry = ::getpwuid(user);
    return entry != nullptr ? harmless(entry->pw_name) : std::to_string(user);
}

std::string packetLine(const Stream& stream) {
    std::string line = grouped(packetsOf(stream));
    if (bytesOf(stream) != 0) line += ", " + grouped(bytesOf(stream)) + " bytes";
    const char* mark = ": ";
    for (std::size_t slot = 0; slot < vexo_stats::kTypeSlots; ++slot) {
        if (stream.packets[slot] == 0) continue;
        line += mark + ("type " + typeName(slot) + " ") + grouped(stream.packets[slot]);
        mark = ", ";
    }
    return line;
}

std::string pollLine(const Stream& stream) {
    const std::uint64_t packets = packetsOf(stream);
    const std::uint64_t polls = packets + stream.idlePolls + stream.failedPolls;
    return grouped(polls) + ": " + grouped(stream.idlePolls) + " idle, " + grouped(stream.failedPolls) + " failed";
}

std::string histogramLine(const std::uint64_t (&buckets)[vexo_stats::kBuckets], std::size_t used, const Page& page) {
    const auto below = [&](double share) { return duration(boundOf(buckets, used, share, page)); };
    return "half below " + below(0.5) + ", 99 % below " + below(0.99) + ", all below " + below(1);
}

std::string sequenceLine(const Stream& stream) {
    return grouped(stream.sequenceGaps) + " gaps of " + grouped(stream.sequenceLost) + " packets, " +
           grouped(stream.sequenceLate) + " again or late, " + grouped(stream.sequenceRestarts) + " restarts";
}

// Packets a second since an earlier look; empty if it did not see the stream.
std::string rateLine(const Page& page, std::size_t i, const std::vector<Page>& before) {
    for (const Page& old : before) {
        if (old.file != page.file || old.process.processStart != page.process.processStart) continue;
        const Stream* const same = sameStream(page, i, old);
        if (same == nullptr || page.readClock <= old.readClock) return "";
        const std::uint64_t now = packetsOf(page.streams[i]);
        const std::uint64_t more = now - std::min(now, packetsOf(*same));
        return format("%.0f packets a second",
                      static_cast<double>(more) / page.seconds(page.readClock - old.readClock));
    }
    return "";
}

bool hasGaps(const Stream& stream) {
    return std::any_of(stream.gaps, stream.gaps + kGapBuckets, [](std::uint64_t count) { return count != 0; });
}

std::string streamText(const Page& page, std::size_t i, const std::vector<Page>& before) {
    const Stream& stream = page.streams[i];
    std::string text = "  card " + numberOrNone(stream.card) + " channel " + numberOrNone(stream.channel) +
                       (stream.state == vexo_stats::kOpen ? "" : ", closed") + "\n";
    const auto line = [&text](const char* name, const std::string& what) {
        text += format("    %-16s ", name) + what + "\n";
    };
    line("packets", packetLine(stream));
    const std::string rate = rateLine(page, i, before);
    if (!rate.empty()) line("rate", rate);
    if (stream.pollsKnown != 0) line("polls", pollLine(stream));
    if (packetsOf(stream) != 0 && stream.firstPacket != 0) {
        if (page.life == Life::kRunning)
            line("last packet", duration(page.seconds(page.readClock - lastPacketOf(stream))) + " ago");
        if (hasGaps(stream)) line("between packets", histogramLine(stream.gaps, kGapBuckets, page));
        if (knowsCallbacks(stream)) line("callbacks", histogramLine(stream.callbacks, vexo_stats::kBuckets, page));
    }
    if (stream.sequenceKnown != 0) line("sequence", sequenceLine(stream));
    line("lost", data::lossLine(lossOf(stream)));
    return text;
}

}  // namespace

std::string duration(double seconds) {
    if (seconds < 1e-6) return format("%.3g ns", seconds * 1e9);
    if (seconds < 1e-3) return format("%.3g us", seconds * 1e6);
    if (seconds < 1) return format("%.3g ms", seconds * 1e3);
    return format("%.1f s", seconds);
}

std::string processName(const Page& page) { return harmless(page.program()) + " " + std::to_string(page.process.pid); }

std::string lifeLine(const Page& page) {
    const std::uint64_t began = page.process.steps[vexo_stats::kBegun];
    switch (page.life) {
        case Life::kRunning: return "running for " + duration(page.seconds(page.readClock - began));
        case Life::kEnded:
            return "ended after " + duration(page.seconds(page.process.steps[vexo_stats::kEnded] - began));
        case Life::kUnseen: return "in another container";
        default: return "died";
    }
}

std::string startUpLine(const Page& page) {
    std::string line;
    const std::uint64_t began = page.process.steps[vexo_stats::kBegun];
    for (int step = vexo_stats::kBegun + 1; step < vexo_stats::kEnded; ++step) {
        const std::uint64_t at = page.process.steps[step];
        if (at == 0) continue;
        std::string name = nameOf(static_cast<vexo_stats::Step>(step));
        std::replace(name.begin(), name.end(), '_', ' ');
        line += (line.empty() ? "" : ", ") + name + " " + duration(page.seconds(at - began));
    }
    return line;
}

double boundOf(const std::uint64_t (&buckets)[vexo_stats::kBuckets], std::size_t used, double share, const Page& page) {
    std::uint64_t all = 0;
    for (std::size_t b = 0; b < used; ++b) all += buckets[b];
    std::uint64_t below = 0;
    for (std::size_t b = 0; b < used && all > 0; ++b) {
        below += buckets[b];
        if (static_cast<double>(below) >= share * static_cast<double>(all) && below > 0) return page.endOfBucket(b);
    }
    return 0;
}

const char* nameOf(vexo_stats::Step step) {
    static const char* const kNames[vexo_stats::kSteps] = {"begun",        "card_looked_up", "reset",
                                                           "first_write",  "stream_opened",  "first_poll",
                                                           "first_packet", "first_quote",    "ended"};
    return kNames[step];
}

const char* nameOf(Life life) {
    switch (life) {
        case Life::kRunning: return "running";
        case Life::kEnded: return "ended";
        case Life::kUnseen: return "unseen";
        default: return "died";
    }
}

const char* writerOf(const Page& page) {
    switch (page.process.writer) {
        case vexo_stats::kTap: return "tap";
        case vexo_stats::kRelay: return "relay";
        default: return "application";
    }
}

std::string typeName(std::size_t slot) {
    if (slot == vexo_stats::kOtherType) return "other";
    if (slot == vexo_stats::kNoType) return "none";
    return std::to_string(slot);
}

std::string numberOrNone(std::uint64_t n) { return n == kUnknown ? "-" : std::to_string(n); }

std::string asText(const std::vector<Page>& pages, const std::vector<Page>& before) {
    std::string text;
    for (const Page& page : pages) {
        if (!text.empty()) text += "\n";
        text += processName(page) + " of " + userName(page.owner) + ", counted by the " + writerOf(page) + ", " +
                lifeLine(page) + "\n";
        if (page.process.clockIsEven == 0) text += "  the processor's clock is uneven: times are rough\n";
        const std::string steps = startUpLine(page);
        if (!steps.empty()) text += "  start-up: " + steps + "\n";
        for (std::size_t i = 0; i < page.streams.size(); ++i) text += streamText(page, i, before);
    }
    return text;
}

std::string asLossTable(const std::vector<Page>& pages) {
    constexpr std::size_t kColumns = 4 + data::kLossCauses;
    std::vector<std::array<std::string, kColumns>> rows = {{"program", "card", "channel", "packets"}};
    for (const data::LossCause cause : data::kAllLossCauses)
        rows[0][4 + static_cast<std::size_t>(cause)] = data::nameOf(cause);
    for (const Page& page : pages) {
        for (const Stream& stream : page.streams) {
            rows.push_back({processName(page), numberOrNone(stream.card), numberOrNone(stream.channel),
                            std::to_string(packetsOf(stream))});
            const data::Losses losses = lossOf(stream);
            for (const data::LossCause cause : data::kAllLossCauses)
                rows.back()[4 + static_cast<std::size_t>(cause)] = data::lossText(losses[cause]);
        }
    }
    std::array<std::size_t, kColumns> widths{};
    for (const auto& row : rows)
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    std::string text;
    for (const auto& row : rows) {
        std::string line = row[0] + std::string(widths[0] - row[0].size(), ' ');
        for (std::size_t i = 1; i < row.size(); ++i)
            line += "  " + std::string(widths[i] - row[i].size(), ' ') + row[i];
        text += line + "\n";
    }
    return text;
}

}  // namespace vexo::stat
