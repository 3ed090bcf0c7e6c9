#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "sim/remote/Subjects.h"
#include "sim/remote/Wire.h"
#include "tools/data/LayoutFile.h"

namespace relay {

/// A packet that goes to the subject of its contract, too.
struct ContractPacket {
    std::uint32_t contract = 0;
    std::uint32_t place = 0;  // in the stream's message
    std::uint64_t timeNs = 0;
    vexo_sim::wire::Bytes bytes{};
};

/// The contracts that have come by, each with the subject of its packets of one type. A packet belongs to one when a
/// layout describes it and its id is one of the exchange's.
class Contracts {
public:
    static constexpr std::uint32_t kNone = ~std::uint32_t{0};
    static constexpr std::size_t kMost = 100'000;  // the exchange lists some thousands; further ones have no subject

    /// @param layouts  must live as long as this
    Contracts(const vexo::data::Layouts& layouts, vexo_sim::remote::Place place);

    /// @return the contract of a whole packet, or kNone
    std::uint32_t find(const unsigned char* packet, std::uint32_t size);
    const std::string& subject(std::uint32_t contract) const { return m_contracts[contract].subject; }
    /// @return the number of the first of so many packets; these numbers count the packets of this subject alone
    std::uint64_t take(std::uint32_t contract, std::uint32_t packets);
    std::size_t count() const { return m_contracts.size(); }

    /// Fills in times and bytes of packets, which are in the order of their places in the message.
    static void locate(vexo_sim::wire::Bytes message, std::vector<ContractPacket>& packets);

private:
    struct Contract {
        std::string subject;
        std::uint64_t next = 0;
    };
    std::uint32_t add(std::uint32_t type, const unsigned char* id, std::uint32_t width);

    const vexo::data::Layouts& m_layouts;
    const vexo_sim::remote::Place m_place;
    std::vector<Contract> m_contracts;
    std::unordered_map<std::string, std::uint32_t> m_bySubject;  // spellings of an id share a subject
    std::unordered_map<std::string, std::uint32_t> m_byId;       // type and id as in the packet; kNone: no contract
    std::string m_looked;
};

}  // namespace relay
