#include "src/api/PacketPath.h"

namespace {

int pollNothing(enyx_hw_a2c_stream*, DmaPacketHandler, void*) { return 0; }

constexpr PacketPath::Callback kCallbacks[PacketPath::kTypes] = {
    [](IVexoZceMdSpi* spi, const unsigned char* payload) { return spi->OnUpSubsResult17(payload); },
    [](IVexoZceMdSpi* spi, const unsigned char* payload) { return spi->OnUpSubsResult18(payload); },
    [](IVexoZceMdSpi* spi, const unsigned char* payload) { return spi->OnUpSubsResult19(payload); },
    [](IVexoZceMdSpi* spi, const unsigned char* payload) { return spi->OnUpSubsResult20(payload); },
};

}  // namespace

PacketPath PacketPath::open(Poll poll, enyx_hw_a2c_stream* stream, IVexoZceMdSpi* spi, CZceDmaChanImpl* channel) {
    return {poll, stream, kFirstFailure, 0, spi, {kCallbacks[0], kCallbacks[1], kCallbacks[2], kCallbacks[3]}, channel};
}

PacketPath PacketPath::closed() { return {pollNothing, nullptr, 0, 0, nullptr, {}, nullptr}; }
