#include <pthread.h>
#include <sched.h>

#include <cstddef>
#include <cstdio>

#include "VexoZceUtil.h"
#include "src/util/StandardStreams.h"

int bind_to_cpu(int cpu) {
    if (cpu >= CPU_SETSIZE) {
        return standard_streams::print("Invalid CPU %d > CPU_SETSIZE(%d), WE don't bind to anycore.", cpu, CPU_SETSIZE);
    }
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    if (cpu >= 0) CPU_SET(static_cast<std::size_t>(cpu), &cpus);
    if (::pthread_setaffinity_np(::pthread_self(), sizeof cpus, &cpus) == 0) return 0;
    return standard_streams::print("Failed to bind to CPU %d", cpu);
}
