// Receives on the channel of a configuration, and counts packets by instrument. `vexo watch CONFIG.ini` starts it, with
// the tap's stats-only mode in front. It is a program of its own because vexo itself runs without a card's library.
//
//     vexo-receiver CONFIG.ini DIRECTORY DESCRIPTOR VEXO
//
// DIRECTORY becomes the working directory and gets the library's log. DESCRIPTOR is the shared memory of
// InstrumentPage.h. VEXO is the process that it ends with.

#include <VexoZceMdApi.h>
#include <dlfcn.h>
#include <enyx-hw-c/enyx_hw.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "tools/data/LayoutFile.h"
#include "tools/receiver/InstrumentPage.h"

namespace {

using receiver::InstrumentPage;
using receiver::Slot;

constexpr unsigned kIdlePolls = 100;          // in a row, before a nap
constexpr useconds_t kNapMicroseconds = 100;  // a ring lasts longer: see --ring-lasts of vexo tap
constexpr std::size_t kMostProbes = 64;

volatile std::sig_atomic_t g_stop = 0;
void stopOnSignal(int) { g_stop = 1; }

void addOne(std::atomic<std::uint64_t>& number) {
    number.store(number.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

/// Counts into the shared memory.
class InstrumentCounter {
public:
    InstrumentCounter(InstrumentPage& page, const vexo::data::Layouts& layouts) : m_page(page), m_layouts(layouts) {}

    void take(const std::uint8_t* packet, std::uint32_t size) {
        ++m_packets;
        const vexo::data::Payload* const payload = m_layouts.find(packet, size);
        if (payload != nullptr && payload->id != vexo::data::kNoField) return add(idOf(*payload, packet));
        if (isMarketData(packet, size)) addOne(m_page.unknown);
    }
    std::uint64_t packets() const { return m_packets; }

private:
    static bool isMarketData(const std::uint8_t* packet, std::uint32_t size) {
        if (size < sizeof(std::uint32_t)) return false;
        const auto type = vexo::data::loadRaw<std::uint32_t>(packet);
        return type >= 17 && type <= 20;
    }
    static std::string_view idOf(const vexo::data::Payload& payload, const std::uint8_t* packet) {
        const vexo::data::Field& field = payload.fields[payload.id];
        const char* const begin = reinterpret_cast<const char*>(packet) + vexo::data::kHeadBytes + field.offset;
        return {begin, ::strnlen(begin, field.width)};
    }
    static std::size_t placeOf(const char (&id)[receiver::kIdRoom]) {
        std::uint64_t hash = 14695981039346656037U;
        for (const char c : id) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211U;
        return static_cast<std::size_t>(hash ^ hash >> 32);
    }

    void add(std::string_view text) {
        char id[receiver::kIdRoom] = {};
        std::memcpy(id, text.data(), text.size() < sizeof id ? text.size() : sizeof id);
        const std::size_t first = placeOf(id);
        for (std::size_t n = 0; n < kMostProbes; ++n) {
            Slot& slot = m_page.slots[(first + n) % receiver::kSlots];
            const bool isFree = slot.packets.load(std::memory_order_relaxed) == 0;
            if (isFree) std::memcpy(slot.id, id, sizeof id);
            if (isFree || std::memcmp(slot.id, id, sizeof id) == 0) return addOne(slot.packets);
        }
        addOne(m_page.crowded);
    }

    InstrumentPage& m_page;
    const vexo::data::Layouts& m_layouts;
    std::uint64_t m_packets = 0;
};

// What stands between the library and its card: a callback does not learn how long its packet is.
struct Poll {
    InstrumentCounter* counter = nullptr;
    enyx_hw_a2c_stream_handler handler = nullptr;
    void* context = nullptr;
} g_poll;

void countAndDeliver(const std::uint8_t* data, std::uint32_t size, void*) {
    g_poll.counter->take(data, size);
    g_poll.handler(data, size, g_poll.context);
}

class Quotes : public IVexoZceMdSpi {
    int OnUpSubsResult17(const unsigned char*) override { return 0; }
    int OnUpSubsResult18(const unsigned char*) override { return 0; }
    int OnUpSubsResult19(const unsigned char*) override { return 0; }
    int OnUpSubsResult20(const unsigned char*) override { return 0; }
};

struct Destroy {
    void operator()(IVexoZceMdApi* api) const { IVexoZceMdApi::DestroyVexoZceMdApi(*api); }
};

int fail(const char* what, const char* why) {
    std::fprintf(stderr, "vexo-receiver: %s: %s\n", what, why);
    return 1;
}

// A vexo that was killed leaves the directory to its receiver.
class Directory {
public:
    Directory(const char* path, pid_t owner) : m_path(path), m_owner(owner) {}
    ~Directory() {
        std::error_code error;
        if (::getppid() != m_owner) std::filesystem::remove_all(m_path, error);
    }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

private:
    const std::filesystem::path m_path;
    const pid_t m_owner;
};

int receive(const char* config, InstrumentPage& page) {
    const std::unique_ptr<IVexoZceMdApi, Destroy> api(IVexoZceMdApi::CreateVexoZceMdApi());
    Quotes quotes;
    if (api->VexoStart(quotes, config) != 0) return 1;
    page.isStarted = 1;
    // Not before: a start that hangs should end with the first signal. The library has handlers of its own from the
    // first market-data packet on.
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) std::signal(signal, stopOnSignal);
    std::uint64_t before = 0;
    for (unsigned idle = 0; g_stop == 0 && api->VexoRecv() != -1;) {
        const std::uint64_t packets = g_poll.counter->packets();
        idle = packets == before ? idle + 1 : 0;
        before = packets;
        // A view needs no CPU of its own.
        if (idle >= kIdlePolls) ::usleep(kNapMicroseconds);
    }
    return 0;
}

}  // namespace

// Instead of the card's own, for the library in this program.
int enyx_hw_a2c_stream_poll_once(enyx_hw_a2c_stream* stream, enyx_hw_a2c_stream_handler handler, void* context) {
    using Function = decltype(enyx_hw_a2c_stream_poll_once);
    static auto* const next = reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, "enyx_hw_a2c_stream_poll_once"));
    if (next == nullptr) {
        errno = ENOSYS;
        return -1;
    }
    g_poll.handler = handler;
    g_poll.context = context;
    return next(stream, &countAndDeliver, nullptr);
}

int main(int argc, char** argv) {
    if (argc != 5) return fail("wrong usage", "vexo watch CONFIG.ini starts this program"), 2;
    const auto vexo = static_cast<pid_t>(std::atoi(argv[4]));
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != vexo) return 0;  // it died before the line above
    void* const shared = ::mmap(nullptr, sizeof(InstrumentPage), PROT_READ | PROT_WRITE, MAP_SHARED, std::atoi(argv[3]),
                                0);
    if (shared == MAP_FAILED) return fail("shared memory", std::strerror(errno));
    try {
        static const vexo::data::Layouts layouts(std::vector<std::string>{});
        if (::chdir(argv[2]) != 0) return fail(argv[2], std::strerror(errno));
        const Directory directory(argv[2], vexo);
        auto& page = *static_cast<InstrumentPage*>(shared);
        static InstrumentCounter counter(page, layouts);  // polls reach it from outside of this function
        g_poll.counter = &counter;
        return receive(argv[1], page);
    } catch (const std::exception& error) {
        return fail("the start failed", error.what());
    }
}
