#pragma once

#include "sim/remote/nats/Connection.h"
#include "tools/cli/Command.h"

namespace vexo {

/// Adds the options that name the files of a connection. What is secret is in files alone, never on a command line.
void addServerFiles(const cli::Command& subcommand, vexo_sim::remote::ConnectionSettings& connection);

}  // namespace vexo
