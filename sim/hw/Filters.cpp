#include <cstring>

#include "sim/hw/Handles.h"
#include "sim/hw/Hooks.h"

namespace vexo_sim {
namespace {

enyx_hw_filter* createFilter() {
    enyx_hw_filter* filter = pool<enyx_hw_filter>().make();
    if (filter == nullptr) return nullptr;
    filter->hasIndex = filter->hasName = false;
    return pool<enyx_hw_filter>().publish(filter);
}

int setIndex(enyx_hw_filter* filter, std::uint32_t index) {
    if (!usable(filter)) return -1;
    filter->index = index;
    filter->hasIndex = true;
    return 0;
}

int setName(enyx_hw_filter* filter, const char* name) {
    if (!usable(filter)) return -1;
    const std::size_t length = name != nullptr ? std::strlen(name) : 0;
    if (name == nullptr || length >= sizeof filter->name) {
        errno = name == nullptr ? EINVAL : ENAMETOOLONG;
        return -1;
    }
    std::memcpy(filter->name, name, length + 1);
    filter->hasName = true;
    return 0;
}

}  // namespace
}  // namespace vexo_sim

using namespace vexo_sim;

enyx_hw_filter* enyx_hw_filter_create() {
    return perform(Call::kFilterCreate, createFilter, [](TraceLine&) {});
}

int enyx_hw_filter_set_index(enyx_hw_filter* filter, uint32_t index) {
    return perform(
        Call::kFilterSetIndex, [=] { return setIndex(filter, index); },
        [=](TraceLine& line) { line.number("index", index); });
}

int enyx_hw_filter_set_name(enyx_hw_filter* filter, const char* name) {
    return perform(
        Call::kFilterSetName, [=] { return setName(filter, name); },
        [=](TraceLine& line) { line.text("name", name != nullptr ? name : "null"); });
}

void enyx_hw_filter_destroy(enyx_hw_filter* filter) {
    performVoid(
        Call::kFilterDestroy, [=] { destroyHandle(filter); }, [=](TraceLine& line) { line.filter(filter); });
}
