#pragma once

#include <filesystem>
#include <string>

#include "tools/vexo/Command.h"

namespace vexo {

/// Marks a subcommand that becomes a program, and explains its command line and its exit statuses at the end of its
/// help.
/// @param name   as typed: "sim run"
/// @param notes  more for the end of the help
void takeProgram(const cli::Command& subcommand, const std::string& name, Invocation& invocation,
                 const std::string& notes = {});

/// Fails with status 2 when no program was named.
void requireProgram(const Program& program);

/// Puts @p path in front of a list of paths that the loader reads from an environment variable.
void prepend(const char* variable, const std::filesystem::path& path);
/// The loader loads @p library into the program before all others.
void preload(const std::filesystem::path& library);
void set(const char* variable, const std::string& value);

/// Makes the names of layouts and of the directory for pages absolute: a program may change its directory before it
/// opens a stream.
void keepPaths();

/// Replaces vexo with the program. Returns only by a Failure.
[[noreturn]] void become(const Program& program);

}  // namespace vexo
