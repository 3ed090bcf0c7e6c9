/* Control of the simulated card, for tests and tools: what a laboratory would do to a real card with a probe and a
 * pair of tongs. Found only in the simulated libenyx-hw-c.so.1; a program that must also start on a real card looks
 * the functions up with dlsym().
 *
 * Unless said otherwise a call returns 0 on success, -1 with errno set on failure, may be made from any thread, makes
 * the cards on its first use in the process, and first brings the card up to the present moment. ENODEV: there is no
 * card of that number. EINVAL: an argument is null or out of its range. */
#ifndef ENYX_SIM_ENYX_SIM_H
#define ENYX_SIM_ENYX_SIM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* 1. That this symbol exists is the answer: the vendor's library does not have it. */
int enyx_sim_is_simulated(void);

/* ---- power and configuration ---- */

#define ENYX_SIM_MAX_CARDS 5
#define ENYX_SIM_STREAMS 16

enum enyx_sim_instruments {
    ENYX_SIM_INSTRUMENTS_DEFAULT = 0, /* the exchange's products at their real size, about 4,000 single-leg rows */
    ENYX_SIM_INSTRUMENTS_FULL = 1,    /* both tables filled to their 8,192 rows */
    ENYX_SIM_INSTRUMENTS_NONE = 2
};

typedef struct enyx_sim_config {
    uint32_t cards;                   /* 1 to 5, at bus 0, 1, ...; all of them alike but for the seed (seed + bus) */
    uint64_t seed;                    /* of prices and volumes */
    uint32_t quotes_per_second;       /* of one card, all instruments together; 0 = none */
    uint32_t learning_ms;             /* from the end of a reset until all instruments are learned */
    uint32_t static_round_ms;         /* how often the static data comes round and repairs overwritten ids; from 1 */
    uint32_t map_messages_per_packet; /* contract map; from 1, fewer when the MTU does not hold as many */
    uint32_t map_round_ms;            /* one whole round of contract-map packets; from 1 */
    uint32_t mtu;                     /* bytes, 512 to 65536, both directions */
    uint32_t ring_bytes;              /* per card-to-host stream, 4096 to 1048576, at least two packets of MTU size */
    uint32_t hardware_version;        /* register 0x101 */
    uint32_t verdict;                 /* register 0x103, first read after a write to 0x102 */
    uint32_t fibre_status;            /* register 0x103, any other read */
    int32_t clock_offset_seconds;     /* exchange time minus local time */
    uint32_t instruments;             /* enum enyx_sim_instruments */
    uint32_t list_date;               /* YYYYMMDD that the built-in list is made for; 0 = today */
    uint32_t quotes_per_instrument;   /* a second, for each that has a mask, up to quotes_per_second; 0 = no limit */
    uint32_t burst_every_ms;          /* a burst begins with the first quote and then this often; 0 = none */
    uint32_t burst_ms;                /* how long a burst takes to fall back to the usual rate; 1 to burst_every_ms */
    uint32_t burst_factor;            /* times the usual rate at its start, 1 to 100 */
    uint32_t pace;                    /* the card's time runs so many times as fast, up to 1000; 0 = and quotes are
                                         there whenever every open stream has room */
    uint32_t initial_date;            /* YYYYMMDD in register 0x106 at power-on */
    uint32_t initial_switch;          /* register 0x11 at power-on, 0 to 3 */
} enyx_sim_config;

/* Fills in what a card has that nobody configured. Cannot fail; null is ignored. */
void enyx_sim_default_config(enyx_sim_config* config);

/* Switches all cards off and on again, with @p config or, when null, the defaults; before the first use of the
 * library in a process it decides how the cards are made. Everything about the cards is forgotten, and so are scripted
 * failures; the trace stays. Open streams die: their handles only fail from then on, with EINVAL. Handles of
 * accelerators, register spaces and cores stay valid as long as the number of cards covers them. No other thread may
 * be inside an enyx_hw_ or enyx_sim_ call. EPERM: the cards are another process's, vexo-simcard hosts them; all other
 * calls work on hosted cards too, and what they change is changed for every process. */
