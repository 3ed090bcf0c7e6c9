#include "bench/support/Counters.h"

#include <linux/perf_event.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <x86intrin.h>

namespace bench {
namespace {

constexpr std::size_t kPage = 4096;

int openEvent(const Counters::Event& event, int leader) {
    perf_event_attr attr{};
    attr.size = sizeof attr;
    attr.type = event.type;
    attr.config = event.config;
    attr.pinned = leader < 0;  // on the processor all the time, or not at all
    attr.exclude_kernel = 1;
    attr.exclude_hv = 1;
    attr.read_format = PERF_FORMAT_GROUP | PERF_FORMAT_TOTAL_TIME_ENABLED | PERF_FORMAT_TOTAL_TIME_RUNNING;
    return static_cast<int>(::syscall(SYS_perf_event_open, &attr, 0, -1, leader, PERF_FLAG_FD_CLOEXEC));
}

// One counter as its page describes it. The kernel counts `lock` up around each change of the page.
std::optional<std::uint64_t> readPage(const void* address) {
    const auto* page = static_cast<const volatile perf_event_mmap_page*>(address);
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::uint32_t before = page->lock;
        __asm__ volatile("" ::: "memory");
        const std::uint32_t index = page->index;
        if (!page->cap_user_rdpmc || index == 0 || page->time_enabled != page->time_running) return std::nullopt;
        const unsigned int unused = 64U - page->pmc_width;
        // The counter is signed and narrower than 64 bits.
        const auto count = static_cast<std::int64_t>(__rdpmc(static_cast<int>(index - 1)) << unused) >> unused;
        const std::int64_t value = page->offset + count;
        __asm__ volatile("" ::: "memory");
        if (page->lock == before) return static_cast<std::uint64_t>(value);
    }
    return std::nullopt;
}

bool isNear(std::uint64_t inUserMode, std::uint64_t bySystemCall) {
    const std::uint64_t more = bySystemCall > inUserMode ? bySystemCall - inUserMode : inUserMode - bySystemCall;
    return more <= bySystemCall / 20 + 2000;
}

}  // namespace

Counters::Counters()
    : Counters({PERF_TYPE_HARDWARE, PERF_COUNT_HW_CPU_CYCLES}, {PERF_TYPE_HARDWARE, PERF_COUNT_HW_INSTRUCTIONS},
               {PERF_TYPE_HARDWARE, PERF_COUNT_HW_BRANCH_MISSES}) {}

Counters::Counters(const Event& cycles, const Event& instructions, const Event& mispredicts) {
    if (open({cycles, instructions, mispredicts})) {
        m_inUserMode = userModeAgrees();
    } else {
        close();
    }
}

Counters::~Counters() { close(); }

bool Counters::open(const Event (&events)[kEvents]) {
    for (int n = 0; n < kEvents; ++n) {
        m_fds[n] = openEvent(events[n], m_fds[0]);
        if (m_fds[n] < 0) return false;
        void* const page = ::mmap(nullptr, kPage, PROT_READ, MAP_SHARED, m_fds[n], 0);
        if (page != MAP_FAILED) m_pages[n] = page;
    }
    return true;
}

void Counters::close() {
    for (int n = 0; n < kEvents; ++n) {
        if (m_pages[n] != nullptr) ::munmap(m_pages[n], kPage);
        if (m_fds[n] >= 0) ::close(m_fds[n]);
        m_pages[n] = nullptr;
        m_fds[n] = -1;
    }
}

std::optional<Counters::Values> Counters::read() const {
    if (m_fds[0] < 0) return std::nullopt;
    return m_inUserMode ? readInUserMode() : readBySystemCall();
}

std::optional<Counters::Values> Counters::readBySystemCall() const {
    struct {
        std::uint64_t events, enabled, running, values[kEvents];
    } group{};
    if (::read(m_fds[0], &group, sizeof group) != sizeof group) return std::nullopt;
    if (group.events != kEvents || group.running == 0 || group.enabled != group.running) return std::nullopt;
    return Values{group.values[0], group.values[1], group.values[2]};
}

std::optional<Counters::Values> Counters::readInUserMode() const {
    std::uint64_t values[kEvents];
    for (int n = 0; n < kEvents; ++n) {
        const std::optional<std::uint64_t> value = m_pages[n] != nullptr ? readPage(m_pages[n]) : std::nullopt;
        if (!value) return std::nullopt;
        values[n] = *value;
    }
    return Values{values[0], values[1], values[2]};
}

// Some virtual machines let the instruction through and return nonsense: it is used if it counts like the kernel.
bool Counters::userModeAgrees() const {
    const std::optional<Values> begin = readInUserMode();
    const std::optional<Values> kernelBegin = readBySystemCall();
    if (!begin || !kernelBegin) return false;
    for (volatile int n = 0; n < 1000000; n = n + 1) {
    }
    const std::optional<Values> end = readInUserMode();
    const std::optional<Values> kernelEnd = readBySystemCall();
    return end && kernelEnd && isNear(end->cycles - begin->cycles, kernelEnd->cycles - kernelBegin->cycles) &&
           isNear(end->instructions - begin->instructions, kernelEnd->instructions - kernelBegin->instructions);
}

}  // namespace bench
