#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/cli/Command.h"
#include "tools/cli/Output.h"

/// What all programs do alike on their command lines. docs/commands.md tells the user of it.
namespace cli {

// Exit statuses.
inline constexpr int kFine = 0;
inline constexpr int kFinding = 1;  ///< or a failure
inline constexpr int kUsage = 2;
inline constexpr int kNoCard = 3;

inline constexpr int kElse = -1;  ///< in a table: every other status

struct ExitStatus {
    int status;
    const char* meaning;
};

/// Adds a table of exit statuses to the end of the help of a program or subcommand.
void tellStatuses(const Command& command, const std::vector<ExitStatus>& statuses);

/// Gives a program and all its subcommands --version, and the usual table of exit statuses to those without one. Called
/// once, after all options have been added.
void complete(const Command& program, const char* version);

/// More to say of words that the command line has no place for; empty for the usual hint to --help.
using Advice = std::function<std::string(const std::vector<std::string>& words)>;

/// Reads the command line. Nothing when the program goes on; otherwise its exit status, after it has shown its help or
/// version, or has said on standard error what is wrong with the command line.
std::optional<int> parse(const Command& program, std::vector<std::string> words, const Advice& advice = {});
/// The words of main() without the program's name.
std::vector<std::string> wordsOf(int argc, const char* const* argv);

/// The subcommand that the user chose, or the one before it when the last word is missing or wrong.
Command chosen(const Command& program);
/// As typed: "vexo sim".
std::string nameOf(const Command& command);
std::string joined(const std::vector<std::string>& words);

/// Writes "PROGRAM: TEXT" to standard error. @return @p status
int fail(const std::string& program, int status, const std::string& text);

/// Writes out what standard output still holds. A file system that is full turns @p status into kFinding and says why.
int finish(const std::string& program, int status);

}  // namespace cli
