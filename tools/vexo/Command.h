#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tools/vexo/Failure.h"

namespace CLI {
class App;
}

namespace vexo {

/// A program and its arguments: the words after "--".
using Program = std::vector<std::string>;

/// What the command line asks for.
struct Invocation {
    Program program;
    std::function<int()> run;                  // set by the chosen subcommand; returns the exit status
    std::vector<const CLI::App*> takeProgram;  // subcommands that need a program after "--"
};

/// Adds a subcommand to @p app. The subcommand sets invocation.run when it is chosen. One source file each.
using AddCommand = void (*)(CLI::App& app, Invocation& invocation);

void addCheck(CLI::App& app, Invocation& invocation);
void addExport(CLI::App& app, Invocation& invocation);
void addIndex(CLI::App& app, Invocation& invocation);
void addInfo(CLI::App& app, Invocation& invocation);
void addLog(CLI::App& app, Invocation& invocation);
void addPlan(CLI::App& app, Invocation& invocation);
void addRelay(CLI::App& app, Invocation& invocation);
void addRemote(CLI::App& app, Invocation& invocation);
void addReport(CLI::App& app, Invocation& invocation);
void addRun(CLI::App& app, Invocation& invocation);
void addSim(CLI::App& app, Invocation& invocation);
void addStat(CLI::App& app, Invocation& invocation);
void addTap(CLI::App& app, Invocation& invocation);
void addWatch(CLI::App& app, Invocation& invocation);

}  // namespace vexo
