#include "tools/vexo/show/Terminal.h"

#include "tools/cli/Manner.h"
#include "tools/vexo/Failure.h"

namespace vexo::terminal {

const char* colorOfLevel(std::uint8_t level) {
    switch (level) {
        case 0:
        case 1: return cli::kBoldRed;
        case 2: return cli::kYellow;
        case 3: return cli::kCyan;
        case 5:
        case 6: return cli::kFaint;
        default: return "";
    }
}

int statusOfOutput(int status) {
    const std::string fault = cli::faultOfOutput();
    if (!fault.empty()) throw Failure(kFinding, fault);
    return status;
}

}  // namespace vexo::terminal
