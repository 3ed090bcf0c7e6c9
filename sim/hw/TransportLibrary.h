#pragma once

#include <string>

#include "sim/remote/Transport.h"

namespace vexo_sim {

/// Loads libvexo-remote.so from the directory of this library, for as long as the process lives.
/// @return null, with one line in @p error, when it is missing, cannot be loaded or has another version
remote::Transport* loadTransport(std::string& error);

}  // namespace vexo_sim
