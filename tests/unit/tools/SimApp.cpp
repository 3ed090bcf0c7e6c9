// A program on the simulated card: programs two rows and the switches, receives until it has some packets of every
// type, and prints how many of each. Written for what a capture of it must show, not for how one uses the library.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include <enyx-hw-c/enyx_hw.h>

namespace {

constexpr unsigned kOfEachType = 5;
constexpr std::uint32_t kTypes[] = {2, 17, 18, 19, 20};

std::map<std::uint32_t, unsigned> g_count;

template <typename Handle>
Handle* orExit(Handle* handle, const char* what) {
    if (handle != nullptr) return handle;
    std::fprintf(stderr, "no %s\n", what);
    std::exit(1);
}

void write(enyx_hw_core* core, std::uint32_t word, std::uint64_t value) {
    const enyx_hw_register_description field{std::uint64_t{word} * 4, 0, 32};
    if (enyx_hw_write(core, &field, value) != 0) std::exit(1);
}

enyx_hw_accelerator* openCard(const enyx_hw_filter* anything) {
    enyx_hw_accelerator_descriptor* descriptor = nullptr;
    enyx_hw_enumerate_accelerators(anything, &descriptor, 1);
    enyx_hw_accelerator* card = orExit(enyx_hw_accelerator_get(descriptor), "card");
    enyx_hw_free_accelerator_descriptors(&descriptor, 1);
    return card;
}

enyx_hw_core* openCore(enyx_hw_accelerator* card, const enyx_hw_filter* anything) {
    enyx_hw_mmio_descriptor* descriptor = nullptr;
    enyx_hw_accelerator_enumerate_mmios(card, anything, &descriptor, 1);
    enyx_hw_mmio* mmio = orExit(enyx_hw_mmio_create(descriptor), "register space");
    enyx_hw_free_mmio_descriptors(&descriptor, 1);
    enyx_hw_core* core = nullptr;
    enyx_hw_core_enumerate(enyx_hw_core_tree_get_root(enyx_hw_enumerate_cores(mmio)), 474, &core, 1);
    return orExit(core, "register core");
}

enyx_hw_a2c_stream* openStream(enyx_hw_accelerator* card) {
    enyx_hw_filter* filter = enyx_hw_filter_create();
    enyx_hw_filter_set_name(filter, "CUSTOM_CHAN0_DATA");
    enyx_hw_a2c_stream_descriptor* descriptor = nullptr;
    enyx_hw_accelerator_enumerate_a2c_streams(card, filter, &descriptor, 1);
    enyx_hw_filter_destroy(filter);
    enyx_hw_a2c_stream* stream = orExit(enyx_hw_a2c_stream_create(descriptor, nullptr), "stream");
    enyx_hw_free_a2c_stream_descriptors(&descriptor, 1);
    return stream;
}

void subscribeChannel0(enyx_hw_core* core) {
    for (const std::uint32_t table : {0x11000U, 0x12000U}) {
        write(core, table + 1, 1);
        write(core, table, 7 << 6);
    }
    write(core, 0x11, 3);
    write(core, 0x12, 1);
}

bool hasAll() {
    for (const std::uint32_t type : kTypes) {
        if (g_count[type] < kOfEachType) return false;
    }
    return true;
}

void count(const std::uint8_t* data, std::uint32_t, void*) {
    std::uint32_t type;
    std::memcpy(&type, data, sizeof type);
    ++g_count[type];
}

}  // namespace

int main() {
    enyx_hw_filter* anything = enyx_hw_filter_create();
    enyx_hw_accelerator* card = openCard(anything);
    enyx_hw_core* core = openCore(card, anything);
    enyx_hw_filter_destroy(anything);
    enyx_hw_a2c_stream* stream = openStream(card);
    subscribeChannel0(core);
    while (!hasAll()) enyx_hw_a2c_stream_poll_once(stream, count, nullptr);
    for (const std::uint32_t type : kTypes) std::printf("type %u %u\n", type, g_count[type]);
    enyx_hw_a2c_stream_destroy(stream);
}
