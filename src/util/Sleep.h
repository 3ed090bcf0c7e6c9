#pragma once

#include <unistd.h>
#include <cerrno>
#include <ctime>

/// Sleeps whole seconds. A signal of the application does not shorten them: the card's reset pulse and the seconds over
/// which its counters must stand still have to be full ones. Leaves errno as it found it.
inline void sleepSeconds(unsigned int seconds) {
    const int saved = errno;
    std::timespec end{};
    ::clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += seconds;
    errno = 0;
    ::sleep(seconds);
    // The result of sleep() counts whole seconds only: it is 0 even when most of the last second is left.
    if (errno == EINTR) {
        while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
        }
    }
    errno = saved;
}
