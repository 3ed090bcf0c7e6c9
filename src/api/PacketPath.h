#pragma once

#include <cstdint>

#include "VexoZceMdApi.h"
#include "src/driver/IDrvDMA.h"

struct enyx_hw_a2c_stream;
class CZceDmaChanImpl;

/// The straight way of one stream's market-data packets: all that VexoRecv and the packet handler touch for an
/// ordinary packet, side by side. Whatever is not ordinary takes the full way through the channel.
struct PacketPath {
    using Poll = int (*)(enyx_hw_a2c_stream* stream, DmaPacketHandler handler, void* ctx);
    using Callback = int (*)(IVexoZceMdSpi* spi, const unsigned char* payload);

    static constexpr std::uint32_t kTypes = 4;         // market-data types, one callback each
    static constexpr std::uint32_t kFirstFailure = 2;  // of a poll's results

    Poll poll;  ///< the card library's poll, called without a detour
    enyx_hw_a2c_stream* stream;
    /// From which result of a poll on VexoRecv does not return it as it is: 2 (0 is no packet, 1 a packet, others are
    /// failures), and 0 from a packet that did not reach the application to the end of its poll.
    std::uint32_t unusualFrom;
    /// How many of the types go straight: none before the stop signals are handled, then all.
    std::uint32_t straightTypes;
    IVexoZceMdSpi* spi;
    Callback callbacks[kTypes];  ///< by packet type, beginning with the first
    CZceDmaChanImpl* channel;    ///< null on a closed path

    static PacketPath open(Poll poll, enyx_hw_a2c_stream* stream, IVexoZceMdSpi* spi, CZceDmaChanImpl* channel);
    /// Polls nothing, and no result of it is plain: VexoRecv before the start and after a stop signal.
    static PacketPath closed();
};
