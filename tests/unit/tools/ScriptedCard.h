#ifndef SCRIPTED_CARD_H
#define SCRIPTED_CARD_H

#include <enyx-hw-c/enyx_hw.h>

#define SCRIPTED_MAX_SIZE 2048
#define SCRIPTED_BAD_ADDRESS 0x7000

#ifdef __cplusplus
extern "C" {
#endif

/* Where the bytes of every packet lie. */
const unsigned char* scripted_card_packet(void);

/* Frees a stream in another way than by enyx_hw_a2c_stream_destroy(). */
void scripted_card_free(enyx_hw_a2c_stream* stream);

#ifdef __cplusplus
}
#endif

#endif
