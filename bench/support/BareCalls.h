#pragma once

#include <enyx-hw-c/enyx_hw.h>
#include <cstdint>
#include <cstdlib>

/// The card's C library, called as plainly as it can be: no class, no result looked at, one lock a call.
namespace bench::bare {

inline enyx_hw_register_description Word(std::uint32_t word) { return {std::uint64_t{word} * 4, 0, 32}; }

inline void Write(enyx_hw_core* core, std::uint32_t word, std::uint32_t value) {
    const enyx_hw_register_description reg = Word(word);
    enyx_hw_core_lock(core);
    enyx_hw_write(core, &reg, value);
    enyx_hw_core_unlock(core);
}

inline std::uint64_t Read(enyx_hw_core* core, std::uint32_t word) {
    const enyx_hw_register_description reg = Word(word);
    std::uint64_t value = 0;
    enyx_hw_core_lock(core);
    enyx_hw_read(core, &reg, &value);
    enyx_hw_core_unlock(core);
    return value;
}

inline void WriteAndReadBack(enyx_hw_core* core, std::uint32_t word, std::uint32_t value) {
    const enyx_hw_register_description reg = Word(word);
    std::uint64_t readBack = 0;
    enyx_hw_core_lock(core);
    enyx_hw_write(core, &reg, value);
    enyx_hw_read(core, &reg, &readBack);
    enyx_hw_core_unlock(core);
}

/// The register core of card 0, through a fresh look-up of everything; resets the card.
inline enyx_hw_accelerator* OpenCard() {
    enyx_hw_filter* filter = enyx_hw_filter_create();
    enyx_hw_filter_set_index(filter, 0);
    enyx_hw_accelerator_descriptor* descriptor = nullptr;
    if (enyx_hw_enumerate_accelerators(filter, &descriptor, 1) != 1) std::abort();
    enyx_hw_filter_destroy(filter);
    enyx_hw_accelerator* card = enyx_hw_accelerator_get(descriptor);
    enyx_hw_free_accelerator_descriptors(&descriptor, 1);
    return card;
}

inline enyx_hw_core* OpenCore(enyx_hw_accelerator* card) {
    enyx_hw_filter* filter = enyx_hw_filter_create();
    enyx_hw_filter_set_index(filter, 0);
    enyx_hw_mmio_descriptor* descriptor = nullptr;
    if (enyx_hw_accelerator_enumerate_mmios(card, filter, &descriptor, 1) != 1) std::abort();
    enyx_hw_filter_destroy(filter);
    enyx_hw_mmio* mmio = enyx_hw_mmio_create(descriptor);
    enyx_hw_free_mmio_descriptors(&descriptor, 1);
    enyx_hw_core* root = enyx_hw_core_tree_get_root(enyx_hw_enumerate_cores(mmio));
    enyx_hw_core_reset(root);
    enyx_hw_core* core = nullptr;
    if (enyx_hw_core_enumerate(root, 474, &core, 1) != 1) std::abort();
    return core;
}

/// Both directions of a channel.
struct Streams {
    enyx_hw_a2c_stream* up = nullptr;
    enyx_hw_c2a_stream* down = nullptr;

    void Close() {
        enyx_hw_a2c_stream_destroy(up);
        enyx_hw_c2a_stream_destroy(down);
    }
};

inline Streams OpenStreams(enyx_hw_accelerator* card, const char* name) {
    Streams streams;
    enyx_hw_filter* filter = enyx_hw_filter_create();
    enyx_hw_filter_set_name(filter, name);
    enyx_hw_a2c_stream_descriptor* up = nullptr;
    if (enyx_hw_accelerator_enumerate_a2c_streams(card, filter, &up, 1) != 1) std::abort();
    streams.up = enyx_hw_a2c_stream_create(up, nullptr);
    enyx_hw_free_a2c_stream_descriptors(&up, 1);
    enyx_hw_c2a_stream_descriptor* down = nullptr;
    if (enyx_hw_accelerator_enumerate_c2a_streams(card, filter, &down, 1) != 1) std::abort();
    streams.down = enyx_hw_c2a_stream_create(down, nullptr);
    enyx_hw_free_c2a_stream_descriptors(&down, 1);
    enyx_hw_filter_destroy(filter);
    std::uint32_t mtu = 0;
    enyx_hw_a2c_stream_get_mtu(streams.up, &mtu);
    enyx_hw_c2a_stream_get_mtu(streams.down, &mtu);
    return streams;
}

}  // namespace bench::bare
