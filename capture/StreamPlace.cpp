#include "capture/StreamPlace.h"

#include <cstdio>

namespace capture {

std::string nameOf(const StreamPlace& place) {
    const std::string channel = "channel " + std::to_string(place.channel);
    return place.card == 0 ? channel : "card " + std::to_string(place.card) + " " + channel;
}

std::optional<StreamPlace> placeOf(const std::string& name) {
    StreamPlace place;
    if (std::sscanf(name.c_str(), "channel %5u", &place.channel) != 1 &&
        std::sscanf(name.c_str(), "card %5u channel %5u", &place.card, &place.channel) != 2) {
        return std::nullopt;
    }
    if (nameOf(place) != name) return std::nullopt;  // text follows the number, or the number has leading zeros
    return place;
}

}  // namespace capture
