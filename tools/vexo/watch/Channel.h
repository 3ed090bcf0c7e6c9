#pragma once

#include <sys/types.h>
#include <optional>
#include <string>

#include "tools/vexo/check/ConfigCheck.h"

namespace vexo::watch {

/// What stands in the way of a stream of our own.
struct Taken {
    std::string by;            ///< "; the card's library says: ...", or which processes use a card
    std::optional<pid_t> pid;  ///< if the card's library names the process
};

/// A card as a receiver would find it.
struct CardState {
    bool isSimulated = false;
    std::optional<Taken> taken;  ///< another process has the configuration's stream
};

/// Asks the card whether the stream of the configuration is free, by opening it for a moment. No register is touched.
/// The start of a master resets the card, so for a master all streams have to be free. Throws Failure when there is no
/// card, or when a master would reset it while other processes use it.
CardState lookAtCard(const check::ConfigFacts& config);

}  // namespace vexo::watch
