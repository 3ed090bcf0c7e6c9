#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "sim/card/Card.h"
#include "sim/remote/Handover.h"
#include "sim/remote/Wire.h"

namespace vexo_sim::remote {

/// What an operator should know about a message.
struct Notice {
    enum Kind : std::uint8_t {
        kNothing,
        kNotARelays,    // ignored; told of once, as are the next two
        kOtherVersion,  // ignored
        kSecondRelay,   // ignored: another relay sends the same channel, and the one that is used still does
        kRestarted,     // the relay started anew
        kEnd
    };
    Kind kind = kNothing;
    std::uint16_t version = 0;  // of the sender, with kOtherVersion
    std::uint64_t lost = 0;     // packets, with kRestarted
};

/// The receiving end of one channel: puts the packets of a relay's messages into the stream of a card, in order and
/// each at most once, and counts what did not arrive.
///
/// The stream's counters count from when it was opened. Packets are those that are put into the stream. Back-pressure
/// is all the others that the relay's card had for this channel: lost in the card's ring, in the relay, or on the
/// network. So the two together are what the card sent, as on a card of this machine.
///
/// A full stream holds the rest of a message back. If the reader stays away for long, messages pile up before this
/// class and are dropped there, which shows as a gap in their numbers.
///
/// For one thread at a time, with the card's state locked.
class Receiver {
public:
    explicit Receiver(std::uint32_t channel) : m_channel(channel) {}

    /// The stream was opened: forgets every relay.
    void restart();
    /// The relay's answer at the opening: what it numbered and counted before does not concern this stream. Without an
    /// answer the first message says that.
    void greet(const wire::Head& hello);
    /// @param data   must stay until nothing is held back
    /// @param nowNs  of a clock that does not step back
    Notice receive(Card& card, const void* data, std::size_t size, std::uint64_t nowNs);
    /// Whether packets of the last message wait for room in the stream. Call resume() before the next message.
    bool isHoldingBack() const { return m_held.packets.data != nullptr; }
    void resume(Card& card);

    /// Nothing before the first message.
    std::optional<Position> position() const {
        return m_run != nullptr ? std::make_optional(Position{m_run->epoch, m_run->next}) : std::nullopt;
    }
    /// Messages that were ignored since restart().
    std::uint64_t ignored() const { return m_ignored; }

private:
    // A relay's run. Others than the present one are remembered, so that a late message does not pass for a new run.
    struct Run {
        std::uint64_t epoch = 0;
        std::uint64_t next = 0;     // number of the next packet
        bool isNextCertain = true;  // false after a hello: packets on their way may have lower numbers
        wire::Counts seen;
    };
    static constexpr std::size_t kRuns = 8;

    Notice ignore(Notice notice);
    Run* find(std::uint64_t epoch);
    Run& add(const wire::Head& head, bool isNew);
    bool isBeginning(std::uint64_t nowNs) const;
    bool choose(const wire::Head& head, std::uint64_t nowNs, Notice& notice);
    void count(UpStreamState& stream, const wire::Counts& counts);
    bool deliver(Card& card, const wire::PacketIn& packet);

    std::uint32_t m_channel;
    std::array<Run, kRuns> m_runs;
    std::size_t m_known = 0;   // runs, at most kRuns
    std::size_t m_oldest = 0;  // run that the next new one replaces
    Run* m_run = nullptr;      // the present one
    wire::Message m_held;      // the message that is being delivered; no bytes when it is done
    std::optional<std::uint64_t> m_firstHeardNs;
    std::uint64_t m_heardNs = 0;
    bool m_hasBegun = false;  // packets came, or the archive's counts
    std::uint64_t m_ignored = 0;
    std::array<bool, Notice::kEnd> m_isTold{};
};

}  // namespace vexo_sim::remote
