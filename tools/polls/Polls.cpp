// libvexo-polls.so: counts the polls of an application for the program that supervises it. It lies between the
// application and the card's library. A poll costs a few instructions more and no system call.

#include <VexoZceMdStatsFile.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
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

// What this process writes into its slots.
std::uint32_t g_isHeld = 0;
std::uint64_t g_start = 0;

// Another program may have closed the descriptor and given its number to a file of its own. The seals, which only an
// anonymous file can have, the size and the first word tell that it is the page; the seals also keep its size. The
// system may have added seals: vm.memfd_noexec adds one.
bool isPage(int fd) {
    constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
    struct stat status;
    const int seals = ::fcntl(fd, F_GET_SEALS);
    if (seals < 0 || (seals & kSeals) != kSeals || ::fstat(fd, &status) != 0) return false;
    std::uint32_t magic = 0;
    return status.st_size == sizeof(PollPage) && ::pread(fd, &magic, sizeof magic, 0) == sizeof magic &&
           magic == kMagic;
}

// An opened file of this process alone, so that its lock is too. It need not stay open: what is mapped keeps the lock.
int openAgain(int fd) {
    char path[32];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    const int again = vexo_stats::aboveStandardStreams(::open(path, O_RDWR | O_CLOEXEC));
    if (again < 0) return -1;
    struct flock lock = lockOf(static_cast<std::uint32_t>(::getpid()), F_WRLCK);
    g_isHeld = ::fcntl(again, F_OFD_SETLK, &lock) == 0 ? 1 : 0;
    return again;
}

// In a child of fork(). The streams, their slots and the lock stay its parent's. It may open streams of its own.
void beginAsChild() {
    for (std::atomic<const void*>& stream : g_streams) stream.store(nullptr, std::memory_order_relaxed);
    g_isHeld = 0;
    g_start = 0;  // looked up when a stream is opened
}

void map(int fd) {
    const int own = openAgain(fd);
    void* const page = ::mmap(nullptr, sizeof(PollPage), PROT_READ | PROT_WRITE, MAP_SHARED, own >= 0 ? own : fd, 0);
    if (own >= 0) ::close(own);
    if (page != MAP_FAILED) g_page = static_cast<PollPage*>(page);
}

[[gnu::constructor]] void attach() {
    const tap::KeepErrno keep;
    const char* const text = std::getenv(kVariable);
    if (text == nullptr) return;
    char* end = nullptr;
    const long fd = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || fd < 0 || fd > 0x7FFFFFFF || !isPage(static_cast<int>(fd))) return;
    map(static_cast<int>(fd));
    if (g_page == nullptr) return;
    ::pthread_atfork(nullptr, nullptr, beginAsChild);
    // What this process had open before it became this program.
    for (StreamSlot& slot : g_page->streams) {
        auto self = static_cast<std::uint32_t>(::getpid());
        slot.owner.compare_exchange_strong(self, 0);
    }
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

// A process of this supervisor that ended without closing its stream. In another namespace, all seem to be gone.
bool isGone(std::uint32_t process) {
    return g_page->pidNamespace == vexo_stats::pidNamespace() && ::kill(static_cast<pid_t>(process), 0) != 0 &&
           errno == ESRCH;
}

bool take(StreamSlot& slot, std::uint32_t from) {
    if (!slot.owner.compare_exchange_strong(from, static_cast<std::uint32_t>(::getpid()))) return false;
    slot.ownerStart.store(g_start);
    slot.isHeld.store(g_isHeld);
    return true;
}

// With more streams than slots, those without one are not watched.
void open(const void* stream) {
    if (g_page == nullptr || stream == nullptr) return;
    if (g_start == 0 && g_page->pidNamespace == vexo_stats::pidNamespace())
        g_start = vexo_stats::processStart(static_cast<unsigned long>(::getpid()));
    for (const bool takesDead : {false, true}) {
        std::size_t i = firstPlace(stream);
        for (std::size_t n = 0; n < kStreams; ++n, i = (i + 1) % kStreams) {
            StreamSlot& slot = g_page->streams[i];
            const std::uint32_t owner = slot.owner.load();
            if (owner != 0 && !(takesDead && isGone(owner))) continue;
            if (!take(slot, owner)) continue;
            countOne(slot);  // opening counts as a sign of life
            g_streams[i].store(stream, std::memory_order_release);
            return;
        }
    }
}

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
    if (handler == nullptr) return g_poll(stream, handler, context);  // an error, no sign of life
    if (g_streams[place].load(std::memory_order_relaxed) == stream && stream != nullptr)
        countOne(g_page->streams[place]);
    else
        countPollSlow(stream);
    return g_poll(stream, handler, context);
}
