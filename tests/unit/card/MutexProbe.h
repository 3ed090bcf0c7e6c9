#pragma once

#include <future>
#include <mutex>

namespace test_support {

/// Whether somebody holds the mutex. Asks from a thread of its own, so that the holder may be the caller.
inline bool IsHeld(std::mutex& mutex) {
    const auto probe = [&mutex] {
        const bool wasFree = mutex.try_lock();
        if (wasFree) mutex.unlock();
        return !wasFree;
    };
    return std::async(std::launch::async, probe).get();
}

}  // namespace test_support
