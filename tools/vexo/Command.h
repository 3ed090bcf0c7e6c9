#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/cli/Manner.h"

namespace vexo {

/// A program and its arguments: the words after "--".
using Program = std::vector<std::string>;

/// What the command line asks for.
struct Invocation {
    Program program;
    std::function<int()> run;                  // set by the chosen subcommand; returns the exit status
    std::vector<const CLI::App*> takeProgram;  // subcommands that need a program after "--"
};

/// Thrown to end vexo with a message on standard error.
struct Failure : std::runtime_error {
    Failure(int exitStatus, const std::string& text) : std::runtime_error(text), status(exitStatus) {}
    int status;
};

// Exit statuses of vexo itself. Once vexo has become the program, the status is the program's. 126 and 127 mean the
// same as in a shell.
inline constexpr int kFinding = cli::kFinding;
inline constexpr int kUsage = cli::kUsage;
inline constexpr int kNoCard = cli::kNoCard;
inline constexpr int kCannotRun = 126;
inline constexpr int kNotFound = 127;

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
