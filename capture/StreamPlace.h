#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace capture {

/// The stream of a card that an interface of a file describes.
struct StreamPlace {
    std::uint32_t card = 0;  // bus number
    std::uint32_t channel = 0;
};

/// "channel 3"; "card 1 channel 3" on any bus but 0.
std::string nameOf(const StreamPlace& place);
/// @return nothing for a name that nameOf() does not make.
std::optional<StreamPlace> placeOf(const std::string& name);

}  // namespace capture