int enyx_sim_power_cycle(const enyx_sim_config* config);

/* The same as a scenario file says, its faults and failing calls included: one card, at the scenario's bus. EINVAL,
 * with nothing changed and up to `size` bytes of the reason in `error` (which may be null), when the file cannot be
 * used: "FILE:LINE: what is wrong; what to do".
 * Without this call a process finds the card that the file named by the environment variable VEXO_SIM_SCENARIO
 * describes, changed by the settings in VEXO_SIM_SET (section.key=value, one a line). When these cannot be used, the
 * reason goes to standard error and there is no card. */
int enyx_sim_load_scenario(const char* path, char* error, size_t size);

/* Brings the card up to the present moment, as any other call does. */
int enyx_sim_advance(uint32_t card);

/* Stops (1) or starts (0) all that the card sends by itself: quotes and contract-map packets. */
int enyx_sim_pause_feed(uint32_t card, int paused);

/* ---- registers and tables, without side effects ---- */

/* `word` is the register's word index, as in 0x106. Write-only registers show what was written last. */
int enyx_sim_peek_register(uint32_t card, uint32_t word, uint32_t* value);
/* Read-only registers too: 0x101 hardware version, 0x103 fibre status, parser counters; 0x104 and 0x105 stand still at
 * the value until it is 0xFFFFFFFF. EINVAL for a word index that is no register, and for a read-back register. */
int enyx_sim_poke_register(uint32_t card, uint32_t word, uint32_t value);

/* `table` is 0 single-leg, 1 combination; word 0 the mask, 1 to 4 the id in the order stored. Setting a mask
 * subscribes, as the host's own write would. */
int enyx_sim_table_word(uint32_t card, uint32_t table, uint32_t row, uint32_t word, uint32_t* value);
int enyx_sim_set_table_word(uint32_t card, uint32_t table, uint32_t row, uint32_t word, uint32_t value);

/* on = 1: the row keeps its mask whatever the host writes, like a row with a broken cell; 0: it is repaired. */
int enyx_sim_row_ignores_mask(uint32_t card, uint32_t table, uint32_t row, int on);

/* ---- instruments ---- */

#define ENYX_SIM_ID_SIZE 32

typedef struct enyx_sim_instrument {
    uint32_t table;            /* 0 single-leg, 1 combination */
    uint32_t row;              /* 0 to 8191; the instrument's index in contract-map packets */
    char id[ENYX_SIM_ID_SIZE]; /* 1 to 31 characters and a zero byte; a row of the table holds the first 16 */
} enyx_sim_instrument;

/* Replaces what the card finds in its static data; it then behaves as after a reset. EINVAL, and nothing changed, when
 * two entries share a row, an entry is out of range, or there are more than both tables hold. */
int enyx_sim_set_instruments(uint32_t card, const enyx_sim_instrument* instruments, size_t count);
/* How many instruments the static data has, and how many of them (the first ones) are learned at this moment. */
int enyx_sim_instrument_count(uint32_t card, uint32_t* count, uint32_t* learned);
/* The instrument at a position of the static data. */
int enyx_sim_instrument_at(uint32_t card, uint32_t position, enyx_sim_instrument* instrument);
/* The first instrument of that id. ENOENT when the static data has none. */
int enyx_sim_find_instrument(uint32_t card, const char* id, enyx_sim_instrument* instrument);

/* A number for the cards that this process has opened: the same in every process whose cards are at the same buses,
 * have the same instruments in the same rows, and come from the same scenario. ENODEV: it has opened none. */
int enyx_sim_card_key(uint64_t* key);

/* ---- streams ---- */

