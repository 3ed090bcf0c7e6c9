#pragma once

#include <cstddef>
#include <cstdint>

#include "sim/card/CardState.h"

namespace vexo_sim {

/// The card: behaviour over a plain state that the caller owns. It makes no system call and allocates nothing. The same
/// seed and the same calls give the same results.
///
/// One caller at a time, with one exception: the reader of a stream may peek() and release() its packets while
/// another thread or process calls anything else.
class Card {
public:
    explicit Card(CardState& state) : m_state(state) {}

    /// Switches the card on: it forgets everything, makes the built-in instrument list and starts to learn.
    /// @p config must be valid (isValid()).
    void powerOn(const CardConfig& config, const CardTime& now);
    /// The same with other instruments than the built-in ones.
    /// @return false, with the card left as it was, when they are no valid list (isValidList()).
    bool powerOn(const CardConfig& config, const CardTime& now, const Instrument* instruments, std::size_t count);
    /// Replaces the instruments. The card learns them as after a reset.
    /// @return false, with nothing changed, when a row is beyond the table, an id is empty or does not fit, two
    ///         instruments share a row, or there are more than the tables hold.
    bool replaceInstruments(const Instrument* instruments, std::size_t count);
    /// Resets as the root core does: the card forgets instruments, masks and switches, and starts to learn again.
    /// A card that ignores its reset (FaultState::resetsIgnored) does nothing instead.
    void reset();

    /// One access of a field of @p bitWidth bits (8, 16 ... 64) at @p byteAddress, @p bitOffset bits further.
    /// @return false when there is no such field.
    bool write(std::uint64_t byteAddress, std::uint32_t bitOffset, std::uint32_t bitWidth, std::uint64_t value);
    bool read(std::uint64_t byteAddress, std::uint32_t bitOffset, std::uint32_t bitWidth, std::uint64_t& value);

    /// Lets the card do all that is due up to @p now. After a long pause it does not send what it missed.
    /// @return true when there may be more to do at once: quotes went out as fast as readers take them.
    bool advance(const CardTime& now);

    /// Repairs the state after a user died in the middle of any of these calls.
    void repair();

    /// A stream that is not open receives nothing and counts nothing.
    /// @return false when the stream is open already, or another program holds it (FaultState::heldUp).
    bool openUp(std::uint32_t channel);
    /// Forgets unread packets and the counters.
    void closeUp(std::uint32_t channel);
    PacketView peek(std::uint32_t channel) { return ring::peek(m_state.up[channel].ring); }
    void release(std::uint32_t channel) { ring::release(m_state.up[channel].ring); }
    /// Puts bytes into a stream as they are, open or not.
    /// @return false when they are longer than the MTU or the ring is full; the latter counts as back-pressure.
    bool push(std::uint32_t channel, const void* data, std::uint32_t size);
    /// The same for a packet that replaces one of the card's own: packet faults strike it.
    bool deliver(std::uint32_t channel, const void* data, std::uint32_t size);

    bool openDown(std::uint32_t channel);
    void closeDown(std::uint32_t channel) { m_state.down[channel].open = false; }
    /// @return false while the stream is busy.
    bool send(std::uint32_t channel, std::uint32_t size);

    /// Stops and starts all that the card sends by itself: quotes and contract-map packets.
    void pauseFeed(bool paused);
    /// No quotes until power-on; contract-map packets go on.
    void stopQuotes();

    /// Stops the card, or lets it go on. While it is stopped, clock and counters stand and the streams are silent.
    /// Registers and tables still answer, as on a card whose decoding hangs. A card that goes on does not catch up, and
    /// forgets any planned stop.
    void stop(bool stopped);
    /// Stops it @p ms milliseconds of its own time from now; 0 = never.
    void stopAfterMs(std::uint32_t ms);

    CardState& state() { return m_state; }
    const CardState& state() const { return m_state; }

private:
    void forgetAll(const CardConfig& config, const CardTime& now);
    void restart();
    bool runDue();

    CardState& m_state;
};

}  // namespace vexo_sim
