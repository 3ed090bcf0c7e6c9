#pragma once

#include <unistd.h>
#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

#include "tools/cli/Values.h"
#include "tools/vexo/Failure.h"

namespace vexo {

/// Fails with status 2 unless @p file is there and may be read.
inline void requireFile(const std::string& file) {
    std::error_code error;
    if (std::filesystem::is_directory(file, error)) throw Failure(kUsage, file + ": this is a directory, not a file");
    if (::access(file.c_str(), R_OK) != 0) throw Failure(kUsage, file + ": " + cli::faultOfReading(errno));
}

/// What @p read returns. A file that cannot be read ends vexo with its name.
template <typename Read>
auto readable(const std::string& file, const Read& read) {
    try {
        return read();
    } catch (const Failure&) {
        throw;
    } catch (const std::runtime_error& error) {
        throw Failure(kUsage, file + ": " + error.what());
    }
}

}  // namespace vexo
