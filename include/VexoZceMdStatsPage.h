/// The statistics page of a process: a small file in shared memory that counts what the process receives. It is written
/// by VexoZceMdStats.h inside the application, or by `vexo tap --stats-only` around it, and read by `vexo stat`.
///
/// A page is one Process block and kStreams Stream blocks of kBlockBytes each. Its numbers are 64-bit words. One thread
/// writes a word, with plain instructions: no lock, no system call. Readers take copies and never write.
#ifndef VEXO_ZCE_MD_STATS_PAGE_H
#define VEXO_ZCE_MD_STATS_PAGE_H

#include <cstddef>
#include <cstdint>

namespace vexo_stats {

constexpr std::uint64_t kMagic = 0x4547415053584556;  // "VEXSPAGE"
constexpr std::uint32_t kVersion = 2;                 // another layout has another version
constexpr std::size_t kBlockBytes = 4096;
constexpr std::size_t kStreams = 16;
constexpr std::size_t kPageBytes = kBlockBytes * (1 + kStreams);
constexpr std::size_t kBuckets = 64;
constexpr std::size_t kProgramBytes = 64;

constexpr char kDirectoryVariable[] = "VEXO_STATS_DIR";             // a directory for the pages
constexpr char kDirectoryPrefix[] = "/dev/shm/vexo-stats-";         // otherwise: and the user's number
constexpr char kKeepVariable[] = "VEXO_STATS_KEEP";                 // 1: the page stays when its process ends
constexpr std::uint64_t kUnknown = ~static_cast<std::uint64_t>(0);  // of numbers that the writer cannot know

/// Packets are counted by the type in their head: 0 to 31 each by itself.
enum TypeSlot { kOtherType = 32, kNoType = 33, kTypeSlots = 34 };  // kNoType: shorter than a type

/// What happens once. The time of each step is on the page's clock, 0 while it has not happened.
enum Step {
    kBegun,         ///< the page was made
    kCardLookedUp,  ///< the cards were enumerated
    kReset,         ///< a core of the card was reset, the last time
    kFirstWrite,    ///< a register was written
    kStreamOpened,  ///< the first stream was opened
    kFirstPoll,
    kFirstPacket,  ///< of any type
    kFirstQuote,   ///< the first packet of types 17 to 20
    kEnded,        ///< the process ended in order
    kSteps
};

enum Writer { kApplication = 1, kTap = 2, kRelay = 3 };

/// The page's clock is the processor's time-stamp counter, doubled, so that the time between two readings is never 0.
struct Process {
    std::uint64_t magic;
    std::uint32_t version;
    std::uint32_t blockBytes;
    std::uint32_t streams;  // blocks behind this one
    std::uint32_t pid;
    std::uint64_t processStart;    // field 22 of /proc/PID/stat: tells the process from a later one of the same number
    std::uint64_t writer;          // Writer
    std::uint64_t clockPerSecond;  // three digits, so that it is the same at each start
    std::uint64_t clockIsEven;     // 0: the counter does not run at a constant rate; times are rough
    std::uint64_t startClock;      // one moment on both clocks
    std::uint64_t startNs;         // since 1970
    std::uint64_t steps[kSteps];
    char program[kProgramBytes];  // ends with a zero byte
    // What tells the page of a running process from one that was left behind.
    std::uint64_t pidNamespace;  // who sees the process under this number; 0: not known
    std::uint64_t boot;          // the machine's run whose counter is the page's clock; 0: not known
    std::uint64_t isLocked;      // 1: the process keeps a lock on the file until it ends or becomes another program
    std::uint64_t isKept;        // 1: the page stays when the process has ended
    std::uint64_t endNs;         // the moment of steps[kEnded], since 1970
    std::uint64_t users;         // libraries of the process that share the page
};

enum StreamState { kUnused = 0, kOpen = 1, kClosed = 2, kPreparing = 3 };  // kPreparing: not to be read yet

/// Buckets of the gaps that count no gap: a first packet after the stream was opened; a clock that ran backwards.
enum { kFirstBucket = 62, kBackwardsBucket = 63 };

/// Bucket b of a histogram counts times from 2^b up to, but not including, 2^(b+1) of the page's clock.
struct Stream {
    // When a packet comes.
    std::uint64_t lastPacket;     // on the page's clock; means nothing while firstPacket is 0
    std::uint64_t firstPacket;    // 0: there was none
    std::uint64_t callbackClock;  // all callbacks together
    std::uint64_t idlePolls;
    std::uint64_t failedPolls;  // negative result
    std::uint64_t packets[kTypeSlots];
    std::uint64_t bytes[kTypeSlots];    // heads included; all 0 when the writer does not know them
    std::uint64_t gaps[kBuckets];       // from one packet to the next
    std::uint64_t callbacks[kBuckets];  // one for each callback that returned
    // Sequence numbers, where the payload's layout is known.
    std::uint64_t sequenceKnown;  // 0: the numbers below mean nothing
    std::uint64_t sequenceGaps;
    std::uint64_t sequenceLost;      // packets missing in the gaps
    std::uint64_t sequenceLate;      // packets that came again, or late
    std::uint64_t sequenceRestarts;  // jumps that are no loss
    // What the card counts for this stream; kUnknown where it cannot be read.
    std::uint64_t backPressure;             // packets lost because the ring was full
    std::uint64_t backPressureInCallbacks;  // those of them that a long callback caused
    std::uint64_t lostBeforeCard;           // of the missing packets, those that the back-pressure does not explain
    std::uint64_t fifoErrors;
    std::uint64_t errors;
    std::uint64_t cardRead;  // when, on the page's clock
    // Seldom.
    std::uint64_t state;  // StreamState
    std::uint64_t card;
    std::uint64_t channel;
    std::uint64_t pollsKnown;    // 0: the writer does not see polls
    std::uint64_t closedClock;   // of the time from the first packet to the last: what is no gap
    std::uint64_t longCallback;  // on the page's clock: a callback of this length outlasts the ring
    std::uint64_t cardPackets;   // what the card counts: packets put into the ring; kUnknown where it cannot be read
    std::uint64_t lostByTap;     // received, but not recorded by the tap; kUnknown without a recording
    std::uint64_t lostByRelay;   // received, but not sent on by this process; kUnknown if it is no relay
};

static_assert(sizeof(Process) <= kBlockBytes && sizeof(Stream) <= kBlockBytes, "blocks of the statistics page");

// ---- what the writers do at each packet: one instruction each, which no reader can see half done ----

inline void add(std::uint64_t& word, std::uint64_t n) { __asm__("addq %1, %0" : "+m"(word) : "er"(n) : "cc"); }
inline void addOne(std::uint64_t& word) { __asm__("incq %0" : "+m"(word) : : "cc"); }

inline void set(std::uint64_t& word, std::uint64_t value) { __atomic_store_n(&word, value, __ATOMIC_RELAXED); }

/// Moments on the page's clock. A start is even, an end odd: their difference is odd, so it is never 0.
inline std::uint64_t startNow() {
    std::uint64_t low;
    std::uint64_t high;
    __asm__ volatile("rdtsc" : "=a"(low), "=d"(high));
    return (high << 33) + low * 2;
}
inline std::uint64_t endNow() {
    std::uint64_t low;
    std::uint64_t high;
    __asm__ volatile("rdtsc" : "=a"(low), "=d"(high));
    std::uint64_t now = (high << 33) + low * 2 + 1;
    __asm__("" : "+r"(now));  // or the compiler spreads the sum over the subtraction that follows
    return now;
}

/// The time from one start to the next, odd too.
inline std::uint64_t between(std::uint64_t last, std::uint64_t start) {
    std::uint64_t odd = start + 1;
    __asm__("" : "+r"(odd));  // as in endNow()
    return odd - last;
}

/// @param time  not 0
inline std::uint64_t bucketOf(std::uint64_t time) {
    std::uint64_t bucket;
    __asm__("bsrq %1, %0" : "=r"(bucket) : "r"(time) : "cc");
    return bucket;
}

/// The next packet will be the first one after the stream was opened: its time is no gap.
inline void expectFirst(Stream& stream, std::uint64_t now) {
    if (stream.firstPacket == 0) {
        stream.firstPacket = now;
    } else {
        stream.closedClock += now - stream.lastPacket;
    }
    set(stream.lastPacket, now - (static_cast<std::uint64_t>(1) << kFirstBucket));
}

/// Fills in a new block, before the first packet: what only some writers know is unknown. The state is left to the
/// caller.
/// @param card, channel  kUnknown if the writer does not know them
inline void describe(Stream& stream, std::uint64_t card, std::uint64_t channel) {
    stream.card = card;
    stream.channel = channel;
    stream.backPressure = stream.backPressureInCallbacks = kUnknown;
    stream.fifoErrors = stream.errors = stream.cardPackets = kUnknown;
    stream.lostByTap = stream.lostByRelay = kUnknown;
}

/// Counts a packet whose sequence number is not the expected one.
/// @param ahead  the number minus the expected one
/// @return whether the count goes on from this packet
inline bool countOutOfTurn(Stream& stream, std::int64_t ahead) {
    constexpr std::int64_t kMostLost = 1 << 20;
    constexpr std::int64_t kMostLate = 1 << 10;
    if (ahead > 0 && ahead < kMostLost) {
        addOne(stream.sequenceGaps);
        add(stream.sequenceLost, static_cast<std::uint64_t>(ahead));
        return true;
    }
    if (ahead < 0 && ahead > -kMostLate) {
        addOne(stream.sequenceLate);
        return false;
    }
    addOne(stream.sequenceRestarts);
    return true;
}

}  // namespace vexo_stats

#endif
