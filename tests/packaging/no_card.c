/* A hardware library of a host without a card: every call of the interface, and nothing found. */
#include <enyx-hw-c/enyx_hw.h>
#include <errno.h>
#include <stdlib.h>

struct enyx_hw_filter {
    int unused;
};

#define NOTHING(type, name, parameters) \
    type* name parameters {             \
        errno = ENODEV;                 \
        return NULL;                    \
    }
#define NO_COUNT(name, parameters) \
    ssize_t name parameters { return 0; }
#define FAILURE(name, parameters) \
    int name parameters { return -1; }
#define NO_RESULT(name, parameters) \
    void name parameters {}

enyx_hw_filter* enyx_hw_filter_create(void) { return calloc(1, sizeof(enyx_hw_filter)); }
int enyx_hw_filter_set_index(enyx_hw_filter* f, uint32_t i) { return f == NULL || i > 100 ? -1 : 0; }
int enyx_hw_filter_set_name(enyx_hw_filter* f, const char* n) { return f == NULL || n == NULL ? -1 : 0; }
void enyx_hw_filter_destroy(enyx_hw_filter* f) { free(f); }

#pragma GCC diagnostic ignored "-Wunused-parameter" /* a library without a card looks at no argument */

NO_COUNT(enyx_hw_enumerate_accelerators, (const enyx_hw_filter* f, enyx_hw_accelerator_descriptor** d, size_t n))
NOTHING(enyx_hw_accelerator, enyx_hw_accelerator_get, (const enyx_hw_accelerator_descriptor* d))
NO_RESULT(enyx_hw_free_accelerator_descriptors, (enyx_hw_accelerator_descriptor * *d, size_t n))
NO_COUNT(enyx_hw_accelerator_enumerate_mmios,
         (const enyx_hw_accelerator* a, const enyx_hw_filter* f, enyx_hw_mmio_descriptor** d, size_t n))
NOTHING(enyx_hw_mmio, enyx_hw_mmio_create, (const enyx_hw_mmio_descriptor* d))
NO_RESULT(enyx_hw_mmio_destroy, (enyx_hw_mmio * m))
NO_RESULT(enyx_hw_free_mmio_descriptors, (enyx_hw_mmio_descriptor * *d, size_t n))
NOTHING(enyx_hw_core_tree, enyx_hw_enumerate_cores, (enyx_hw_mmio * m))
NOTHING(enyx_hw_core, enyx_hw_core_tree_get_root, (enyx_hw_core_tree * t))
FAILURE(enyx_hw_core_reset, (enyx_hw_core * c))
NO_COUNT(enyx_hw_core_enumerate, (enyx_hw_core * r, uint16_t id, enyx_hw_core** c, size_t n))
FAILURE(enyx_hw_core_lock, (enyx_hw_core * c))
FAILURE(enyx_hw_core_unlock, (enyx_hw_core * c))
FAILURE(enyx_hw_read, (enyx_hw_core * c, const enyx_hw_register_description* r, uint64_t* v))
FAILURE(enyx_hw_write, (enyx_hw_core * c, const enyx_hw_register_description* r, uint64_t v))
NO_COUNT(enyx_hw_accelerator_enumerate_a2c_streams,
         (const enyx_hw_accelerator* a, const enyx_hw_filter* f, enyx_hw_a2c_stream_descriptor** d, size_t n))
NOTHING(enyx_hw_a2c_stream, enyx_hw_a2c_stream_create, (const enyx_hw_a2c_stream_descriptor* d, const void* c))
NO_RESULT(enyx_hw_free_a2c_stream_descriptors, (enyx_hw_a2c_stream_descriptor * *d, size_t n))
FAILURE(enyx_hw_a2c_stream_get_mtu, (const enyx_hw_a2c_stream* s, uint32_t* m))
int enyx_hw_a2c_stream_poll_once(enyx_hw_a2c_stream* s, enyx_hw_a2c_stream_handler h, void* c) { return 0; }
FAILURE(enyx_hw_a2c_stream_stats_get_backpressure, (const enyx_hw_a2c_stream* s, uint32_t* v))
FAILURE(enyx_hw_a2c_stream_stats_get_packet_count, (const enyx_hw_a2c_stream* s, uint32_t* v))
FAILURE(enyx_hw_a2c_stream_stats_get_fifo_errors, (const enyx_hw_a2c_stream* s, uint32_t* v))
FAILURE(enyx_hw_a2c_stream_stats_get_errors, (const enyx_hw_a2c_stream* s, uint32_t* v))
NO_RESULT(enyx_hw_a2c_stream_destroy, (enyx_hw_a2c_stream * s))
NO_COUNT(enyx_hw_accelerator_enumerate_c2a_streams,
         (const enyx_hw_accelerator* a, const enyx_hw_filter* f, enyx_hw_c2a_stream_descriptor** d, size_t n))
NOTHING(enyx_hw_c2a_stream, enyx_hw_c2a_stream_create, (const enyx_hw_c2a_stream_descriptor* d, const void* c))
NO_RESULT(enyx_hw_free_c2a_stream_descriptors, (enyx_hw_c2a_stream_descriptor * *d, size_t n))
FAILURE(enyx_hw_c2a_stream_get_mtu, (const enyx_hw_c2a_stream* s, uint32_t* m))
FAILURE(enyx_hw_c2a_stream_send, (enyx_hw_c2a_stream * s, const void* d, uint32_t n))
NO_RESULT(enyx_hw_c2a_stream_destroy, (enyx_hw_c2a_stream * s))
