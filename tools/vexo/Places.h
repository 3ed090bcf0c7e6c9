#pragma once

#include <filesystem>

namespace vexo {

/// The directory of the simulated card's libenyx-hw-c.so.1, of the build tree or the installation that this vexo is of.
std::filesystem::path simulatedCardDirectory();

/// The library that `vexo tap` loads into a program.
std::filesystem::path tapLibrary();

}  // namespace vexo
