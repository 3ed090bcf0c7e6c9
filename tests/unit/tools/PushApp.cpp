// A program on the simulated card that receives what a test wants it to: each packet of a file (its size in four bytes,
// then its bytes) is put into channel 3 and polled. Prints how many it received.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <enyx-hw-c/enyx_hw.h>
#include <enyx-sim/enyx_sim.h>

namespace {

constexpr std::uint32_t kChannel = 3;

void need(bool isDone, const char* what) {
    if (isDone) return;
    std::fprintf(stderr, "%s failed\n", what);
    std::exit(1);
}

void powerOn() {
    enyx_sim_config config;
    enyx_sim_default_config(&config);
    config.quotes_per_second = 0;
    config.instruments = ENYX_SIM_INSTRUMENTS_NONE;
    need(enyx_sim_power_cycle(&config) == 0, "switching the card on");
}

enyx_hw_a2c_stream* openStream() {
    enyx_hw_filter* filter = enyx_hw_filter_create();
    enyx_hw_accelerator_descriptor* card = nullptr;
    need(enyx_hw_enumerate_accelerators(filter, &card, 1) > 0, "finding the card");
    enyx_hw_filter_set_index(filter, kChannel);
    enyx_hw_a2c_stream_descriptor* descriptor = nullptr;
    need(enyx_hw_accelerator_enumerate_a2c_streams(enyx_hw_accelerator_get(card), filter, &descriptor, 1) > 0,
         "finding the stream");
    enyx_hw_a2c_stream* stream = enyx_hw_a2c_stream_create(descriptor, nullptr);
    need(stream != nullptr, "opening the stream");
    enyx_hw_free_a2c_stream_descriptors(&descriptor, 1);
    enyx_hw_free_accelerator_descriptors(&card, 1);
    enyx_hw_filter_destroy(filter);
    return stream;
}

}  // namespace

int main(int argc, char** argv) {
    std::FILE* file = argc > 1 ? std::fopen(argv[1], "rb") : nullptr;
    need(file != nullptr, "opening the file");
    powerOn();
    enyx_hw_a2c_stream* stream = openStream();
    unsigned received = 0;
    const auto count = [](const std::uint8_t*, std::uint32_t, void* context) { ++*static_cast<unsigned*>(context); };
    std::vector<unsigned char> packet;
    for (std::uint32_t size = 0; std::fread(&size, sizeof size, 1, file) == 1;) {
        packet.resize(size);
        need(std::fread(packet.data(), 1, size, file) == size, "reading the file");
        need(enyx_sim_push(0, kChannel, packet.data(), size, 0) == 0, "pushing a packet");
        need(enyx_hw_a2c_stream_poll_once(stream, count, &received) == 1, "polling");
    }
    std::fclose(file);
    enyx_hw_a2c_stream_destroy(stream);
    std::printf("received %u\n", received);
}
