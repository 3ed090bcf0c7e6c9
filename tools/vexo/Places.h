#pragma once

#include <filesystem>
#include <string>

namespace vexo {

/// The directory of the simulated card's libenyx-hw-c.so.1, in the build tree or installation of this vexo.
std::filesystem::path simulatedCardDirectory();

/// The library that `vexo tap` loads into a program.
std::filesystem::path tapLibrary();

/// The library that `vexo tap --stats-only` loads into a program.
std::filesystem::path statsLibrary();

/// The library that `vexo run` loads into a program, to see it poll.
std::filesystem::path pollsLibrary();

/// The program that `vexo watch CONFIG.ini` starts to receive.
std::filesystem::path receiverProgram();

/// The library that is `vexo relay`, and the one that is `vexo relay --beside`.
std::filesystem::path relayLibrary();
std::filesystem::path besideRelayLibrary();

/// The library that `vexo tap --share` loads into a program.
std::filesystem::path shareLibrary();

/// The library that `vexo sim run` loads into a program.
std::filesystem::path dayFileLibrary();

/// The file of a ready scenario, such as "lossy_stream" or "lossy_stream.ini". Empty when this installation has none of
/// this name.
std::filesystem::path readyScenario(const std::string& name);

}  // namespace vexo
