// libvexo-polls.so: counts the polls of an application for the program that supervises it. It lies between the
// application and the card's library. A poll costs a few instructions more and no system call.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>

// Everything else of this library is hidden.
#pragma GCC visibility push(default)
#include <enyx-hw-c/enyx_hw.h>
#pragma GCC visibility pop

#include "tools/polls/PollPage.h"
#include "tools/tap/NextCall.h"

using namespace polls;

namespace {

tap::NextCall<decltype(enyx_hw_a2c_stream_create)> g_create("enyx_hw_a2c_stream_create");
tap::NextCall<decltype(enyx_hw_a2c_stream_destroy)> g_destroy("enyx_hw_a2c_stream_destroy");
tap::NextCall<decltype(enyx_hw_a2c_stream_poll_once)> g_poll("enyx_hw_a2c_stream_poll_once");
tap::NextCall<decltype(enyx_hw_c2a_stream_get_mtu)> g_getMtu("enyx_hw_c2a_stream_get_mtu");

PollPage* g_page = nullptr;

// Which slot of the page belongs to a stream of this process: the slot at the same place.
std::atomic<const void*> g_streams[kStreams];

// Another program may have closed the descriptor and given its number to a file of its own. The seals, which only an
// anonymous file can have, the size and the first word tell that it is the page; the seals also keep its size.
bool isPage(int fd) {
    constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
    struct stat status;
    if (::fcntl(fd, F_GET_SEALS) != kSeals || ::fstat(fd, &status) != 0) return false;
    std::uint32_t magic = 0;
    return status.st_size == sizeof(PollPage) && ::pread(fd, &magic, sizeof magic, 0) == sizeof magic &&
           magic == kMagic;
}

[[gnu::constructor]] void attach() {
    const tap::KeepErrno keep;
    const char* const text = std::getenv(kVariable);
    if (text == nullptr) return;
    char* end = nullptr;
    const long fd = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || fd < 0 || fd > 0x7FFFFFFF || !isPage(static_cast<int>(fd))) return;
    void* const page = ::mmap(nullptr, sizeof(PollPage), PROT_READ | PROT_WRITE, MAP_SHARED, static_cast<int>(fd), 0);
    if (page == MAP_FAILED) return;
    g_page = static_cast<PollPage*>(page);
    g_page->attached.store(1, std::memory_order_relaxed);
}

std::size_t firstPlace(const void* stream) { return (reinterpret_cast<std::uintptr_t>(stream) >> 4) % kStreams; }

// A single writer needs no locked addition.
void countOne(StreamSlot& slot) {
    slot.polls.store(slot.polls.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

StreamSlot* find(const void* stream) {
    std::size_t i = firstPlace(stream);
    for (std::size_t n = 0; n < kStreams; ++n, i = (i + 1) % kStreams)
        if (g_streams[i].load(std::memory_order_acquire) == stream) return &g_page->streams[i];
    return nullptr;
}

// With more streams than slots, those without one are not watched.
void open(const void* stream) {
    if (g_page == nullptr || stream == nullptr) return;
    std::size_t i = firstPlace(stream);
    for (std::size_t n = 0; n < kStreams; ++n, i = (i + 1) % kStreams) {
        std::uint32_t nobody = 0;
        StreamSlot& slot = g_page->streams[i];
        if (!slot.owner.compare_exchange_strong(nobody, static_cast<std::uint32_t>(::getpid()))) continue;
        countOne(slot);  // opening counts as a sign of life
        g_streams[i].store(stream, std::memory_order_release);
        return;
    }
}

// A child of fork() has a copy of the table. The slots stay its parent's.
void close(const void* stream) {
    StreamSlot* const slot = g_page != nullptr && stream != nullptr ? find(stream) : nullptr;
    if (slot == nullptr || slot->owner.load() != static_cast<std::uint32_t>(::getpid())) return;
    g_streams[slot - g_page->streams].store(nullptr, std::memory_order_release);
    slot->owner.store(0);
}

void tellReady() {
    if (g_page->ready.load(std::memory_order_relaxed) == 0) g_page->ready.store(1);
}

// Slow path: the stream is not at its first place, or nobody supervises.
[[gnu::noinline, gnu::cold]] void countPollSlow(const void* stream) {
    StreamSlot* const slot = g_page != nullptr ? find(stream) : nullptr;
    if (slot != nullptr) countOne(*slot);
}

}  // namespace

enyx_hw_a2c_stream* enyx_hw_a2c_stream_create(const enyx_hw_a2c_stream_descriptor* descriptor,
                                              const void* configuration) {
    enyx_hw_a2c_stream* const stream = g_create(descriptor, configuration);
    const tap::KeepErrno keep;
    open(stream);
    return stream;
}

void enyx_hw_a2c_stream_destroy(enyx_hw_a2c_stream* stream) {
    close(stream);
    g_destroy(stream);
}

// The market-data library's last step when it opens a channel: both streams are open.
int enyx_hw_c2a_stream_get_mtu(const enyx_hw_c2a_stream* stream, uint32_t* mtu) {
    const int result = g_getMtu(stream, mtu);
    if (g_page != nullptr && result == 0) tellReady();
    return result;
}

int enyx_hw_a2c_stream_poll_once(enyx_hw_a2c_stream* stream, enyx_hw_a2c_stream_handler handler, void* context) {
    const std::size_t place = firstPlace(stream);
    if (g_streams[place].load(std::memory_order_relaxed) == stream && stream != nullptr)
        countOne(g_page->streams[place]);
    else
        countPollSlow(stream);
    return g_poll(stream, handler, context);
}