/* Puts bytes into a card-to-host stream as they are, 0 to MTU bytes. ENOTCONN when nobody has the stream open, unless
 * `without_reader` is 1; such packets wait for the next reader. EMSGSIZE above the MTU. ENOBUFS when the ring is full,
 * which counts as back-pressure. */
int enyx_sim_push(uint32_t card, uint32_t channel, const void* data, uint32_t size, int without_reader);

typedef struct enyx_sim_counters {
    uint32_t packets;       /* card to host: put into the stream since it was opened */
    uint32_t back_pressure; /* card to host: lost because the ring was full */
    uint32_t fifo_errors;   /* card to host: 0 unless set here */
    uint32_t errors;        /* card to host: 0 unless set here */
    uint64_t sent_packets;  /* host to card: accepted since power-on */
    uint64_t sent_bytes;
} enyx_sim_counters;

int enyx_sim_get_counters(uint32_t card, uint32_t channel, enyx_sim_counters* counters);
int enyx_sim_set_counters(uint32_t card, uint32_t channel, const enyx_sim_counters* counters);

/* The next `sends` sends to the channel find the stream busy (EAGAIN); 0xFFFFFFFF = all of them, 0 = none any more. */
int enyx_sim_busy_sends(uint32_t card, uint32_t channel, uint32_t sends);

/* on = 1: card-to-host stream `channel` is taken by somebody else, so that nobody can open it (EBUSY); who has it
 * open keeps it. 0: it is free again. */
int enyx_sim_hold_stream(uint32_t card, uint32_t channel, int on);

/* ---- a card that fails ---- */

/* on = 1: the clock, the counters and all streams stand still; registers and tables still answer. 0: it goes on from
 * there, with no end ahead of it. */
int enyx_sim_stop(uint32_t card, int on);
/* The same after the next `packets` packets that the card sends by itself, or after `ms` milliseconds of its time,
 * whichever is first; 0 = not for that reason. */
int enyx_sim_stop_after(uint32_t card, uint64_t packets, uint32_t ms);

enum enyx_sim_counter_mode {
    ENYX_SIM_COUNTERS_TRUE = 0,
    ENYX_SIM_COUNTERS_FROZEN = 1, /* they stand still, whatever is learned or forgotten */
    ENYX_SIM_COUNTERS_RUNNING = 2 /* each gains one a millisecond */
};
/* How the parser counters (0x200B to 0x210E) behave. */
int enyx_sim_parser_counters(uint32_t card, uint32_t mode);

/* The next `times` resets of the root core do nothing; 0xFFFFFFFF = all of them, 0 = none any more. Register 0x10
 * resets the card all the same. */
int enyx_sim_ignore_resets(uint32_t card, uint32_t times);

/* ---- spoiled packets ---- */

enum enyx_sim_packet_fault_kind {
    ENYX_SIM_FAULT_DROP = 0,        /* not delivered; its sequence numbers are used up */
    ENYX_SIM_FAULT_DOUBLE = 1,      /* delivered twice */
    ENYX_SIM_FAULT_CUT = 2,         /* ends after `value` bytes */
    ENYX_SIM_FAULT_RUNT = 3,        /* ends after 0, 1 ... 11 bytes, one more with each packet struck */
    ENYX_SIM_FAULT_TYPE = 4,        /* the type in the head becomes `value` */
    ENYX_SIM_FAULT_HEAD_LENGTH = 5, /* the length in the head becomes `value` */
    ENYX_SIM_FAULT_FLIP = 6,        /* one bit behind the head is wrong */
    ENYX_SIM_FAULT_MAP_LENGTH = 7,  /* contract map: the length of message `message` becomes `value` */
    ENYX_SIM_FAULT_MAP_AREA = 8,    /* contract map: the length of the message area becomes `value` */
    ENYX_SIM_FAULT_MAP_COUNT = 9,   /* contract map: the number of learned instruments becomes `value` */
    ENYX_SIM_FAULT_MAP_INDEX = 10   /* contract map: the index in message `message` becomes `value` */
};

