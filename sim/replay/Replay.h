#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sim/card/Card.h"

namespace vexo_sim {

/// Delivers the packets of a capture file through a card, each on its own channel.
///
/// A channel's packets begin when its stream is opened: the first is due at that moment, the others as long after it as
/// they came after the first when they were captured. A stream that is opened again begins again. A full ring delays a
/// packet and those behind it, and loses none.
///
/// Packet faults of the card apply to replayed packets as to its own.
///
/// The card still answers register accesses. Its own packets would mix with the replay, so the card's owner pauses the
/// feed (Card::pauseFeed). That also stops contract-map packets: a capture without them would leave a master channel
/// without its map, so the owner asks hasContractMap() first.
///
/// For one thread at a time. It reads the file while it replays, each channel from its first packet on, and keeps at
/// most one packet of a channel in memory.
class Replay {
public:
    enum class Pace {
        kOriginal,  // by the clock that advance() is given; a scaled clock makes it faster or slower
        kAsTaken,   // as fast as the stream's ring takes packets
    };

    Replay();
    ~Replay();
    Replay(const Replay&) = delete;
    Replay& operator=(const Replay&) = delete;

    /// Reads the whole file once, to know what is in it. A file with packets of one card is replayed on any card; of a
    /// file with several, those of @p bus are.
    /// @param mtu  of the card; a longer packet is an error
    /// @param withContractMap  false: contract-map packets are left out, for a card that sends its own
    /// @return false when nothing can be replayed: problem() says why. A file that is cut off or damaged is replayed up
    ///         to there, and problem() tells the byte.
    bool open(const std::string& path, std::uint32_t mtu, std::uint32_t bus = 0, Pace pace = Pace::kOriginal,
              bool withContractMap = true);
    /// What is wrong with the file, one line with its name. Empty when nothing is.
    const std::string& problem() const { return m_problem; }

    /// Whether channel 0 has contract-map packets (type 2).
    bool hasContractMap() const { return m_hasContractMap; }
    /// How many packets the file has for a channel, and for all of them.
    std::uint64_t packets(std::uint32_t channel) const { return m_packets[channel]; }
    std::uint64_t packets() const;

    /// Pushes everything that is due at @p clockNs, a clock of nanoseconds that does not go back, such as the card's
    /// own (CardState::clockNs). Sees which streams are open; one that is closed and opened again between two calls
    /// goes on instead of beginning again, unless restart() tells. Nothing is taken while the card is stopped, and of
    /// each channel no more than 4,096 blocks are read in one call, packets of others that lie between included.
    void advance(Card& card, std::uint64_t clockNs);
    /// The channel's packets begin again at the next advance().
    void restart(std::uint32_t channel);

    /// When advance() has something to do next: kNever while no open stream has packets left. A moment that has passed
    /// says that there is more to do at once, or that a ring was full.
    std::uint64_t nextDue() const { return m_nextDue; }
    /// No open stream has packets left, and at least one was opened.
    bool isFinished() const;

private:
    struct Channel;

    bool choose(std::uint32_t bus);
    bool refuse(const std::string& what);
    void follow(Card& card, std::uint64_t clockNs, Channel& channel);
    void begin(Channel& channel, std::uint64_t clockNs);
    std::uint64_t due(const Channel& channel) const;

    std::string m_path;
    std::string m_problem;
    Pace m_pace = Pace::kOriginal;
    bool m_withContractMap = true;
    std::uint32_t m_mtu = 0;
    bool m_hasContractMap = false;
    std::uint64_t m_packets[kStreams] = {};
    std::uint64_t m_nextDue = kNever;
    std::vector<std::unique_ptr<Channel>> m_channels;  // those that have packets
    std::uint32_t m_card = 0;                          // whose packets of the file are replayed
};

}  // namespace vexo_sim
