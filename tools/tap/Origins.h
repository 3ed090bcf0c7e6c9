#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>

#include "capture/Blocks.h"

namespace tap {

/// What is known of one of the hardware library's handles. Its handles are opaque: what a handle stands for is learned
/// from the calls that led to it.
struct Origin {
    static constexpr std::int64_t kUnknown = -1;

    std::int64_t card = kUnknown;   // bus number
    std::int64_t index = kUnknown;  // of a filter: what it asks for; of a stream: its number
    std::int64_t core = kUnknown;   // hardware id
    std::string name;               // of a filter: what it asks for; of a stream: the name it was found by
};

/// The same for all handles of the process. May be used from any thread.
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
    /// Nothing is learned nor known any more, and no lock taken: after a fork it may be held by a thread that is gone.
    void end() { m_ended.store(true, std::memory_order_relaxed); }

private:
    std::atomic<bool> m_ended{false};
    mutable std::mutex m_mutex;
    std::unordered_map<const void*, Origin> m_known;
};

/// What the n-th object, from 0, is that an enumeration found with @p filter.
Origin enumerated(const Origin& filter, std::int64_t card, std::size_t n);

/// How the packets of a stream are called in a file.
capture::InterfaceInfo describeStream(const Origin& stream);

}  // namespace tap
