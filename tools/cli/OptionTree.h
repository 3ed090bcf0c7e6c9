#pragma once

#include "tools/cli/Command.h"

namespace cli {

/// Whether the only argument of a program is the hidden --dump-options. Manual pages and shell completion are made from
/// what it prints, so that they cannot differ from --help.
bool isDumpWanted(int argc, const char* const* argv);

/// Prints the options and subcommands of @p program as JSON on standard output. @return an exit status
int dumpOptions(const Command& program, const char* version);

}  // namespace cli
