// The calls that lead to handles, for both libraries of this folder: each tells what its handle describes. Each makes
// the same call of the hardware library and returns its result and its errno unchanged.

#include <algorithm>

#include "tools/tap/NextCalls.h"
#include "tools/tap/Origins.h"

using namespace tap;

namespace tap {

NextCalls g_next;

}  // namespace tap

namespace {

template <typename Descriptor>
void learn(const enyx_hw_filter* filter, std::int64_t card, Descriptor** descriptors, std::size_t room, ssize_t found) {
    const KeepErrno keep;
    if (descriptors == nullptr || found <= 0) return;
    const Origin wanted = origins().find(filter);
    const std::size_t filled = std::min(room, static_cast<std::size_t>(found));
    for (std::size_t i = 0; i < filled; ++i) origins().set(descriptors[i], enumerated(wanted, card, i));
}

template <typename Descriptor>
void forgetAll(Descriptor** descriptors, std::size_t count) {
    for (std::size_t i = 0; descriptors != nullptr && i < count; ++i) origins().forget(descriptors[i]);
}

// A handle that is made from another one describes the same object.
template <typename Child>
Child* inherit(const void* parent, Child* child) {
    const KeepErrno keep;
    if (child != nullptr) origins().set(child, origins().find(parent));
    return child;
}

template <typename Change>
int changeFilter(const enyx_hw_filter* filter, int result, Change change) {
    const KeepErrno keep;
    if (result != 0) return result;
    Origin wanted = origins().find(filter);
    change(wanted);
    origins().set(filter, wanted);
    return result;
}

}  // namespace

// What an earlier handle at this address asked for is not asked for any more. It may have been freed in another way.
enyx_hw_filter* enyx_hw_filter_create() {
    enyx_hw_filter* const filter = g_next.enyx_hw_filter_create();
    const KeepErrno keep;
    origins().forget(filter);
    return filter;
}

int enyx_hw_filter_set_index(enyx_hw_filter* filter, uint32_t index) {
    return changeFilter(filter, g_next.enyx_hw_filter_set_index(filter, index),
                        [index](Origin& wanted) { wanted.index = index; });
}

int enyx_hw_filter_set_name(enyx_hw_filter* filter, const char* name) {
    return changeFilter(filter, g_next.enyx_hw_filter_set_name(filter, name),
                        [name](Origin& wanted) { wanted.name = name != nullptr ? name : ""; });
}

void enyx_hw_filter_destroy(enyx_hw_filter* filter) {
    origins().forget(filter);
    g_next.enyx_hw_filter_destroy(filter);
}

ssize_t enyx_hw_enumerate_accelerators(const enyx_hw_filter* filter, enyx_hw_accelerator_descriptor** descriptors,
                                       size_t count) {
    const ssize_t found = g_next.enyx_hw_enumerate_accelerators(filter, descriptors, count);
    const KeepErrno keep;
    cardsWereLookedUp();
    if (descriptors == nullptr || found <= 0) return found;
    const Origin wanted = origins().find(filter);
    for (std::size_t i = 0; i < std::min(count, static_cast<std::size_t>(found)); ++i) {
        Origin card;
        card.card = enumerated(wanted, Origin::kUnknown, i).index;
        origins().set(descriptors[i], card);
    }
    return found;
}

void enyx_hw_free_accelerator_descriptors(enyx_hw_accelerator_descriptor** descriptors, size_t count) {
    forgetAll(descriptors, count);
    g_next.enyx_hw_free_accelerator_descriptors(descriptors, count);
}

enyx_hw_accelerator* enyx_hw_accelerator_get(const enyx_hw_accelerator_descriptor* descriptor) {
    return inherit(descriptor, g_next.enyx_hw_accelerator_get(descriptor));
}

ssize_t enyx_hw_accelerator_enumerate_mmios(const enyx_hw_accelerator* accelerator, const enyx_hw_filter* filter,
                                            enyx_hw_mmio_descriptor** descriptors, size_t count) {
    const ssize_t found = g_next.enyx_hw_accelerator_enumerate_mmios(accelerator, filter, descriptors, count);
    learn(filter, origins().find(accelerator).card, descriptors, count, found);
    return found;
}

void enyx_hw_free_mmio_descriptors(enyx_hw_mmio_descriptor** descriptors, size_t count) {
    forgetAll(descriptors, count);
    g_next.enyx_hw_free_mmio_descriptors(descriptors, count);
}

enyx_hw_mmio* enyx_hw_mmio_create(const enyx_hw_mmio_descriptor* descriptor) {
    return inherit(descriptor, g_next.enyx_hw_mmio_create(descriptor));
}

void enyx_hw_mmio_destroy(enyx_hw_mmio* mmio) {
    origins().forget(mmio);
    g_next.enyx_hw_mmio_destroy(mmio);
}

enyx_hw_core_tree* enyx_hw_enumerate_cores(enyx_hw_mmio* mmio) {
    return inherit(mmio, g_next.enyx_hw_enumerate_cores(mmio));
}

enyx_hw_core* enyx_hw_core_tree_get_root(enyx_hw_core_tree* tree) {
    return inherit(tree, g_next.enyx_hw_core_tree_get_root(tree));
}

ssize_t enyx_hw_core_enumerate(enyx_hw_core* root, uint16_t hardware_id, enyx_hw_core** cores, size_t count) {
    const ssize_t found = g_next.enyx_hw_core_enumerate(root, hardware_id, cores, count);
    const KeepErrno keep;
    if (cores == nullptr || found <= 0) return found;
    Origin core;
    core.card = origins().find(root).card;
    core.core = hardware_id;
    for (std::size_t i = 0; i < std::min(count, static_cast<std::size_t>(found)); ++i) origins().set(cores[i], core);
    return found;
}

ssize_t enyx_hw_accelerator_enumerate_a2c_streams(const enyx_hw_accelerator* accelerator, const enyx_hw_filter* filter,
                                                  enyx_hw_a2c_stream_descriptor** descriptors, size_t count) {
    const ssize_t found = g_next.enyx_hw_accelerator_enumerate_a2c_streams(accelerator, filter, descriptors, count);
    learn(filter, origins().find(accelerator).card, descriptors, count, found);
    return found;
}

void enyx_hw_free_a2c_stream_descriptors(enyx_hw_a2c_stream_descriptor** descriptors, size_t count) {
    forgetAll(descriptors, count);
    g_next.enyx_hw_free_a2c_stream_descriptors(descriptors, count);
}