#define ENYX_SIM_QUOTE_PACKETS 1
#define ENYX_SIM_MAP_PACKETS 2

/* Which of the packets that the card sends by itself are spoiled. They are counted over the rule's channels and sorts;
 * a quote that goes to three channels is three packets. */
typedef struct enyx_sim_packet_fault {
    uint32_t kind;        /* enum enyx_sim_packet_fault_kind */
    uint32_t channels;    /* bit n = channel n */
    uint32_t packets;     /* ENYX_SIM_..._PACKETS, or both; kinds of the contract map strike that alone */
    uint32_t first;       /* the first packet that may be struck; from 1 */
    uint32_t every;       /* from there on each n-th; from 1 */
    uint32_t times;       /* strikes until the rule rests; 0 = for good */
    uint32_t per_million; /* chance of each of those packets, by the card's own generator; 1000000 = certain */
    uint32_t value;
    uint32_t message; /* from 0 */
} enyx_sim_packet_fault;

/* Returns the rule's number, from 0. Rules strike in the order in which they were added. ENOSPC when there are 32. */
int enyx_sim_add_packet_fault(uint32_t card, const enyx_sim_packet_fault* fault);
/* Ends all rules. */
int enyx_sim_clear_packet_faults(uint32_t card);
/* How often a rule struck. */
int enyx_sim_packet_fault_strikes(uint32_t card, uint32_t rule, uint64_t* strikes);

/* ---- scripted failures of single calls ---- */

typedef struct enyx_sim_failure {
    const char* call; /* name of the enyx_hw_ function, one that can fail: not ..._destroy, not ..._free_... */
    uint32_t nth;     /* which call from now on fails first: 1 = the next one */
    uint32_t times;   /* how many in a row; 0 = all from then on */
    int error;        /* errno that the call leaves; also the result of enyx_hw_c2a_stream_send */
    int has_result;   /* 1: `result` is the result, not the usual failure; not for calls that return a pointer */
    int64_t result;   /* of an enumeration: at most as many descriptors are filled as there are */
} enyx_sim_failure;

/* The call itself does not happen, but for an enumeration with a result of its own. Several scripts for one call may
 * run side by side; each counts all calls of that name in the process. EINVAL: no such call, nth is 0, a result for a
 * call that returns a pointer. */
int enyx_sim_fail(const enyx_sim_failure* failure);
/* The same in short: the nth call from now on fails with `error`, once, or with `for_good` 1 from then on. */
int enyx_sim_fail_call(const char* call, uint32_t nth, int error, int for_good);
/* Ends all scripts. */
void enyx_sim_clear_failures(void);

/* ---- watching ---- */

/* Called once for each enyx_hw_ call with one line: the call's name, its arguments and its result, such as
 *     enyx_hw_write core=0x1da address=0x408 offset=0 width=32 value=0x1010213 result=0
 * Lines come one at a time; those of calls made inside a packet handler come before the line of the poll. A failed
 * call's line ends in errno=<number>. The callback must not call enyx_hw_ or enyx_sim_ functions. A null callback ends
 * the trace, and no line comes after that. */
typedef void (*enyx_sim_trace)(const char* line, void* context);
void enyx_sim_set_trace(enyx_sim_trace trace, void* context);

typedef struct enyx_sim_handles {
    uint32_t filters;
    uint32_t accelerator_descriptors;
    uint32_t mmio_descriptors;
    uint32_t mmios;
    uint32_t a2c_descriptors;
    uint32_t a2c_streams;
    uint32_t c2a_descriptors;
    uint32_t c2a_streams;
    uint64_t misuses; /* calls since the process began that were given a null or a destroyed handle */
} enyx_sim_handles;

/* What the process holds at this moment, to find what is not released or released twice. */
void enyx_sim_count_handles(enyx_sim_handles* handles);

#ifdef __cplusplus
}
#endif

#endif
