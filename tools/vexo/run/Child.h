#pragma once

#include <sys/types.h>

#include "tools/vexo/Command.h"
#include "tools/vexo/run/Signals.h"

namespace vexo::run {

/// Starts a program as a child that dies with this process, however this process ends.
/// @param output  the child's standard output and standard error
/// @param page    descriptor of the page that it counts its polls in
/// @return the process. Throws Failure when the program cannot be started: kFinding when it fails for the moment only,
/// otherwise with the statuses of a shell.
pid_t startChild(const Program& program, int output, int page, const Signals& signals);

}  // namespace vexo::run
