#include "capture/Reader.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <utility>

#include "capture/Format.h"

namespace capture {
namespace {

constexpr std::uint64_t kNsPerSecond = 1'000'000'000;
constexpr std::uint32_t kReadStep = 64 * 1024;

std::uint64_t joined(std::uint32_t high, std::uint32_t low) { return std::uint64_t{high} << 32 | low; }

std::uint64_t nanoseconds(std::uint64_t units, std::uint64_t unitsPerSecond) {
    return units / unitsPerSecond * kNsPerSecond + units % unitsPerSecond * kNsPerSecond / unitsPerSecond;
}

template <typename Value>
Value load(const unsigned char* from) {
    Value value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

std::uint64_t loadTime(const unsigned char* from, std::uint64_t unitsPerSecond) {
    return nanoseconds(joined(load<std::uint32_t>(from), load<std::uint32_t>(from + 4)), unitsPerSecond);
}

}  // namespace

struct Reader::Option {
    std::uint16_t code;
    std::uint16_t length;
    const unsigned char* data;

    std::string text() const { return std::string(reinterpret_cast<const char*>(data), length); }
};

Reader::Reader(std::istream& in, Start start)
    : m_in(in), m_nextOffset(start.offset), m_interfaces(std::move(start.interfaces)), m_inSection(true) {
    m_in.seekg(static_cast<std::streamoff>(start.offset));
}

Start Reader::startAt(const Place& place) const {
    const auto at = [this](std::size_t number) { return m_interfaces.begin() + static_cast<std::ptrdiff_t>(number); };
    return {place.offset, {at(place.firstInterface), at(place.endInterface)}};
}

bool Reader::next(Packet& packet) {
    Step last;
    do {
        last = step(packet);
    } while (last == Step::kOther);
    return last == Step::kPacket;
}

Reader::Step Reader::step(Packet& packet) {
    bool isPacket = false;
    if (m_damage || !readBlock() || !takeBlock(packet, isPacket)) return Step::kEnd;
    return isPacket ? Step::kPacket : Step::kOther;
}

bool Reader::fail(const std::string& what) {
    m_damage = Damage{m_offset, "at byte " + std::to_string(m_offset) + ": " + what};
    return false;
}

bool Reader::cutOff(std::uint64_t wanted, std::uint64_t found) {
    if (m_in.bad()) return fail("the file cannot be read");
    return fail("the file ends inside a block: " + std::to_string(found) + " of at least " + std::to_string(wanted) +
                " bytes");
}

// The end of the file is no damage, unless the file is empty.
void Reader::expectEndOfFile() {
    if (m_in.bad()) {
        fail("the file cannot be read");
    } else if (m_offset == 0) {
        fail("the file is empty");
    }
}

bool Reader::isFrameGood(std::uint32_t type, std::uint32_t length) {
    if (!m_inSection && type != format::kSectionHeader) return fail("this is not the start of a pcapng file");
    if (type == format::kSectionHeader) {
        const auto order = load<std::uint32_t>(m_block.data() + 8);
        if (order == format::kSwappedMagic) return fail("written on a machine of the other byte order");
        if (order != format::kByteOrderMagic) return fail("the section header has no byte-order mark");
    }
    if (length < format::kFrameBytes || length % 4 != 0 || length > format::kMaxBlockBytes) {
        return fail("no block is " + std::to_string(length) + " bytes long");
    }
    return true;
}

bool Reader::readBlock() {
    m_offset = m_nextOffset;
    m_block.resize(format::kFrameBytes);
    m_in.read(reinterpret_cast<char*>(m_block.data()), format::kFrameBytes);
    const auto found = static_cast<std::uint64_t>(m_in.gcount());
    if (found == 0) {
        expectEndOfFile();
        return false;
    }
    if (found < format::kFrameBytes) return cutOff(format::kFrameBytes, found);
    const auto length = load<std::uint32_t>(m_block.data() + 4);
    return isFrameGood(load<std::uint32_t>(m_block.data()), length) && readRest(length);
}

bool Reader::readRest(std::uint32_t length) {
    // In steps: the length of a damaged block takes no more memory than the file has bytes.
    for (std::uint32_t have = format::kFrameBytes; have < length;) {
        const std::uint32_t step = std::min(length - have, kReadStep);
        m_block.resize(have + step);
        m_in.read(reinterpret_cast<char*>(m_block.data()) + have, step);
        const auto found = static_cast<std::uint32_t>(m_in.gcount());
        have += found;
        if (found < step) return cutOff(length, have);
    }
    if (load<std::uint32_t>(m_block.data() + length - 4) != length) {
        return fail("the block's two lengths differ: " + std::to_string(length) + " and " +
                    std::to_string(load<std::uint32_t>(m_block.data() + length - 4)));
    }
    m_nextOffset = m_offset + length;
    return true;
}

bool Reader::takeBlock(Packet& packet, bool& isPacket) {
    switch (load<std::uint32_t>(m_block.data())) {
        case format::kSectionHeader: return takeSection();
        case format::kInterfaceDescription: return takeInterface();
        case format::kInterfaceStatistics: return takeStatistics();
        case format::kEnhancedPacket: isPacket = true; return takePacket(packet);
        default: return true;
    }
}

template <typename Head>
bool Reader::head(Head& value, const char* kind) {
    if (m_block.size() < sizeof value + sizeof(std::uint32_t)) return fail(std::string("too short for ") + kind);
    std::memcpy(&value, m_block.data(), sizeof value);
    return true;
}

bool Reader::takeSection() {
    format::SectionHead section;
    if (!head(section, "a section header")) return false;
    if (section.major != 1) return fail("pcapng version " + std::to_string(section.major) + " is not known");
    m_inSection = true;
    m_firstOfSection = m_interfaces.size();
    return true;
}

// @return false after the last option, and when an option is damaged.
bool Reader::nextOption(std::size_t& position, Option& option) {
    const std::size_t end = m_block.size() - sizeof(std::uint32_t);
    if (position + sizeof(format::OptionHead) > end) return false;
    const auto optionHead = load<format::OptionHead>(m_block.data() + position);
    if (optionHead.code == format::kEnd) return false;
    position += sizeof optionHead;
    if (optionHead.length > end - position) return fail("an option reaches past its block");
    option = {optionHead.code, optionHead.length, m_block.data() + position};
    position += format::padded(optionHead.length);
    return true;
}

bool Reader::takeTimeUnit(Interface& interface, const Option& option) {
    const std::uint8_t exponent = option.length == 1 ? *option.data : std::uint8_t{0xFF};
    const unsigned power = exponent & ~unsigned{format::kPowerOfTwo};
    const bool binary = (exponent & format::kPowerOfTwo) != 0;
    if (power > (binary ? 29 : 9)) return fail("times finer than a nanosecond are not known");
    interface.unitsPerSecond = 1;
    for (unsigned i = 0; i < power; ++i) interface.unitsPerSecond *= binary ? 2 : 10;
    return true;
}

bool Reader::takeInterface() {
    format::InterfaceHead description;
    if (!head(description, "an interface description")) return false;
    Interface interface;
    interface.info.linkType = description.linkType;
    Option option;
    for (std::size_t position = sizeof description; nextOption(position, option);) {
        if (option.code == format::kInterfaceName) interface.info.name = option.text();
        if (option.code == format::kInterfaceDescriptionText) interface.info.description = option.text();
        if (option.code == format::kInterfaceTimeUnit && !takeTimeUnit(interface, option)) return false;
    }
    if (m_damage) return false;
    m_interfaceBytes += sizeof interface + interface.info.name.size() + interface.info.description.size();
    if (m_interfaceBytes > kMostInterfaceBytes) return fail("the interfaces take more than 64 MB of memory");
    m_interfaces.push_back(interface);
    return true;
}

Interface* Reader::interfaceOf(std::uint32_t number) {
    if (number < m_interfaces.size() - m_firstOfSection) return &m_interfaces[m_firstOfSection + number];
    fail("interface " + std::to_string(number) + " has not been described");
    return nullptr;
}

bool Reader::takePacket(Packet& packet) {
    format::PacketHead block;
    if (!head(block, "a packet")) return false;
    const Interface* interface = interfaceOf(block.interface);
    if (interface == nullptr) return false;
    const std::size_t room = m_block.size() - sizeof block - sizeof(std::uint32_t);
    if (block.capturedLength > room) {
        return fail("a packet of " + std::to_string(block.capturedLength) + " bytes in a block with room for " +
                    std::to_string(room));
    }
    packet = {interface,
              nanoseconds(joined(block.timeHigh, block.timeLow), interface->unitsPerSecond),
              m_block.data() + sizeof block,
              block.capturedLength,
              std::max(block.capturedLength, block.originalLength),
              m_offset};
    return true;
}

bool Reader::takeStatistics() {
    format::StatisticsHead block;
    if (!head(block, "interface statistics")) return false;
    Interface* interface = interfaceOf(block.interface);
    if (interface == nullptr) return false;
    InterfaceCounts counts;
    Option option;
    for (std::size_t position = sizeof block; nextOption(position, option);) {
        if (option.code == format::kComment) counts.card = cardCountsOf(option.text());
        if (option.length != sizeof(std::uint64_t)) continue;
        if (option.code == format::kStatisticsStart) counts.startNs = loadTime(option.data, interface->unitsPerSecond);
        if (option.code == format::kStatisticsEnd) counts.endNs = loadTime(option.data, interface->unitsPerSecond);
        if (option.code == format::kStatisticsReceived) counts.received = load<std::uint64_t>(option.data);
        if (option.code == format::kStatisticsDropped) counts.dropped = load<std::uint64_t>(option.data);
    }
    if (m_damage) return false;
    interface->counts = counts;
    return true;
}

}  // namespace capture
