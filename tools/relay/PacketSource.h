#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "tools/relay/Intake.h"

namespace relay {

struct Settings;

/// Counts of a stream since it was opened.
struct StreamCounts {
    std::uint64_t backPressure = 0;
    std::uint64_t fifoErrors = 0;
    std::uint64_t errors = 0;
};

/// Where a relay has its packets from.
class PacketSource {
public:
    PacketSource() = default;
    virtual ~PacketSource() = default;
    PacketSource(const PacketSource&) = delete;
    PacketSource& operator=(const PacketSource&) = delete;

    /// Waits until there is somebody who delivers packets. The rest may only be called then.
    /// @return false: @p isOver said so before
    virtual bool wait(const std::function<bool()>& isOver) = 0;
    virtual std::uint32_t mtu() const = 0;
    virtual bool isSimulated() const = 0;
    /// Whether a poll that finds nothing means something to a user.
    virtual bool knowsPolls() const = 0;
    /// Passes packets on, if there are any. Of the polling thread. @return whether there was one
    virtual bool poll(Intake& intake) = 0;
    /// Any thread, one at a time. Nothing when the card does not answer.
    virtual std::optional<StreamCounts> counts() = 0;
};

/// The source that the settings name. Throws Failure. Each of the relay's two libraries has one of its own.
std::unique_ptr<PacketSource> openSource(const Settings& settings);

}  // namespace relay
