#pragma once

#include <VexoZceMdApi.h>
#include <cstdint>
#include <enyx-hw-c/enyx_hw.h>
#include <memory>

/// A simulated card that sends nothing by itself, one of its streams, and the two ways to read it: the library, as an
/// application uses it, and the hardware interface bare. Ends the program with a message when something fails.
namespace bench_card {

constexpr std::uint32_t kChannel = 3;  // not the master's: starting it programs no card

/// Switches the card off and on, with no instruments and no feed.
void PowerOn();

struct StopReading {
    void operator()(IVexoZceMdApi* api) const { IVexoZceMdApi::DestroyVexoZceMdApi(*api); }
    void operator()(enyx_hw_a2c_stream* stream) const { enyx_hw_a2c_stream_destroy(stream); }
};
using Library = std::unique_ptr<IVexoZceMdApi, StopReading>;
using Bare    = std::unique_ptr<enyx_hw_a2c_stream, StopReading>;

/// The library reading the channel's stream. Writes an ini file and the log into the working directory.
Library ReadWithLibrary(IVexoZceMdSpi& spi);
/// The channel's stream without the library.
Bare ReadBare();

/// Puts packets of the four market-data types in turn, @p size bytes each, into the stream.
void Push(unsigned int packets, std::uint32_t size = 64);

}  // namespace bench_card
