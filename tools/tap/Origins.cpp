#include "tools/tap/Origins.h"

#include "capture/StreamPlace.h"

namespace tap {
namespace {

// Streams are called CUSTOM_CHAN<number>_DATA.
std::int64_t channelIn(const std::string& name) {
    constexpr char kMark[] = "CHAN";
    const std::size_t mark = name.find(kMark);
    if (mark == std::string::npos) return Origin::kUnknown;
    std::int64_t channel = Origin::kUnknown;
    for (std::size_t i = mark + sizeof kMark - 1; i < name.size() && name[i] >= '0' && name[i] <= '9'; ++i) {
        channel = (channel == Origin::kUnknown ? 0 : channel * 10) + (name[i] - '0');
        if (channel > 65535) return Origin::kUnknown;
    }
    return channel;
}

}  // namespace

// A filter by name or by index finds one object. Without one, objects come in the order of their numbers.
Origin enumerated(const Origin& filter, std::int64_t card, std::size_t n) {
    Origin found;
    found.card = card;
    found.name = filter.name;
    if (!filter.name.empty()) {
        found.index = channelIn(filter.name);
    } else {
        found.index = filter.index != Origin::kUnknown ? filter.index : static_cast<std::int64_t>(n);
    }
    return found;
}

// Never destroyed: other libraries may make handles before the tap's constructors and after its destructors.
Origins& origins() {
    static auto* all = new Origins;
    return *all;
}

capture::InterfaceInfo describeStream(const Origin& stream) {
    const auto card = static_cast<std::uint32_t>(stream.card == Origin::kUnknown ? 0 : stream.card);
    std::string name = stream.name.empty() ? "stream" : "stream " + stream.name;
    if (stream.index != Origin::kUnknown) name = capture::nameOf({card, static_cast<std::uint32_t>(stream.index)});
    const std::string description = stream.name.empty() ? "card-to-host stream" : "card-to-host stream " + stream.name;
    return {capture::kStreamLink, name, description};
}

}  // namespace tap
