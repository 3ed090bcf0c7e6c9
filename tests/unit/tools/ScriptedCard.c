/* A hardware library that no tool knows anything of: handles are what malloc() gives, a stream delivers numbered
 * packets as fast as they are asked for. SCRIPTED_PACKETS says how many, SCRIPTED_SIZE how long they are. With
 * SCRIPTED_HEADS, packets have the heads of the simulated card, whose numbers go on when a stream is opened again, from
 * that number on. SCRIPTED_BACKPRESSURE is what the counter of lost packets shows. With SCRIPTED_ONE_HANDLE, all
 * streams have the same handle. */
#include "tests/unit/tools/ScriptedCard.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

struct enyx_hw_filter {
    int unused;
};
struct enyx_hw_accelerator_descriptor {
    int unused;
};
struct enyx_hw_a2c_stream_descriptor {
    int unused;
};
struct enyx_hw_a2c_stream {
    uint32_t delivered;
    uint32_t packets;
    uint32_t size;
};

static int handle; /* of everything that there is one of */
static unsigned char packet[SCRIPTED_MAX_SIZE];

static uint32_t number(const char* variable, uint32_t otherwise) {
    const char* text = getenv(variable);
    return text == NULL ? otherwise : (uint32_t)strtoul(text, NULL, 10);
}

const unsigned char* scripted_card_packet(void) { return packet; }

enyx_hw_filter* enyx_hw_filter_create(void) { return calloc(1, sizeof(enyx_hw_filter)); }
int enyx_hw_filter_set_index(enyx_hw_filter* filter, uint32_t index) {
    (void)index;
    return filter == NULL ? -1 : 0;
}
int enyx_hw_filter_set_name(enyx_hw_filter* filter, const char* name) {
    return filter == NULL || name == NULL ? -1 : 0;
}
void enyx_hw_filter_destroy(enyx_hw_filter* filter) { free(filter); }

ssize_t enyx_hw_enumerate_accelerators(const enyx_hw_filter* filter, enyx_hw_accelerator_descriptor** descriptors,
                                       size_t count) {
    (void)filter;
    if (count > 0) descriptors[0] = calloc(1, sizeof **descriptors);
    return 1;
}
enyx_hw_accelerator* enyx_hw_accelerator_get(const enyx_hw_accelerator_descriptor* descriptor) {
    return descriptor == NULL ? NULL : (enyx_hw_accelerator*)&handle;
}
void enyx_hw_free_accelerator_descriptors(enyx_hw_accelerator_descriptor** descriptors, size_t count) {
    for (size_t i = 0; i < count; ++i) free(descriptors[i]);
}

ssize_t enyx_hw_accelerator_enumerate_a2c_streams(const enyx_hw_accelerator* accelerator, const enyx_hw_filter* filter,
                                                  enyx_hw_a2c_stream_descriptor** descriptors, size_t count) {
    (void)accelerator;
    (void)filter;
    for (size_t i = 0; i < count; ++i) descriptors[i] = calloc(1, sizeof **descriptors);
    return (ssize_t)count;
}
void enyx_hw_free_a2c_stream_descriptors(enyx_hw_a2c_stream_descriptor** descriptors, size_t count) {
    for (size_t i = 0; i < count; ++i) free(descriptors[i]);
}
static uint32_t nextSequence;
static enyx_hw_a2c_stream oneStream;

enyx_hw_a2c_stream* enyx_hw_a2c_stream_create(const enyx_hw_a2c_stream_descriptor* descriptor,
                                              const void* configuration) {
    (void)descriptor;
    (void)configuration;
    const int isOne = number("SCRIPTED_ONE_HANDLE", 0) != 0;
    enyx_hw_a2c_stream* stream = isOne ? &oneStream : calloc(1, sizeof *stream);
    if (stream == NULL) return NULL;
    stream->delivered = 0;
    if (nextSequence == 0) nextSequence = number("SCRIPTED_HEADS", 0);
    stream->packets = number("SCRIPTED_PACKETS", 0);
    stream->size = number("SCRIPTED_SIZE", SCRIPTED_MAX_SIZE);
    return stream;
}
void scripted_card_free(enyx_hw_a2c_stream* stream) {
    if (stream != &oneStream) free(stream);
}
void enyx_hw_a2c_stream_destroy(enyx_hw_a2c_stream* stream) { scripted_card_free(stream); }

int enyx_hw_a2c_stream_stats_get_backpressure(const enyx_hw_a2c_stream* stream, uint32_t* value) {
    if (getenv("SCRIPTED_BACKPRESSURE") == NULL) return -1;
    *value = number("SCRIPTED_BACKPRESSURE", 0) + stream->delivered;
    return 0;
}

int enyx_hw_a2c_stream_get_mtu(const enyx_hw_a2c_stream* stream, uint32_t* mtu) {
    if (stream == NULL || number("SCRIPTED_NO_MTU", 0) != 0) return -1;
    *mtu = SCRIPTED_MAX_SIZE;
    return 0;
}

int enyx_hw_a2c_stream_poll_once(enyx_hw_a2c_stream* stream, enyx_hw_a2c_stream_handler handler, void* context) {
    if (handler == NULL) {
        errno = EINVAL;
        return -1;
    }
    if (stream->delivered == stream->packets) {
        errno = EAGAIN;
        return 0;
    }
    ++stream->delivered;
    memcpy(packet, &stream->delivered, sizeof stream->delivered);
    if (getenv("SCRIPTED_HEADS") != NULL) {
        memcpy(packet + 4, &stream->size, sizeof stream->size);
        memcpy(packet + 8, &nextSequence, sizeof nextSequence);
        ++nextSequence;
    }
    handler(packet, stream->size, context);
    errno = ERANGE; /* a result that nobody would expect by chance */
    return 1;
}

ssize_t enyx_hw_accelerator_enumerate_mmios(const enyx_hw_accelerator* accelerator, const enyx_hw_filter* filter,
                                            enyx_hw_mmio_descriptor** descriptors, size_t count) {
    (void)accelerator;
    (void)filter;
    if (count > 0) descriptors[0] = (enyx_hw_mmio_descriptor*)&handle;
    return 1;
}
enyx_hw_mmio* enyx_hw_mmio_create(const enyx_hw_mmio_descriptor* descriptor) { return (enyx_hw_mmio*)descriptor; }
enyx_hw_core_tree* enyx_hw_enumerate_cores(enyx_hw_mmio* mmio) { return (enyx_hw_core_tree*)mmio; }
enyx_hw_core* enyx_hw_core_tree_get_root(enyx_hw_core_tree* tree) { return (enyx_hw_core*)tree; }
int enyx_hw_core_reset(enyx_hw_core* core) { return core == NULL ? -1 : 0; }
ssize_t enyx_hw_core_enumerate(enyx_hw_core* root, uint16_t hardware_id, enyx_hw_core** cores, size_t count) {
    (void)hardware_id;
    static int core;
    if (root == NULL) return -1;
    if (count > 0) cores[0] = (enyx_hw_core*)&core;
    return 1;
}
int enyx_hw_read(enyx_hw_core* core, const enyx_hw_register_description* field, uint64_t* value) {
    (void)core;
    if (field->address == SCRIPTED_BAD_ADDRESS) {
        errno = EIO;
        return -1;
    }
    *value = field->address + 1;
    return 0;
}
int enyx_hw_write(enyx_hw_core* core, const enyx_hw_register_description* field, uint64_t value) {
    (void)core;
    (void)value;
    return field->address == SCRIPTED_BAD_ADDRESS ? -1 : 0;
}
