#pragma once

#include <filesystem>
#include <string>

#include "tools/vexo/Command.h"

namespace vexo {

/// Fails with status 2 when no program was named.
void requireProgram(const Program& program);

/// Puts @p path before what the variable, a list that the loader reads, already has.
void prepend(const char* variable, const std::filesystem::path& path);
/// The loader loads @p library into the program before all others.
void preload(const std::filesystem::path& library);
void set(const char* variable, const std::string& value);

/// Becomes the program; returns only by a Failure.
[[noreturn]] void become(const Program& program);

}  // namespace vexo
