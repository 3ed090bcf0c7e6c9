#include "tools/relay/Contracts.h"

#include <VexoZceInstrument.h>
#include <cstring>
#include <utility>

namespace relay {
namespace {

namespace wire = vexo_sim::wire;

// An id has one digit of its year. Any date reads it: the key has the same digit.
constexpr std::uint32_t kAnyDate = 20200101;

}  // namespace

Contracts::Contracts(const vexo::data::Layouts& layouts, vexo_sim::remote::Place place)
    : m_layouts(layouts), m_place(std::move(place)) {}

std::uint32_t Contracts::find(const unsigned char* packet, std::uint32_t size) {
    const vexo::data::Payload* payload = m_layouts.find(packet, size);
    if (payload == nullptr || payload->id == vexo::data::kNoField) return kNone;
    const vexo::data::Field& field = payload->fields[payload->id];
    const unsigned char* id = packet + vexo::data::kHeadBytes + field.offset;
    m_looked.assign(reinterpret_cast<const char*>(packet), sizeof payload->type);
    m_looked.append(reinterpret_cast<const char*>(id), field.bytes());
    const auto known = m_byId.find(m_looked);
    if (known != m_byId.end()) return known->second;
    if (m_byId.size() == kMost) return kNone;
    const std::uint32_t contract = add(payload->type, id, field.bytes());
    m_byId.emplace(m_looked, contract);
    return contract;
}

std::uint32_t Contracts::add(std::uint32_t type, const unsigned char* id, std::uint32_t width) {
    vexo_zce::Instrument instrument;
    const char* text = reinterpret_cast<const char*>(id);
    if (vexo_zce::parseId(text, width, kAnyDate, instrument) != vexo_zce::IdFault::kNone) return kNone;
    char key[vexo_zce::kIdRoom];
    vexo_zce::keyOf(instrument, key);
    const std::string subject = vexo_sim::remote::contractSubject(m_place, type, key);
    const auto [known, isNew] = m_bySubject.emplace(subject, static_cast<std::uint32_t>(m_contracts.size()));
    if (isNew) m_contracts.push_back({subject, 0});
    return known->second;
}

std::uint64_t Contracts::take(std::uint32_t contract, std::uint32_t packets) {
    return std::exchange(m_contracts[contract].next, m_contracts[contract].next + packets);
}

void Contracts::locate(wire::Bytes message, std::vector<ContractPacket>& packets) {
    wire::HeadBytes head;
    std::memcpy(&head, message.data, sizeof head);
    const unsigned char* at = message.data + wire::kHeadBytes;
    auto wanted = packets.begin();
    for (std::uint32_t place = 0; wanted != packets.end(); ++place) {
        wire::PacketPrefix prefix;
        std::memcpy(&prefix, at, sizeof prefix);
        if (place == wanted->place) {
            wanted->timeNs = head.timeNs + prefix.afterFirstNs;
            wanted->bytes = {at + sizeof prefix, prefix.size};
            ++wanted;
        }
        at += wire::footprint(prefix.size);
    }
}

}  // namespace relay
