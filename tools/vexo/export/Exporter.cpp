#include "tools/vexo/export/Exporter.h"

#include <algorithm>
#include <cstdio>

#include "tools/vexo/show/Harmless.h"

namespace vexo::exporting {
namespace {

constexpr std::uint32_t kContractMap = 2;  // has no payload that a layout could describe

constexpr const char* kFilterNames[kRejections] = {"--from or --until", "--type", "--channel", "--id", "--session"};

std::string packetsText(std::uint64_t count) { return std::to_string(count) + (count == 1 ? " packet" : " packets"); }

// As --from and --until take it.
std::string momentText(std::uint64_t ns) {
    const vexo_zce::HostTime time = vexo_zce::hostTimeOf(ns);
    char text[48];
    std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u", time.date / 10000, time.date / 100 % 100,
                  time.date % 100, time.second / 3600, time.second / 60 % 60, time.second % 60);
    return text;
}

unsigned long long shown(std::uint64_t number) { return number; }

}  // namespace

std::uint64_t Exporter::take(const std::string& path, Progress& progress, std::uint64_t bytesBefore) {
    try {
        data::CaptureSource source(path);
        takeAll(path, source, progress, bytesBefore);
        return source.fileBytes();
    } catch (const data::SourceError& error) {  // it could be opened at the start
        m_outcome.isDamaged = true;
        progress.clear();
        std::fprintf(stderr, "vexo: %s; nothing of it is exported\n", error.what());
        return 0;
    }
}

void Exporter::takeAll(const std::string& path, data::CaptureSource& source, Progress& progress,
                       std::uint64_t bytesBefore) {
    capture::Reader reader(source.stream());
    m_maker.beginCapture();
    capture::Packet packet;
    Row row;
    bool isAny = false;
    while (!isFull() && reader.next(packet)) {
        isAny = true;
        takePacket(packet, row);
        progress.update(m_outcome.rows, bytesBefore + source.readBytes());
    }
    if (!reader.damage()) return;
    m_outcome.isDamaged = true;
    progress.clear();
    std::fprintf(stderr, "vexo: %s: %s; %s\n", path == "-" ? "standard input" : harmless(path).c_str(),
                 data::faultOf(reader, source).c_str(),
                 isAny ? "what precedes it is exported" : "no packet precedes it");
}

bool Exporter::isRejected(Rejection why) {
    if (why == Rejection::kNone) return false;
    ++m_outcome.rejected[static_cast<std::size_t>(why)];
    return true;
}

void Exporter::noteId(const Row& row) {
    std::vector<std::string>& left = m_outcome.idsWithoutRow;
    left.erase(std::remove_if(left.begin(), left.end(), [&](const std::string& one) { return matches(one, row.id); }),
               left.end());
}

void Exporter::countUnknown(const Row& row) {
    if (!row.hasType) {
        ++m_outcome.tooShort;
    } else if (row.type == kContractMap) {
        ++m_outcome.maps;
    } else if (m_outcome.unknown.size() < Outcome::kMostTypes || m_outcome.unknown.count(row.type) > 0) {
        ++m_outcome.unknown[row.type];
    } else {
        ++m_outcome.unknownOfOtherTypes;
    }
}

void Exporter::takePacket(const capture::Packet& packet, Row& row) {
    if (!m_maker.begin(packet, row)) return;
    m_outcome.firstNs = m_outcome.packets == 0 ? packet.timeNs : std::min(m_outcome.firstNs, packet.timeNs);
    m_outcome.lastNs = std::max(m_outcome.lastNs, packet.timeNs);
    ++m_outcome.packets;
    if (isRejected(m_filter.rejects(row))) return;
    if (row.payload == nullptr && !m_filter.takesUnknown) return countUnknown(row);
    if (isRejected(m_filter.rejectsId(row))) return;
    m_maker.addQuoteTime(row);
    if (isRejected(m_filter.rejectsSession(row))) return;
    noteId(row);
    m_maker.complete(row);
    m_writer.add(m_maker, row);
    ++m_outcome.rows;
    if (isFull()) m_outcome.idsWithoutRow.clear();  // nobody looks at what follows
}

std::string whyNoRow(const Outcome& outcome) {
    if (outcome.packets == 0) return "there is no packet of a stream";
    std::string text = "of " + packetsText(outcome.packets);
    const char* separator = ", ";
    const auto add = [&](std::uint64_t count, const std::string& what) {
        if (count > 0) text += separator + std::to_string(count) + what;
    };
    add(outcome.tooShort, " too short to have a type");
    add(outcome.maps, " of type 2 (contract maps, without quotes)");
    for (const auto& [type, count] : outcome.unknown) {
        add(count, " of type " + std::to_string(type) + " (not in the layout)");
    }
    add(outcome.unknownOfOtherTypes, " of other types (not in the layout)");
    for (std::size_t i = 0; i < kRejections; ++i) {
        add(outcome.rejected[i], std::string(" left out by ") + kFilterNames[i]);
    }
    if (outcome.rejected[static_cast<std::size_t>(Rejection::kTime)] > 0)
        text += "; the packets are from " + momentText(outcome.firstNs) + " to " + momentText(outcome.lastNs) +
                " (UTC+8)";
    return text;
}

void sayWhatIsMissing(const Outcome& outcome, const RowMaker& maker) {
    if (outcome.tooShort > 0)
        std::fprintf(stderr, "vexo: %llu packets are too short to have a type: left out\n", shown(outcome.tooShort));
    for (const auto& [type, count] : outcome.unknown) {
        std::fprintf(stderr,
                     "vexo: no layout describes %llu packets of type %u: left out. Give a layout with --layout, or "
                     "their bytes with the column payload\n",
                     shown(count), type);
    }
    if (outcome.unknownOfOtherTypes > 0) {
        std::fprintf(stderr, "vexo: no layout describes %llu packets of other types: left out\n",
                     shown(outcome.unknownOfOtherTypes));
    }
    if (maker.nonsenseTimes() > 0) {
        std::fprintf(stderr, "vexo: %llu quotes have an exchange time that is none: without day and session\n",
                     shown(maker.nonsenseTimes()));
    }
    for (const std::string& id : outcome.idsWithoutRow) {
        if (outcome.rows > 0) std::fprintf(stderr, "vexo: --id %s: no row has this id\n", harmless(id).c_str());
    }
    if (outcome.rows == 0) {
        std::fprintf(stderr, "vexo: no packet became a row, so nothing is written: %s\n", whyNoRow(outcome).c_str());
    }
}

}  // namespace vexo::exporting
