#include "tests/unit/config/FakeAffinity.h"

#include <dlfcn.h>

#include <cerrno>

namespace {

FakeAffinity* g_fake = nullptr;

}  // namespace

extern "C" int sched_setaffinity(pid_t pid, std::size_t size, const cpu_set_t* set) noexcept {
    if (g_fake != nullptr) return g_fake->Answer(pid, size, set);
    using Function = int(pid_t, std::size_t, const cpu_set_t*);
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, "sched_setaffinity"))(pid, size, set);
}

FakeAffinity::FakeAffinity(int error) : m_error(error) { g_fake = this; }

FakeAffinity::~FakeAffinity() { g_fake = nullptr; }

int FakeAffinity::Answer(pid_t pid, std::size_t size, const cpu_set_t* set) {
    Call call{pid, size, {}};
    for (std::size_t cpu = 0; cpu < 8 * size; ++cpu) {
        if (CPU_ISSET_S(cpu, size, set)) call.cpus.push_back(static_cast<int>(cpu));
    }
    calls.push_back(call);
    if (m_error == 0) return 0;
    errno = m_error;
    return -1;
}
