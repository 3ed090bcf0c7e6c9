// Put in front of a card's library, this one breaks a single promise: the one that CARDTEST_BREAKS names. With
// "nothing" it only writes down, in the file CARDTEST_FILE, each call that changes the card.

#include <dlfcn.h>
#include <enyx-hw-c/enyx_hw.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <string>

#include "interface/CardRegisters.h"

namespace {

using namespace card_reg;

bool breaks(const char* promise) {
    static const char* const broken = std::getenv("CARDTEST_BREAKS");
    return broken != nullptr && std::strcmp(broken, promise) == 0;
}

const char* markFile() { return std::getenv("CARDTEST_FILE"); }

void note(const char* call) {
    const int file = open(markFile(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const std::string line = std::string(call) + "\n";
    if (file < 0 || write(file, line.data(), line.size()) < 0) std::abort();
    close(file);
}

void noteIfAsked(const char* call) {
    if (breaks("nothing")) note(call);
}

bool isMarked() { return access(markFile(), F_OK) == 0; }

bool onMainThread() { return syscall(SYS_gettid) == getpid(); }

// The second process of a check, which holds something.
bool inHelper() {
    static const bool helper = [] {
        std::ifstream file("/proc/self/cmdline");
        std::string line;
        std::getline(file, line);
        return line.find("--role") != std::string::npos;
    }();
    return helper;
}

template <typename Function>
Function* findNext(const char* name, Function*) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

template <typename T>
T* refused(int error) {
    errno = error;
    return nullptr;
}

int failed(int error) {
    errno = error;
    return -1;
}

// ---- what the calls so far have told ----
std::set<const enyx_hw_filter*> g_filtersInUse;  // those that were given an index or a name
std::string g_lastName;
const enyx_hw_filter* g_outOfRange = nullptr;  // the filter whose index no object can have
enyx_hw_filter* g_lastIndexed = nullptr;
int g_freed = 0, g_opened = 0, g_spaces = 0, g_closedSpaces = 0, g_locks = 0, g_reads = 0, g_closedDown = 0;
bool g_cardDescriptorFreed = false, g_reset = false;
std::string g_openName;
enyx_hw_a2c_stream* g_open = nullptr;
char g_noStream;
std::uint32_t g_select[2], g_polls = 0, g_madeUp = 0, g_mtuCalls = 0;
bool g_decoding = false;
pthread_mutex_t g_ownLock = PTHREAD_MUTEX_INITIALIZER;

enyx_hw_a2c_stream* noStream() { return reinterpret_cast<enyx_hw_a2c_stream*>(&g_noStream); }

std::uint64_t wordOf(const enyx_hw_register_description& reg) { return reg.address / 4; }

std::uint64_t lowBits(unsigned width) { return width >= 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << width) - 1; }

// The value of a field as if its first register held something else.
std::uint64_t withRegister(const enyx_hw_register_description& reg, std::uint64_t value, std::uint32_t other) {
    const unsigned held = 32U - reg.bit_offset;
    return ((value & ~lowBits(held)) | other >> reg.bit_offset) & lowBits(reg.bit_width);
}

}  // namespace

#define NEXT(name) (*findNext(#name, &name))

extern "C" {

// ---- filters ----

int enyx_hw_filter_set_index(enyx_hw_filter* filter, uint32_t index) {
    g_filtersInUse.insert(filter);
    if (index == 0xFFFFFFFF) g_outOfRange = filter;
    if (breaks("filter-index")) return 0;
    if (breaks("filter-own") && g_lastIndexed != nullptr) NEXT(enyx_hw_filter_set_index)(g_lastIndexed, index);
    g_lastIndexed = filter;
    return NEXT(enyx_hw_filter_set_index)(filter, index);
}

int enyx_hw_filter_set_name(enyx_hw_filter* filter, const char* name) {
    g_filtersInUse.insert(filter);
    g_lastName = name;
    if (breaks("filter-name")) return 0;
    const int result = NEXT(enyx_hw_filter_set_name)(filter, name);
    return breaks("filter-create") ? 1 : result;
}

void enyx_hw_filter_destroy(enyx_hw_filter* filter) {
    g_filtersInUse.erase(filter);
    if (g_lastIndexed == filter) g_lastIndexed = nullptr;
    NEXT(enyx_hw_filter_destroy)(filter);
}

// ---- enumerations ----

ssize_t enyx_hw_enumerate_accelerators(const enyx_hw_filter* filter, enyx_hw_accelerator_descriptor** descriptors,
                                       size_t count) {
    if (breaks("filter-empty") && g_filtersInUse.count(filter) == 0) return 0;
    return NEXT(enyx_hw_enumerate_accelerators)(filter, descriptors, count);
}

ssize_t enyx_hw_accelerator_enumerate_mmios(const enyx_hw_accelerator* accelerator, const enyx_hw_filter* filter,
                                            enyx_hw_mmio_descriptor** descriptors, size_t count) {
    if (breaks("card-descriptor") && g_cardDescriptorFreed) return failed(ENODEV);
    if (breaks("space-found") && g_filtersInUse.count(filter) != 0) return 0;
    return NEXT(enyx_hw_accelerator_enumerate_mmios)(accelerator, filter, descriptors, count);
}

ssize_t enyx_hw_accelerator_enumerate_a2c_streams(const enyx_hw_accelerator* accelerator, const enyx_hw_filter* filter,
                                                  enyx_hw_a2c_stream_descriptor** descriptors, size_t count) {
    if (breaks("enumeration-failure") && filter == g_outOfRange) return -2;
    if (breaks("enumeration-again") && g_freed > 100) return 0;
    const ssize_t found = NEXT(enyx_hw_accelerator_enumerate_a2c_streams)(
        accelerator, filter, descriptors, breaks("enumeration-room") ? count + 1 : count);
    if (breaks("enumeration-count")) return std::min(found, static_cast<ssize_t>(count));
    if (breaks("enumeration-none") && found == 0) return failed(ENOENT);
    return found;
}

void enyx_hw_free_a2c_stream_descriptors(enyx_hw_a2c_stream_descriptor** descriptors, size_t count) {
    ++g_freed;
    NEXT(enyx_hw_free_a2c_stream_descriptors)(descriptors, count);
}

ssize_t enyx_hw_core_enumerate(enyx_hw_core* root, uint16_t hardware_id, enyx_hw_core** cores, size_t count) {
    if (breaks("core-registers")) return 0;
    return NEXT(enyx_hw_core_enumerate)(root, breaks("core-unknown") ? 474 : hardware_id, cores, count);
}

// ---- cards, register spaces, cores ----

enyx_hw_accelerator* enyx_hw_accelerator_get(const enyx_hw_accelerator_descriptor* descriptor) {
    if (breaks("card-opens") && ++g_opened > 1) return refused<enyx_hw_accelerator>(EBUSY);
    return NEXT(enyx_hw_accelerator_get)(descriptor);
}

void enyx_hw_free_accelerator_descriptors(enyx_hw_accelerator_descriptor** descriptors, size_t count) {
    g_cardDescriptorFreed = true;
    NEXT(enyx_hw_free_accelerator_descriptors)(descriptors, count);
}

enyx_hw_mmio* enyx_hw_mmio_create(const enyx_hw_mmio_descriptor* descriptor) {
    if (breaks("space-again") && g_closedSpaces > 0) return refused<enyx_hw_mmio>(EIO);
    if (breaks("space-second") && g_spaces > g_closedSpaces) return refused<enyx_hw_mmio>(EBUSY);
    ++g_spaces;
    return NEXT(enyx_hw_mmio_create)(descriptor);
}

void enyx_hw_mmio_destroy(enyx_hw_mmio* mmio) {
    ++g_closedSpaces;
    NEXT(enyx_hw_mmio_destroy)(mmio);
}

enyx_hw_core* enyx_hw_core_tree_get_root(enyx_hw_core_tree* tree) {
    return breaks("core-root") ? refused<enyx_hw_core>(EIO) : NEXT(enyx_hw_core_tree_get_root)(tree);
}

int enyx_hw_core_reset(enyx_hw_core* core) {
    noteIfAsked("enyx_hw_core_reset");
    g_reset = true;
    return breaks("reset-root") ? 0 : NEXT(enyx_hw_core_reset)(core);
}

int enyx_hw_core_lock(enyx_hw_core* core) {
    if (breaks("lock-threads")) return 0;
    if (breaks("lock-again") && ++g_locks > 500) return failed(EAGAIN);
    if (breaks("lock-processes")) return pthread_mutex_lock(&g_ownLock);
    if (!breaks("lock-dead-holder") || !inHelper()) return NEXT(enyx_hw_core_lock)(core);
    while (isMarked()) usleep(1000);
    const int result = NEXT(enyx_hw_core_lock)(core);
    note("locked");
    return result;
}

int enyx_hw_core_unlock(enyx_hw_core* core) {
    if (breaks("lock-threads")) return 0;
    if (breaks("lock-processes")) return pthread_mutex_unlock(&g_ownLock);
    if (breaks("lock-dead-holder") && inHelper()) unlink(markFile());
    return NEXT(enyx_hw_core_unlock)(core);
}

// ---- registers ----

static bool isZero(enyx_hw_core* core, const enyx_hw_register_description& reg) {
    const enyx_hw_register_description whole{reg.address, 0, 32};
    uint64_t value = 0;
    return NEXT(enyx_hw_read)(core, &whole, &value) == 0 && value == 0;
}

int enyx_hw_read(enyx_hw_core* core, const enyx_hw_register_description* reg, uint64_t* value) {
    enyx_hw_register_description own = *reg;
    const std::uint64_t word = wordOf(own);
    if (breaks("read-threads") && !onMainThread()) return failed(EPERM);
    if (breaks("read-widths") && own.bit_offset == 0 && own.bit_width < 32) own.bit_width = 32;
    if (breaks("read-offsets")) own.bit_offset = 0;
    if (word == kVerdictOrFibre) noteIfAsked("read of the verdict");
    const int result = NEXT(enyx_hw_read)(core, &own, value);
    if (breaks("read-again") && word == kHardwareVersion && onMainThread() && ++g_reads == 500) ++*value;
    if (breaks("register-time") && word == kExchangeTimeA) *value = withRegister(own, *value, 996161);
    if (breaks("register-date") && word == kTradingDate && isZero(core, own)) *value = withRegister(own, *value, 13);
    if (breaks("version-verdict") && word == kVerdictOrFibre && g_reads == -1) *value = 1;
    if (breaks("data-kept") && word == kTables[1].data) *value &= 0x7FFFFFFF;
    if (breaks("table-masks") && word == kTables[0].readBack && g_select[0] % kWordsPerRow == kMaskWord) *value &= 0xFF;
    if (breaks("reset-counters") && word == kParserCounters[0] && g_reset)
        *value += static_cast<std::uint64_t>(++g_reads);
    return result;
}

int enyx_hw_write(enyx_hw_core* core, const enyx_hw_register_description* reg, uint64_t value) {
    enyx_hw_register_description own = *reg;
    const std::uint64_t word = wordOf(own);
    noteIfAsked("enyx_hw_write");
    if (breaks("date-kept") && word == kTradingDate) return 0;
    if (breaks("write-fields") && own.bit_width < 32) own.bit_width = 32, own.bit_offset = 0;
    if (breaks("write-wide") && own.bit_width > 32) own.bit_width = 32;
    if (breaks("table-words") && word == kTables[1].command && value % kWordsPerRow == kWordsPerRow - 1) return 0;
    if (breaks("reset-register") && word == kReset) return 0;
    if (breaks("map-on-request") && word == kMapTransmit && value == 0) return 0;
    if (word == kSoftwareVersion) g_reads = -1;
    if (word == kDecodeSwitch) g_decoding = value != 0;
    for (std::uint32_t table = 0; table < 2; ++table) {
        if (word != kTables[table].select) continue;
        g_select[table] = static_cast<std::uint32_t>(value);
        const std::uint64_t part = value % kWordsPerRow;
        if (breaks("table-ids") && part >= 1 && part <= 4) value += 5 - 2 * part;
    }
    return NEXT(enyx_hw_write)(core, &own, value);
}

// ---- card-to-host streams ----

enyx_hw_a2c_stream* enyx_hw_a2c_stream_create(const enyx_hw_a2c_stream_descriptor* descriptor, const void* none) {
    if (breaks("a2c-second") && g_open != nullptr && g_lastName != g_openName)
        return refused<enyx_hw_a2c_stream>(ENOMEM);
    if (breaks("stream-dead-holder") && !inHelper() && isMarked()) return refused<enyx_hw_a2c_stream>(EBUSY);
    enyx_hw_a2c_stream* stream = NEXT(enyx_hw_a2c_stream_create)(descriptor, none);
    if (stream == nullptr && errno == EBUSY) {
        if (breaks("a2c-busy")) return g_open;
        if (breaks("a2c-busy errno")) return refused<enyx_hw_a2c_stream>(EAGAIN);
        if (breaks("stream-processes") && inHelper()) return noStream();
        return refused<enyx_hw_a2c_stream>(EBUSY);
    }
    if (breaks("stream-dead-holder") && inHelper()) note("opened");
    g_openName = g_lastName;
    return g_open = stream;
}

void enyx_hw_a2c_stream_destroy(enyx_hw_a2c_stream* stream) {
    if (stream == noStream() || (breaks("a2c-again") && onMainThread())) return;
    if (breaks("a2c-threads destroy") && !onMainThread()) return;
    if (breaks("stream-dead-holder") && inHelper()) unlink(markFile());
    if (g_open == stream) g_open = nullptr;
    NEXT(enyx_hw_a2c_stream_destroy)(stream);
}

int enyx_hw_a2c_stream_get_mtu(const enyx_hw_a2c_stream* stream, uint32_t* mtu) {
    const int result = NEXT(enyx_hw_a2c_stream_get_mtu)(stream, mtu);
    if (breaks("a2c-mtu")) *mtu += g_mtuCalls++;
    return result;
}

int enyx_hw_a2c_stream_stats_get_fifo_errors(const enyx_hw_a2c_stream* stream, uint32_t* value) {
    return breaks("a2c-counters") ? failed(EIO) : NEXT(enyx_hw_a2c_stream_stats_get_fifo_errors)(stream, value);
}

int enyx_hw_a2c_stream_stats_get_packet_count(const enyx_hw_a2c_stream* stream, uint32_t* value) {
    const int result = NEXT(enyx_hw_a2c_stream_stats_get_packet_count)(stream, value);
    *value = breaks("a2c-count") ? 0 : *value + g_madeUp;
    return result;
}

namespace {

struct Delivery {
    enyx_hw_a2c_stream_handler handler;
    void* context;
};

bool isMap(const uint8_t* data, uint32_t size) { return size > 16 && data[0] == 2 && data[1] == 0; }

void deliver(const uint8_t* data, uint32_t size, void* context) {
    const Delivery& to = *static_cast<const Delivery*>(context);
    if (breaks("a2c-poll")) to.handler(data, size, to.context);
    if (breaks("a2c-packets")) size += 1U << 20;
    if (breaks("map-on-request content") && isMap(data, size)) size = 20;
    to.handler(data, size, breaks("a2c-context") ? nullptr : to.context);
}

}  // namespace

int enyx_hw_a2c_stream_poll_once(enyx_hw_a2c_stream* stream, enyx_hw_a2c_stream_handler handler, void* context) {
    if (breaks("a2c-threads poll") && !onMainThread()) return failed(EPERM);
    if (breaks("quotes-by-mask") && g_decoding && ++g_polls % 10 == 0) {
        const uint8_t quote[64] = {17};
        ++g_madeUp;
        handler(quote, sizeof quote, context);
        return 1;
    }
    Delivery delivery{handler, context};
    const int result = NEXT(enyx_hw_a2c_stream_poll_once)(stream, deliver, &delivery);
    return breaks("a2c-poll result") ? 0 : result;
}

// ---- host-to-card streams ----

enyx_hw_c2a_stream* enyx_hw_c2a_stream_create(const enyx_hw_c2a_stream_descriptor* descriptor, const void* none) {
    if (breaks("c2a-again") && g_closedDown > 0) return refused<enyx_hw_c2a_stream>(EBUSY);
    return NEXT(enyx_hw_c2a_stream_create)(descriptor, none);
}

void enyx_hw_c2a_stream_destroy(enyx_hw_c2a_stream* stream) {
    ++g_closedDown;
    NEXT(enyx_hw_c2a_stream_destroy)(stream);
}

int enyx_hw_c2a_stream_get_mtu(const enyx_hw_c2a_stream* stream, uint32_t* mtu) {
    if (breaks("c2a-mtu crash")) std::abort();
    for (; breaks("c2a-mtu hang");) pause();
    const int result = NEXT(enyx_hw_c2a_stream_get_mtu)(stream, mtu);
    if (breaks("c2a-mtu")) *mtu = 0;
    return result;
}

int enyx_hw_c2a_stream_send(enyx_hw_c2a_stream* stream, const void* data, uint32_t size) {
    noteIfAsked("enyx_hw_c2a_stream_send");
    return breaks("c2a-send") ? failed(EIO) : NEXT(enyx_hw_c2a_stream_send)(stream, data, size);
}

}  // extern "C"
