#include "capture/Blocks.h"

#include <algorithm>
#include <cstring>

#include "capture/Format.h"

namespace capture {
namespace {

constexpr std::size_t kMaxText = 4096;

template <typename Value>
void append(BlockBuffer& out, const Value& value) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&value);
    out.insert(out.end(), bytes, bytes + sizeof value);
}

void appendPadded(BlockBuffer& out, const void* data, std::uint32_t size) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    if (size > 0) out.insert(out.end(), bytes, bytes + size);
    out.insert(out.end(), format::padded(size) - size, 0);
}

void appendOption(BlockBuffer& out, std::uint16_t code, const void* data, std::size_t size) {
    append(out, format::OptionHead{code, static_cast<std::uint16_t>(size)});
    appendPadded(out, data, static_cast<std::uint32_t>(size));
}

void appendOption(BlockBuffer& out, std::uint16_t code, const std::string& text) {
    if (!text.empty()) appendOption(out, code, text.data(), std::min(text.size(), kMaxText));
}

// A time is two words, high word first. A count is one number.
void appendTimeOption(BlockBuffer& out, std::uint16_t code, std::uint64_t ns) {
    const std::uint32_t words[] = {format::high(ns), format::low(ns)};
    appendOption(out, code, words, sizeof words);
}

// Ends the options and the block that began at @p start.
void close(BlockBuffer& out, std::size_t start) {
    append(out, format::OptionHead{format::kEnd, 0});
    const auto length = static_cast<std::uint32_t>(out.size() - start + sizeof(std::uint32_t));
    std::memcpy(out.data() + start + sizeof(std::uint32_t), &length, sizeof length);
    append(out, length);
}

}  // namespace

void appendSection(BlockBuffer& out, const SectionInfo& info) {
    const std::size_t start = out.size();
    append(out, format::SectionHead{format::kSectionHeader, 0, format::kByteOrderMagic, 1, 0, -1});
    appendOption(out, format::kComment, info.comment);  // first: a recorder finds its mark there
    appendOption(out, format::kSectionHardware, info.hardware);
    appendOption(out, format::kSectionOs, info.os);
    appendOption(out, format::kSectionApplication, info.application);
    close(out, start);
}

void appendInterface(BlockBuffer& out, const InterfaceInfo& info) {
    const std::size_t start = out.size();
    append(out, format::InterfaceHead{format::kInterfaceDescription, 0, info.linkType, 0, 0});
    appendOption(out, format::kInterfaceName, info.name);
    appendOption(out, format::kInterfaceDescriptionText, info.description);
    appendOption(out, format::kInterfaceTimeUnit, &format::kNanoseconds, 1);
    close(out, start);
}

void appendPacket(BlockBuffer& out, std::uint32_t interface, std::uint64_t timeNs, const void* data, std::uint32_t size,
                  std::uint32_t trueSize) {
    const std::uint32_t length = packetBlockBytes(size);
    append(out, format::PacketHead{format::kEnhancedPacket, length, interface, format::high(timeNs),
                                   format::low(timeNs), size, std::max(size, trueSize)});
    appendPadded(out, data, size);
    append(out, length);
}

void appendStatistics(BlockBuffer& out, std::uint32_t interface, const InterfaceCounts& counts) {
    const std::size_t start = out.size();
    append(out, format::StatisticsHead{format::kInterfaceStatistics, 0, interface, format::high(counts.endNs),
                                       format::low(counts.endNs)});
    appendTimeOption(out, format::kStatisticsStart, counts.startNs);
    appendTimeOption(out, format::kStatisticsEnd, counts.endNs);
    appendOption(out, format::kStatisticsReceived, &counts.received, sizeof counts.received);
    appendOption(out, format::kStatisticsDropped, &counts.dropped, sizeof counts.dropped);
    if (counts.card) appendOption(out, format::kComment, textOf(*counts.card));
    close(out, start);
}

std::uint32_t packetBlockBytes(std::uint32_t size) {
    return static_cast<std::uint32_t>(sizeof(format::PacketHead) + sizeof(std::uint32_t)) + format::padded(size);
}

std::uint32_t statisticsBlockBytes() {
    constexpr std::size_t options = 6 * sizeof(format::OptionHead) + 4 * sizeof(std::uint64_t) +
                                    format::padded(kMostCardText);
    return static_cast<std::uint32_t>(sizeof(format::StatisticsHead) + options + sizeof(std::uint32_t));
}

}  // namespace capture
