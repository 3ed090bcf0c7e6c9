#pragma once

#include <VexoZceMdApi.h>
#include <enyx-hw-c/enyx_hw.h>
#include <cstdint>
#include <memory>

/// A simulated card that sends nothing by itself, one of its streams, and the two ways to read it: the library, as an
/// application uses it, and the hardware interface bare. Ends the program with a message when something fails.
namespace bench_card {

// Not the master's: starting it programs no card. A stream each, so that both can be open side by side.
constexpr std::uint32_t kLibraryChannel = 3;
constexpr std::uint32_t kBareChannel = 4;

/// Switches the card off and on, with no instruments and no feed.
void PowerOn();

struct StopReading {
    void operator()(IVexoZceMdApi* api) const { IVexoZceMdApi::DestroyVexoZceMdApi(*api); }
    void operator()(enyx_hw_a2c_stream* stream) const { enyx_hw_a2c_stream_destroy(stream); }
};
using Library = std::unique_ptr<IVexoZceMdApi, StopReading>;
using Bare = std::unique_ptr<enyx_hw_a2c_stream, StopReading>;

/// The library reading its channel's stream. Writes an ini file and the log into the working directory.
Library ReadWithLibrary(IVexoZceMdSpi& spi);
/// Another channel's stream without the library.
Bare ReadBare(std::uint32_t channel = kBareChannel);

enum class Types { kConstant, kAlternating, kRotating, kRandom };

/// Puts market-data packets of @p size bytes into a stream: one type, two types in turn, all four in turn, or at
/// random.
void Push(std::uint32_t channel, unsigned int packets, std::uint32_t size = 64, Types types = Types::kRotating);

/// How many packets of @p size bytes surely fit into an empty stream.
unsigned int Room(std::uint32_t size);

}  // namespace bench_card
