#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vexo::data {

/// Bytes before the payload of a packet. The first four are its type.
inline constexpr std::uint32_t kHeadBytes = 12;

enum class FieldKind { kUnsigned, kSigned, kFloat, kText, kBytes };

/// A field of a payload.
struct Field {
    std::string name;
    std::string meaning;
    FieldKind kind = FieldKind::kUnsigned;
    std::uint32_t offset = 0;  // in the payload
    std::uint32_t width = 0;   // bytes of one value; of all of a text
    std::uint32_t count = 0;   // values one after the other; 0 = no list, one value
    bool isBigEndian = false;
    std::uint32_t decimals = 0;  // the number in the packet is this power of ten times the value

    std::uint32_t values() const { return count == 0 ? 1 : count; }
    std::uint32_t bytes() const { return width * values(); }
    bool isNumber() const { return kind != FieldKind::kText && kind != FieldKind::kBytes; }
};

/// A field that has one value in all payloads of a type. What has another value there has another layout.
struct FixedValue {
    std::size_t field = 0;
    std::uint64_t value = 0;
};

inline constexpr std::size_t kNoField = ~std::size_t{0};

/// Where the packets of a layout have their numbers, by which one sees that packets are missing.
struct Numbering {
    enum class Place {
        kNone,
        kHead,  // a u32 of the head, at byte headAt of each packet
        kField  // a field of the payload; packets of types without a place in fields have no number
    };
    struct FieldPlace {
        std::uint32_t size = 0;  // of the whole packet; 0: packets of this type have no number
        std::uint32_t at = 0;    // byte of the packet
    };
    static constexpr std::uint32_t kTypes = 32;  // numbers of other packet types are not looked at

    Place place = Place::kNone;
    std::uint32_t headAt = 0;
    std::uint32_t width = sizeof(std::uint32_t);
    bool isBigEndian = false;
    bool isByType = false;  // each packet type counts by itself, instead of the stream as a whole
    std::array<FieldPlace, kTypes> fields{};
};

struct Layout;

/// The payload of the packets of one type.
struct Payload {
    const Layout* layout = nullptr;
    std::uint32_t type = 0;
    std::string meaning;
    std::uint32_t size = 0;
    std::vector<Field> fields;  // by offset
    std::vector<FixedValue> fixed;
    // Fields with a use of their own, or kNoField.
    std::size_t sequence = kNoField;
    std::size_t id = kNoField;
    std::size_t time = kNoField;
    std::size_t millis = kNoField;

    std::size_t indexOf(const std::string& name) const;
};

/// What the payloads of a card look like: one layout file.
struct Layout {
    std::string name;
    std::string meaning;
    std::optional<std::uint32_t> lengthAt;  // byte of the head where the packet's length is, if it is there
    std::vector<Payload> payloads;          // by type; they point to this layout
    Numbering numbering;
    std::map<std::string, std::map<std::uint64_t, std::string>> values;  // names of a field's values

    Layout() = default;
    Layout(const Layout&) = delete;
    Layout& operator=(const Layout&) = delete;
};

template <typename Number>
Number loadRaw(const unsigned char* from) {
    Number value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

/// An unsigned number of 1, 2, 4 or 8 bytes.
inline std::uint64_t loadUnsigned(const unsigned char* from, std::uint32_t width, bool isBigEndian) {
    switch (width) {
        case 1: return *from;
        case 2: return isBigEndian ? __builtin_bswap16(loadRaw<std::uint16_t>(from)) : loadRaw<std::uint16_t>(from);
        case 4: return isBigEndian ? __builtin_bswap32(loadRaw<std::uint32_t>(from)) : loadRaw<std::uint32_t>(from);
        default: return isBigEndian ? __builtin_bswap64(loadRaw<std::uint64_t>(from)) : loadRaw<std::uint64_t>(from);
    }
}

inline std::int64_t loadSigned(const unsigned char* from, std::uint32_t width, bool isBigEndian) {
    const unsigned unused = 64 - 8 * width;
    return static_cast<std::int64_t>(loadUnsigned(from, width, isBigEndian) << unused) >> unused;
}

inline double loadFloat(const unsigned char* from, std::uint32_t width, bool isBigEndian) {
    const std::uint64_t bits = loadUnsigned(from, width, isBigEndian);
    if (width == 8) {
        double value;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }
    const auto half = static_cast<std::uint32_t>(bits);
    float value;
    std::memcpy(&value, &half, sizeof value);
    return value;
}

/// @return the payload that a whole packet has by the layout, or null if the layout does not describe it. Type, size
/// and
///         fixed values have to agree: nothing is guessed.
const Payload* payloadOf(const Layout& layout, const unsigned char* packet, std::size_t size);

}  // namespace vexo::data
