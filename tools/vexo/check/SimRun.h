#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vexo::check {

/// Where the library's day files lie, unless `vexo sim run` keeps them apart.
inline constexpr char kSharedDayFiles[] = "/tmp";

/// Whether this vexo was itself started by `vexo sim run`: what it says of a start is then true for the simulated card.
bool isUnderSimRun();

/// The file of the simulated card's library that the loader finds for a program that is started from here. Empty when
/// it finds none, or that of a real card. Opens no card.
std::string simulatedLibrary();

/// Whether a start from here on a simulated card finds one at this bus.
bool hasSimulatedCard(std::uint32_t bus);

/// The directory in which a start from here looks for its day file: /tmp, or the card's own under `vexo sim run`, where
/// the card is asked for it. Empty when no such card is there.
/// @param bus  of the card; nothing: the first one that is there
std::string dayFileDirectory(std::optional<std::uint32_t> bus);

/// The day file that a start from here looks for. Throws Failure when `vexo sim run` has no card for it.
std::string dayFileOfStart();

}  // namespace vexo::check
