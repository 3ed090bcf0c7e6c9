#include "tools/cli/Color.h"

#include <unistd.h>
#include <cstdlib>

#include "tools/cli/Progress.h"
#include "tools/cli/Values.h"

namespace cli {

void addColorOption(const cli::Command& command, std::string& when) {
    when = "auto";
    command.addOption("--color", when, "Colours: auto, always or never; auto obeys NO_COLOR and TERM=dumb")
        .takes("WHEN")
        .check(oneOf({"auto", "always", "never"}))
        .showsDefault();
}

bool isColored(const std::string& when) {
    if (when != "auto") return when == "always";
    const char* const refused = std::getenv("NO_COLOR");
    return isTerminal(STDOUT_FILENO) && (refused == nullptr || *refused == '\0');
}

std::string painted(const std::string& text, const char* color, bool colored) {
    return colored && !text.empty() ? color + text + kPlain : text;
}

}  // namespace cli
