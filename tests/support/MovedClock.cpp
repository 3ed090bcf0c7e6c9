#include "tests/support/MovedClock.h"

std::time_t moved_clock::g_offset = 0;

std::time_t moved_clock::RealTime() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

extern "C" std::time_t time(std::time_t* result) noexcept {
    const std::time_t now = moved_clock::RealTime() + moved_clock::g_offset;
    if (result != nullptr) *result = now;
    return now;
}

extern "C" unsigned sleep(unsigned seconds) {
    const timespec pause{0, static_cast<long>(seconds) * 20'000'000 % 1'000'000'000};
    nanosleep(&pause, nullptr);
    return 0;
}
