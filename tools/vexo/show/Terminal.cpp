#include "tools/vexo/show/Terminal.h"

#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/vexo/Command.h"

namespace vexo::terminal {
void addColorOption(CLI::App& command, std::string& when) {
    when = "auto";
    command.add_option("--color", when, "Colours: auto, always or never; auto obeys NO_COLOR and TERM=dumb")
        ->type_name("WHEN")
        ->check(CLI::IsMember({"auto", "always", "never"}))
        ->capture_default_str();
}

bool isColored(const std::string& when) {
    if (when != "auto") return when == "always";
    const char* const refused = std::getenv("NO_COLOR");
    const char* const kind = std::getenv("TERM");
    return ::isatty(STDOUT_FILENO) == 1 && (refused == nullptr || *refused == '\0') && kind != nullptr &&
           std::strcmp(kind, "dumb") != 0;
}

int statusOfOutput(int status) {
    errno = 0;
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        throw Failure(kFinding, std::string("standard output: ") + std::strerror(errno != 0 ? errno : EIO));
    return status;
}

}  // namespace vexo::terminal
