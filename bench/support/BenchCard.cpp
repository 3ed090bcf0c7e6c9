#include "bench/support/BenchCard.h"

#include <enyx-sim/enyx_sim.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

namespace bench_card {
namespace {

void Need(bool done, const char* what) {
    if (done) return;
    std::fprintf(stderr, "benchmark: %s failed: %s\n", what, std::strerror(errno));
    std::exit(2);
}

constexpr char kIniPath[] = "bench.ini";
constexpr std::uint32_t kRingBytes = 1048576;
constexpr std::uint32_t kMtu = 2048;

void WriteIni() {
    std::FILE* file = std::fopen(kIniPath, "w");
    Need(file != nullptr, "writing the ini file");
    std::fprintf(file, "[config]\ndevice = xilinx0:%u\n", kLibraryChannel);
    std::fclose(file);
}

enyx_hw_accelerator* FirstAccelerator() {
    enyx_hw_filter* filter = enyx_hw_filter_create();
    Need(enyx_hw_filter_set_index(filter, 0) == 0, "choosing the card");
    enyx_hw_accelerator_descriptor* descriptor = nullptr;
    Need(enyx_hw_enumerate_accelerators(filter, &descriptor, 1) == 1, "finding the card");
    enyx_hw_filter_destroy(filter);
    enyx_hw_accelerator* accelerator = enyx_hw_accelerator_get(descriptor);
    Need(accelerator != nullptr, "opening the card");
    enyx_hw_free_accelerator_descriptors(&descriptor, 1);
    return accelerator;
}

}  // namespace

void PowerOn() {
    enyx_sim_config config;
    enyx_sim_default_config(&config);
    config.quotes_per_second = 0;
    config.instruments = ENYX_SIM_INSTRUMENTS_NONE;
    config.ring_bytes = kRingBytes;
    config.mtu = kMtu;
    Need(enyx_sim_power_cycle(&config) == 0, "switching the card on");
}

Library ReadWithLibrary(IVexoZceMdSpi& spi) {
    WriteIni();
    Library api(IVexoZceMdApi::CreateVexoZceMdApi());
    Need(api->VexoStart(spi, kIniPath) == 0, "VexoStart");
    return api;
}

Bare ReadBare(std::uint32_t channel) {
    static enyx_hw_accelerator* const accelerator = FirstAccelerator();
    enyx_hw_filter* filter = enyx_hw_filter_create();
    char name[32];
    std::snprintf(name, sizeof name, "CUSTOM_CHAN%u_DATA", channel);
    Need(enyx_hw_filter_set_name(filter, name) == 0, "naming the stream");
    enyx_hw_a2c_stream_descriptor* descriptor = nullptr;
    Need(enyx_hw_accelerator_enumerate_a2c_streams(accelerator, filter, &descriptor, 1) == 1, "finding the stream");
    Bare stream(enyx_hw_a2c_stream_create(descriptor, nullptr));
    Need(stream != nullptr, "opening the stream");
    enyx_hw_free_a2c_stream_descriptors(&descriptor, 1);
    enyx_hw_filter_destroy(filter);
    return stream;
}

void Push(std::uint32_t channel, unsigned int packets, std::uint32_t size, Types types) {
    static std::mt19937 random(1);
    unsigned char packet[kMtu] = {};
    for (unsigned int n = 0; n < packets; ++n) {
        std::uint32_t type = 17;
        if (types == Types::kAlternating) type += n % 2;
        if (types == Types::kRotating) type += n % 4;
        if (types == Types::kRandom) type += static_cast<std::uint32_t>(random()) % 4;
        std::memcpy(packet, &type, sizeof type);
        Need(enyx_sim_push(0, channel, packet, size, 0) == 0, "pushing a packet");
    }
}

// Each packet lies behind 8 bytes and begins on 8 bytes. One may be left out at the end of the ring.
unsigned int Room(std::uint32_t size) {
    const std::uint32_t footprint = 8 + (size + 7) / 8 * 8;
    return kRingBytes / footprint - 2;
}

}  // namespace bench_card
