#pragma once

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <new>

#include "sim/card/StreamRing.h"
#include "sim/hw/Exported.h"

namespace vexo_sim {

struct HwCard;

inline constexpr std::size_t kNameSize = 64;

/// Start of every handle. Pools never free the memory of handles, so that a destroyed handle can still be recognised.
struct Handle {
    std::atomic<bool> alive{false};
};

}  // namespace vexo_sim

// The opaque types of the C interface.

struct enyx_hw_filter : vexo_sim::Handle {
    bool hasIndex = false;
    std::uint32_t index = 0;
    bool hasName = false;
    char name[vexo_sim::kNameSize] = {};
};

struct enyx_hw_accelerator : vexo_sim::Handle {
    vexo_sim::HwCard* card = nullptr;
};

struct enyx_hw_accelerator_descriptor : vexo_sim::Handle {
    vexo_sim::HwCard* card = nullptr;
};

struct enyx_hw_mmio_descriptor : vexo_sim::Handle {
    vexo_sim::HwCard* card = nullptr;
};

// Tree and cores have no destroying call. They end with their register space.
struct enyx_hw_core {
    enyx_hw_mmio* mmio = nullptr;
    std::uint16_t hardwareId = 0;
};

struct enyx_hw_core_tree {
    enyx_hw_mmio* mmio = nullptr;
};

struct enyx_hw_mmio : vexo_sim::Handle {
    vexo_sim::HwCard* card = nullptr;
    enyx_hw_core_tree tree;
    enyx_hw_core root;
    enyx_hw_core registers;
};

struct enyx_hw_a2c_stream_descriptor : vexo_sim::Handle {
    vexo_sim::HwCard* card = nullptr;
    std::uint32_t channel = 0;
};

struct enyx_hw_c2a_stream_descriptor : vexo_sim::Handle {
    vexo_sim::HwCard* card = nullptr;
    std::uint32_t channel = 0;
};

struct enyx_hw_a2c_stream : vexo_sim::Handle {
    vexo_sim::HwCard* card = nullptr;
    std::uint32_t channel = 0;
    vexo_sim::RingState* ring = nullptr;
    bool delivering = false;  // true inside the handler: a poll from there must not deliver the packet again
};

struct enyx_hw_c2a_stream : vexo_sim::Handle {
    vexo_sim::HwCard* card = nullptr;
    std::uint32_t channel = 0;
};

namespace vexo_sim {

/// Handles of one type. The pool reuses a destroyed handle only after many others were destroyed.
template <typename T>
class Pool {
public:
    /// A handle that nobody else can see yet, or null with errno set; publish() makes it valid.
    T* make() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        try {
            if (m_dead.size() <= kQuarantine) return &m_all.emplace_back();
        } catch (const std::bad_alloc&) {
            errno = ENOMEM;
            return nullptr;
        }
        T* handle = m_dead.front();
        m_dead.pop_front();
        return handle;
    }

    T* publish(T* handle) {
        handle->alive.store(true, std::memory_order_release);
        ++m_live;
        return handle;
    }

    /// Invalidates the handle, which must be alive.
    void kill(T* handle) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        killLocked(handle);
    }

    template <typename Condition>
    void killIf(Condition condition) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (T& handle : m_all)
            if (handle.alive && condition(handle)) killLocked(&handle);
    }

    std::uint32_t live() const { return m_live; }

private:
    static constexpr std::size_t kQuarantine = 256;

    void killLocked(T* handle) {
        handle->alive.store(false, std::memory_order_release);
        --m_live;
        m_dead.push_back(handle);
    }

    std::mutex m_mutex;
    std::deque<T> m_all;  // never moves its elements
    std::deque<T*> m_dead;
    std::atomic<std::uint32_t> m_live{0};
};

/// The pool of a type. Never destroyed: a program may close its streams from its own last destructors.
template <typename T>
Pool<T>& pool() {
    static Pool<T>& instance = *new Pool<T>;
    return instance;
}

/// Counts a call that was given a null or dead handle, sets errno to EINVAL and returns false.
bool refuseHandle();
std::uint64_t refusedHandles();

inline bool isAlive(const Handle* handle) { return handle->alive.load(std::memory_order_acquire); }
inline bool isAlive(const enyx_hw_core* core) { return isAlive(core->mmio); }
inline bool isAlive(const enyx_hw_core_tree* tree) { return isAlive(tree->mmio); }

template <typename T>
bool usable(const T* handle) {
    if (handle != nullptr && isAlive(handle)) return true;
    return refuseHandle();
}

template <typename T>
void destroyHandle(T* handle) {
    if (usable(handle)) pool<T>().kill(handle);
}

/// Frees @p count descriptors as the enumerating call filled them in.
template <typename T>
void freeDescriptors(T** descriptors, std::size_t count) {
    if (descriptors == nullptr) return;
    for (std::size_t n = 0; n < count; ++n) destroyHandle(descriptors[n]);
}

bool matches(const enyx_hw_filter& filter, std::uint32_t index, const char* name);

/// Describes the objects, numbered from 0, that exist and match the filter. nameOf(index, char(&)[kNameSize]) returns
/// false when there is no object of that number; describe(index) returns a descriptor or null. @p none is the errno for
/// a count of 0: callers print it, although 0 is not a failure.
template <typename Descriptor, typename NameOf, typename Describe>
ssize_t enumerate(const enyx_hw_filter* filter, Descriptor** descriptors, std::size_t room, std::uint32_t objects,
                  int none, NameOf nameOf, Describe describe) {
    if (!usable(filter)) return -1;
    if (descriptors == nullptr && room > 0) {
        errno = EINVAL;
        return -1;
    }
    std::size_t found = 0;
    for (std::uint32_t index = 0; index < objects; ++index) {
        char name[kNameSize];
        if (!nameOf(index, name) || !matches(*filter, index, name)) continue;
        if (found < room && (descriptors[found] = describe(index)) == nullptr) {
            freeDescriptors(descriptors, found);
            return -1;
        }
        ++found;
    }
    if (found == 0) errno = none;
    return static_cast<ssize_t>(found);
}

}  // namespace vexo_sim
