#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/shm/SharedCard.h"

namespace vexo_sim {

/// One stream, as an operator sees it.
struct ChannelStatus {
    std::uint32_t channel = 0;
    bool open = false;
    std::optional<Holder> holder;
    std::uint32_t packets = 0;      // card to host, since the stream was opened
    std::uint32_t drops = 0;        // lost because the reader was too slow
    std::uint64_t queuedBytes = 0;  // waiting for the reader
    std::uint64_t sentPackets = 0;  // host to card, since power-on
};

/// A hosted card at one moment.
struct CardStatus {
    std::uint32_t bus = 0;
    Holder host;
    std::uint64_t uptimeSeconds = 0;
    std::string scenario;
    std::string description;
    std::string pace;
    std::uint32_t instruments = 0;
    std::uint32_t learned = 0;
    std::uint32_t masks[2] = {};  // rows with a mask: single-leg, combination
    std::uint32_t decodeSwitch = 0;
    std::uint32_t mapTransmit = 0;
    std::uint32_t tradingDate = 0;
    std::uint32_t exchangeTime = 0;
    bool inReset = false;
    std::vector<ChannelStatus> channels;
};

/// Reads a card. The holders come from the locks on its file, which do not show those of the calling process. Nothing
/// when the card cannot be locked: a line on standard error says who holds it.
std::optional<CardStatus> readStatus(SharedCard& card);

/// One JSON object, indented. A number beyond 2^53, which not every reader keeps exactly, is a text.
std::string toJson(const CardStatus& status);
enum class TextStyle { kPlain, kColored };

/// A few lines for a terminal: the card, and each stream that is open or held.
std::string toText(const CardStatus& status, TextStyle style = TextStyle::kPlain);

}  // namespace vexo_sim
