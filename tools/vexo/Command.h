#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tools/cli/Command.h"
#include "tools/vexo/Failure.h"

namespace vexo {

/// A program and its arguments: the words after "--".
using Program = std::vector<std::string>;

/// What the command line asks for.
struct Invocation {
    Program program;
    std::function<int()> run;               // set by the chosen subcommand; returns the exit status
    std::vector<cli::Command> takeProgram;  // subcommands that need a program after "--"
};

/// Adds a subcommand to @p app. The subcommand sets invocation.run when it is chosen. One source file each.
using AddCommand = void (*)(const cli::Command& app, Invocation& invocation);

void addCheck(const cli::Command& app, Invocation& invocation);
void addExport(const cli::Command& app, Invocation& invocation);
void addIndex(const cli::Command& app, Invocation& invocation);
void addInfo(const cli::Command& app, Invocation& invocation);
void addLog(const cli::Command& app, Invocation& invocation);
void addPlan(const cli::Command& app, Invocation& invocation);
void addRelay(const cli::Command& app, Invocation& invocation);
void addRemote(const cli::Command& app, Invocation& invocation);
void addReport(const cli::Command& app, Invocation& invocation);
void addRun(const cli::Command& app, Invocation& invocation);
void addSim(const cli::Command& app, Invocation& invocation);
void addStat(const cli::Command& app, Invocation& invocation);
void addTap(const cli::Command& app, Invocation& invocation);
void addWatch(const cli::Command& app, Invocation& invocation);

}  // namespace vexo
