#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>

#include "capture/Blocks.h"

namespace tap {

/// What the tap knows of a handle of the hardware library. Handles are opaque, so the tap learns it from the calls that
/// led to the handle.
struct Origin {
    static constexpr std::int64_t kUnknown = -1;

    std::int64_t card = kUnknown;   // bus number
    std::int64_t index = kUnknown;  // of a filter: what it asks for; of a stream: its number
    std::int64_t core = kUnknown;   // hardware id
    std::string name;               // of a filter: what it asks for; of a stream: the name in its look-up
};

/// The origins of all handles of the process. Any thread may use it.
class Origins {
public:
    Origin find(const void* handle) const {
        if (m_ended.load(std::memory_order_relaxed)) return {};
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_known.find(handle);
        return found != m_known.end() ? found->second : Origin{};
    }
    void set(const void* handle, const Origin& origin) {
        if (m_ended.load(std::memory_order_relaxed)) return;
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_known[handle] = origin;
    }
    void forget(const void* handle) {
        if (m_ended.load(std::memory_order_relaxed)) return;
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_known.erase(handle);
    }
    /// After this call nothing is learned or found. The lock is not used any more, because a child of fork() may find
    /// it locked for ever.
    void end() { m_ended.store(true, std::memory_order_relaxed); }

private:
    std::atomic<bool> m_ended{false};
    mutable std::mutex m_mutex;
    std::unordered_map<const void*, Origin> m_known;
};

/// Those of this process.
Origins& origins();

/// The n-th object, counted from 0, of an enumeration with @p filter.
Origin enumerated(const Origin& filter, std::int64_t card, std::size_t n);

/// The interface of a stream in a capture file.
capture::InterfaceInfo describeStream(const Origin& stream);

}  // namespace tap
