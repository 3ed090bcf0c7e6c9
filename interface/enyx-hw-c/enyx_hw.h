/* C interface of the hardware access library libenyx-hw-c.so.1: exactly the calls that the
 * market-data library makes. The simulated card implements it; a site with a card builds against
 * the header and library that came with the card instead (-DENYX_HW_ROOT=/path/to/sdk).
 *
 * All handles are opaque. A "count" result is the number found, or -1 with errno set. A creating
 * call returns NULL with errno set on failure. Every other call returns 0 on success unless its
 * comment says otherwise. Every call may be made from any thread; one stream is polled by one
 * thread at a time. */
#ifndef ENYX_HW_C_ENYX_HW_H
#define ENYX_HW_C_ENYX_HW_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct enyx_hw_filter enyx_hw_filter;
typedef struct enyx_hw_accelerator enyx_hw_accelerator;
typedef struct enyx_hw_accelerator_descriptor enyx_hw_accelerator_descriptor;
typedef struct enyx_hw_mmio enyx_hw_mmio;
typedef struct enyx_hw_mmio_descriptor enyx_hw_mmio_descriptor;
typedef struct enyx_hw_core_tree enyx_hw_core_tree;
typedef struct enyx_hw_core enyx_hw_core;
typedef struct enyx_hw_a2c_stream enyx_hw_a2c_stream;
typedef struct enyx_hw_a2c_stream_descriptor enyx_hw_a2c_stream_descriptor;
typedef struct enyx_hw_c2a_stream enyx_hw_c2a_stream;
typedef struct enyx_hw_c2a_stream_descriptor enyx_hw_c2a_stream_descriptor;

/* ---- filters: one with neither index nor name matches everything ---- */
enyx_hw_filter* enyx_hw_filter_create(void);
int enyx_hw_filter_set_index(enyx_hw_filter* filter, uint32_t index);
int enyx_hw_filter_set_name(enyx_hw_filter* filter, const char* name);
void enyx_hw_filter_destroy(enyx_hw_filter* filter);

/* ---- accelerators (cards) ----
 * `count` of an enumeration is the room in the array; the result is the number that matched, and
 * never more than `count` descriptors are filled. */
ssize_t enyx_hw_enumerate_accelerators(const enyx_hw_filter* filter, enyx_hw_accelerator_descriptor** descriptors,
                                       size_t count);
enyx_hw_accelerator* enyx_hw_accelerator_get(const enyx_hw_accelerator_descriptor* descriptor);
void enyx_hw_free_accelerator_descriptors(enyx_hw_accelerator_descriptor** descriptors, size_t count);

/* ---- register space ---- */
ssize_t enyx_hw_accelerator_enumerate_mmios(const enyx_hw_accelerator* accelerator, const enyx_hw_filter* filter,
                                            enyx_hw_mmio_descriptor** descriptors, size_t count);
enyx_hw_mmio* enyx_hw_mmio_create(const enyx_hw_mmio_descriptor* descriptor);
void enyx_hw_mmio_destroy(enyx_hw_mmio* mmio);
void enyx_hw_free_mmio_descriptors(enyx_hw_mmio_descriptor** descriptors, size_t count);

/* ---- cores ---- */
enyx_hw_core_tree* enyx_hw_enumerate_cores(enyx_hw_mmio* mmio);
enyx_hw_core* enyx_hw_core_tree_get_root(enyx_hw_core_tree* tree);
int enyx_hw_core_reset(enyx_hw_core* core);
ssize_t enyx_hw_core_enumerate(enyx_hw_core* root, uint16_t hardware_id, enyx_hw_core** cores, size_t count);
/* Excludes other threads and other processes; not required to be recursive; a holder that dies releases it. */
int enyx_hw_core_lock(enyx_hw_core* core);
int enyx_hw_core_unlock(enyx_hw_core* core);

/* ---- registers: negative on failure ---- */
typedef struct enyx_hw_register_description {
    uint64_t address;   /* byte address inside the core */
    uint8_t bit_offset; /* first bit of the field */
    uint8_t bit_width;  /* 8, 16, 24 ... 64 */
} enyx_hw_register_description;
int enyx_hw_read(enyx_hw_core* core, const enyx_hw_register_description* reg, uint64_t* value);
int enyx_hw_write(enyx_hw_core* core, const enyx_hw_register_description* reg, uint64_t value);

/* ---- card-to-host streams ----
 * The bytes handed to the handler are valid only inside it. */
typedef void (*enyx_hw_a2c_stream_handler)(const uint8_t* data, uint32_t size, void* context);
ssize_t enyx_hw_accelerator_enumerate_a2c_streams(const enyx_hw_accelerator* accelerator, const enyx_hw_filter* filter,
                                                  enyx_hw_a2c_stream_descriptor** descriptors, size_t count);
/* Fails with EBUSY while another process, or another handle in this one, holds the stream; a holder
 * that dies, however it dies, releases it. `configuration` is NULL. */
enyx_hw_a2c_stream* enyx_hw_a2c_stream_create(const enyx_hw_a2c_stream_descriptor* descriptor,
                                              const void* configuration);
void enyx_hw_free_a2c_stream_descriptors(enyx_hw_a2c_stream_descriptor** descriptors, size_t count);
int enyx_hw_a2c_stream_get_mtu(const enyx_hw_a2c_stream* stream, uint32_t* mtu);
/* Calls the handler for at most one packet; returns the number handled, 0 or 1. */
int enyx_hw_a2c_stream_poll_once(enyx_hw_a2c_stream* stream, enyx_hw_a2c_stream_handler handler, void* context);
int enyx_hw_a2c_stream_stats_get_backpressure(const enyx_hw_a2c_stream* stream, uint32_t* value);
int enyx_hw_a2c_stream_stats_get_packet_count(const enyx_hw_a2c_stream* stream, uint32_t* value);
int enyx_hw_a2c_stream_stats_get_fifo_errors(const enyx_hw_a2c_stream* stream, uint32_t* value);
int enyx_hw_a2c_stream_stats_get_errors(const enyx_hw_a2c_stream* stream, uint32_t* value);
void enyx_hw_a2c_stream_destroy(enyx_hw_a2c_stream* stream);

/* ---- host-to-card streams ---- */
ssize_t enyx_hw_accelerator_enumerate_c2a_streams(const enyx_hw_accelerator* accelerator, const enyx_hw_filter* filter,
                                                  enyx_hw_c2a_stream_descriptor** descriptors, size_t count);
enyx_hw_c2a_stream* enyx_hw_c2a_stream_create(const enyx_hw_c2a_stream_descriptor* descriptor,
                                              const void* configuration);
void enyx_hw_free_c2a_stream_descriptors(enyx_hw_c2a_stream_descriptor** descriptors, size_t count);
int enyx_hw_c2a_stream_get_mtu(const enyx_hw_c2a_stream* stream, uint32_t* mtu);
/* 0 when sent, EAGAIN (11) while the stream is busy, another errno value on failure. */
int enyx_hw_c2a_stream_send(enyx_hw_c2a_stream* stream, const void* data, uint32_t size);
void enyx_hw_c2a_stream_destroy(enyx_hw_c2a_stream* stream);

#ifdef __cplusplus
}
#endif

#endif
