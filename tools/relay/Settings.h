#pragma once

#include <cstdint>
#include <string>

#include "sim/remote/Subjects.h"
#include "sim/remote/nats/Connection.h"
#include "tools/relay/ArchiveSettings.h"
#include "tools/relay/Batcher.h"

namespace relay {

inline constexpr std::uint64_t kMegabyte = 1U << 20;

// Bounds of what a user may ask for.
inline constexpr std::size_t kLeastBatchBytes = 256;
inline constexpr std::size_t kMostBatchBytes = 1U << 20;  // what a server takes unless it is told otherwise
inline constexpr std::uint64_t kMostBatchTimeUs = 1'000'000;
inline constexpr std::uint64_t kMostQueueMb = 4096;

/// What one relay does.
struct Settings {
    std::string config;  // empty: the stream alone is opened
    vexo_sim::remote::Place place;
    vexo_sim::remote::ConnectionSettings connection;
    BatchLimits limits;
    std::size_t queueBytes = 64 * kMegabyte;
    bool byContract = false;
    bool beside = false;  // packets that an application shares; no channel is opened
    ArchiveSettings archive;
    double seconds = 0;            // 0: until SIGINT or SIGTERM
    std::uint64_t pollRestUs = 0;  // sleep of the polling thread when there is no packet
    bool json = false;
};

/// The one function of the library libvexo-relay.so, which `vexo relay` loads: so no other command loads the client
/// library of the network, or the card's. @return the exit status, after a line on standard error if it is not 0
using Run = int(const Settings& settings);
inline constexpr char kRunName[] = "vexo_relay_run";

}  // namespace relay
