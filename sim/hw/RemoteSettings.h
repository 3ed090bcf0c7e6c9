#pragma once

#include <optional>
#include <string>
#include <vector>

#include "sim/remote/Subjects.h"

namespace vexo_sim {

/// What the environment says about a remote card.
struct RemoteSettings {
    std::vector<std::string> servers;  // VEXO_SIM_REMOTE
    std::string site = "local";        // VEXO_SIM_REMOTE_SITE
    std::optional<std::uint32_t> bus;  // VEXO_SIM_REMOTE_BUS
    bool ownRegisters = false;         // VEXO_SIM_REMOTE_REGISTERS=own
    /// VEXO_SIM_REMOTE_SINCE: streams begin with the packets from then on, nanoseconds since 1970.
    std::optional<std::uint64_t> sinceNs;
};

/// Nothing, with one line in @p error, when a value cannot be used.
std::optional<RemoteSettings> readRemoteSettings(std::string& error);

}  // namespace vexo_sim
