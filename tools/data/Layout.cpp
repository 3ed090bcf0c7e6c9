#include "tools/data/Layout.h"

#include <algorithm>

namespace vexo::data {
namespace {

bool hasFixedValues(const Payload& payload, const unsigned char* data) {
    return std::all_of(payload.fixed.begin(), payload.fixed.end(), [&](const FixedValue& fixed) {
        const Field& field = payload.fields[fixed.field];
        return loadUnsigned(data + field.offset, field.width, field.isBigEndian) == fixed.value;
    });
}

}  // namespace

std::size_t Payload::indexOf(const std::string& name) const {
    const auto found = std::find_if(fields.begin(), fields.end(), [&](const Field& one) { return one.name == name; });
    return found == fields.end() ? kNoField : static_cast<std::size_t>(found - fields.begin());
}

const Payload* payloadOf(const Layout& layout, const unsigned char* packet, std::size_t size) {
    if (size < kHeadBytes) return nullptr;
    const std::uint64_t type = loadUnsigned(packet, 4, false);
    for (const Payload& payload : layout.payloads) {
        if (payload.type != type) continue;
        if (size != kHeadBytes + payload.size) return nullptr;
        if (layout.lengthAt && loadUnsigned(packet + *layout.lengthAt, 4, false) != size) return nullptr;
        return hasFixedValues(payload, packet + kHeadBytes) ? &payload : nullptr;
    }
    return nullptr;
}

}  // namespace vexo::data
