#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/remote/Wire.h"
#include "tools/relay/Contracts.h"
#include "tools/relay/Network.h"

namespace relay {

namespace wire = vexo_sim::wire;

/// When a message is full. Times are nanoseconds.
struct BatchLimits {
    std::size_t bytes = 64 * 1024;   // of a message; a packet that does not fit goes alone
    std::uint64_t timeNs = 100'000;  // from its first packet on; 0: each packet is a message
};

/// The stream, as every head tells of it.
struct StreamFacts {
    std::uint64_t epoch = 0;
    std::uint32_t mtu = 0;
    std::uint32_t flags = 0;
};

/// What was sent since the start.
struct Sent {
    std::uint64_t packets = 0;
    std::uint64_t messages = 0;  // heartbeats and messages of one contract included
    std::uint64_t bytes = 0;
};

/// Puts packets together into messages, and counts what is lost on the way. The time is the caller's, so that a test
/// can write a script for it. A clock that steps back sends early, never late.
class Batcher {
public:
    static constexpr std::uint64_t kHeartbeatNs = 100'000'000;

    Batcher(Network& network, std::string subject, StreamFacts stream, BatchLimits limits);
    /// Packets of a contract go to its own subject too, in the moment in which the stream's message goes.
    void addContracts(Contracts& contracts) { m_contracts = &contracts; }

    /// The next packet. A number above the expected one means that the packets between are lost.
    void add(std::uint64_t number, std::uint64_t timeNs, const void* data, std::uint32_t size, std::uint64_t nowNs);
    /// No packet below this number will come any more.
    void skipTo(std::uint64_t number, std::uint64_t nowNs);
    /// Counts of the card's stream since the epoch began.
    void setStreamCounts(std::uint64_t lostByRing, std::uint64_t fifoErrors, std::uint64_t streamErrors);
    /// Packets that the stream has delivered.
    void setDelivered(std::uint64_t packets) { m_counts.delivered = packets; }

    /// Sends what is due: the message whose time is over; after a tenth of a second without any, a heartbeat.
    void tick(std::uint64_t nowNs);
    /// Sends what there is.
    void flush(std::uint64_t nowNs);
    void sendHeartbeat(std::uint64_t nowNs);
    /// Nanoseconds until tick() has something to do.
    std::uint64_t dueIn(std::uint64_t nowNs) const;
    const BatchLimits& limits() const { return m_limits; }

    /// The head of a message without packets at this moment.
    wire::Head head(std::uint64_t nowNs) const;
    const Sent& sent() const { return m_sent; }

private:
    void lose(std::uint64_t packets) { m_counts.lostByRelay += packets; }
    bool publish(const std::string& subject, wire::Bytes message);
    void publishContracts(const wire::Head& head, wire::Bytes message);

    Network& m_network;
    const std::string m_subject;
    const StreamFacts m_stream;
    const BatchLimits m_limits;
    Contracts* m_contracts = nullptr;
    wire::MessageWriter m_message;
    wire::MessageWriter m_contractMessage;
    std::vector<ContractPacket> m_contractPackets;  // those of m_message
    std::uint64_t m_next = 0;                       // number that is expected
    std::uint64_t m_lastSentNs = 0;
    wire::Counts m_counts;
    Sent m_sent;
};

}  // namespace relay
