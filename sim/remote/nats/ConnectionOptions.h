#pragma once

#include <nats/nats.h>
#include <memory>
#include <string>

#include "sim/remote/nats/Connection.h"

namespace vexo_sim::remote {

struct FreeOptions {
    void operator()(natsOptions* options) const { natsOptions_Destroy(options); }
};
using OptionsPointer = std::unique_ptr<natsOptions, FreeOptions>;

/// Null when a file cannot be used: then @p error says which and why.
OptionsPointer makeOptions(const ConnectionSettings& settings, std::string& error);

/// The engine's words for the last failure of the calling thread.
std::string reasonOf(natsStatus status);

}  // namespace vexo_sim::remote
