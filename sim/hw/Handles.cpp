#include "sim/hw/Handles.h"

#include <cstring>

namespace vexo_sim {
namespace {

std::atomic<std::uint64_t> s_refused{0};

}  // namespace

bool refuseHandle() {
    s_refused.fetch_add(1, std::memory_order_relaxed);
    errno = EINVAL;
    return false;
}

std::uint64_t refusedHandles() { return s_refused.load(std::memory_order_relaxed); }

bool matches(const enyx_hw_filter& filter, std::uint32_t index, const char* name) {
    return (!filter.hasIndex || filter.index == index) && (!filter.hasName || std::strcmp(filter.name, name) == 0);
}

}  // namespace vexo_sim
