#pragma once

#include <filesystem>
#include <set>
#include <string>
#include <vector>

namespace vexo::check {

/// The card's library and the market-data library, if the process has loaded them.
/// @param process  its directory in /proc
std::set<std::string> cardLibrariesOf(const std::filesystem::path& process);

/// "process 4711 (trader, user alice)"
std::string describeProcess(const std::filesystem::path& process);

/// The directories in /proc of all processes, in order of their names.
std::vector<std::filesystem::path> allProcesses();

/// The other processes that have loaded a card's library, described. A user sees only processes of his own.
std::vector<std::string> cardUsers();

}  // namespace vexo::check
