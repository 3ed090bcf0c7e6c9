#pragma once

#include <string>
#include <vector>

/// Follows the locks of the library: the locks that fork_safe knows, standard output's lock, and the lock of a core.
/// The program's own pthread_mutex_lock, flockfile and enyx_hw_core_lock stand before those of the libraries.
namespace lock_recorder {

/// False where another tool has taken the place of these functions.
bool Works();

/// From now on, in every thread of this process.
void Start();

/// Locks that a thread took in a forbidden order: "second before first".
std::vector<std::string> Inversions();

/// Whether any thread took @p inner while it held @p outer.
bool WasTakenInside(const std::string& outer, const std::string& inner);

}  // namespace lock_recorder
