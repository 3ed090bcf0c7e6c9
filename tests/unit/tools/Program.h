#pragma once

#include <sys/wait.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace capture {

/// What a shell command printed on both outputs, and how it ended.
struct ProgramResult {
    int status = -1;  // exit status; 128 + n when it ended by signal n
    std::string output;
};

inline ProgramResult runProgram(const std::string& command) {
    ProgramResult result;
    std::FILE* pipe = ::popen(("exec 2>&1; " + command).c_str(), "r");
    if (pipe == nullptr) return result;
    char part[4096];
    for (std::size_t n; (n = std::fread(part, 1, sizeof part, pipe)) > 0;) result.output.append(part, n);
    const int status = ::pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

/// The same, but nobody reads what the command writes on standard error, and nobody ever will.
inline ProgramResult runWithoutReader(const std::string& command) {
    constexpr int kBroken = 9;  // one digit: shells know no more
    int ends[2];
    if (::pipe(ends) != 0 || ::dup2(ends[1], kBroken) != kBroken) return {};
    ::close(ends[0]);
    if (ends[1] != kBroken) ::close(ends[1]);
    const ProgramResult result = runProgram("{ " + command + "; } 2>&9");
    ::close(kBroken);
    return result;
}

/// A path as one word of a shell command, also inside single quotes.
inline std::string word(const std::string& path) { return "\"" + path + "\""; }

/// Settings before a command that loads a library first. LD_PRELOAD cannot hold a path with a blank.
inline std::string preloading(const std::string& library) {
    const std::size_t slash = library.rfind('/');
    return "LD_LIBRARY_PATH=" + word(library.substr(0, slash)) + " LD_PRELOAD=" + library.substr(slash + 1) + " ";
}

/// Settings before a command that loads the tap: a sanitizer's library cannot come before what is preloaded, and the
/// statistics page is to be in the test's directory.
inline std::string tapSettings(const std::string& file) {
    const char* sanitizer = std::getenv("ASAN_OPTIONS");
    return "export ASAN_OPTIONS=verify_asan_link_order=0:" + std::string(sanitizer != nullptr ? sanitizer : "") +
           " VEXO_TAP_FILE=" + file + " VEXO_STATS_DIR=\"$PWD/pages\"; ";
}

}  // namespace capture
