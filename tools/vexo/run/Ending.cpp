#include "tools/vexo/run/Ending.h"

#include <sys/wait.h>
#include <csignal>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "tools/vexo/Failure.h"
#include "tools/vexo/check/StartLog.h"
#include "tools/vexo/run/Signals.h"
#include "tools/vexo/show/Harmless.h"

namespace vexo::run {
namespace {

using check::Again;

Ending failedStart(const check::StartEnd& end, const Ended& ended) {
    const check::StartLine& line = *end.line;
    Ending ending;
    ending.again = line.again == Again::kMayHelp || line.again == Again::kNoCard ||
                   (line.again == Again::kUnlessMaster && !ended.isMaster);
    ending.status = line.again == Again::kNoCard ? kNoCard : ending.again ? kFinding : kUseless;
    // What to do against a missing card ends with "start vexo-simcard", which hosts a card at bus 0 unless told.
    const bool namesCard = line.again == Again::kNoCard && ended.card;
    ending.text = std::string("the start failed while ") + line.step + ": " + line.why + "; " + line.todo +
                  (namesCard ? " --bus " + std::to_string(*ended.card) : "") + " (" + ended.output + ":" +
                  std::to_string(end.number) + ")";
    return ending;
}

check::StartEnd readOutput(const std::string& file) {
    try {
        return check::endOfStart(file);
    } catch (const std::runtime_error&) {
        return {};  // somebody removed the file: what the poll page says must do
    }
}

// The loader's last line, whichever program it is of: the application may be a script that starts others.
struct LoaderLine {
    std::size_t number = 0;  // 0: there is none
    std::string text;
};

LoaderLine loaderLine(const std::string& file) {
    std::ifstream output(file);
    LoaderLine found;
    std::size_t number = 0;
    for (std::string text; std::getline(output, text);) {
        ++number;
        if (text.find(": error while loading shared libraries: ") != std::string::npos) found = {number, text};
    }
    return found;
}

Ending withoutLibrary(const LoaderLine& line, const std::string& output) {
    const bool isCards = line.text.find(" libenyx-hw-c.so") != std::string::npos;
    Ending ending{false, kNotFound, false, ""};
    ending.loaded = false;
    ending.text = harmless(line.text) + "; install the library, or name its directory in LD_LIBRARY_PATH" +
                  (isCards ? "; for the simulated card, put vexo sim run -- before the program" : "") + " (" + output +
                  ":" + std::to_string(line.number) + ")";
    return ending;
}

Ending withStatusZero(const check::StartEnd& end, const Ended& ended) {
    if (ended.wasStopped) return {true, 0, false, "ended as asked"};
    if (ended.wasReady || end.opened) return {true, 0, false, "ended in order"};
    if (ended.isAttached)
        return {false, kFinding, true,
                "ended with status 0, but its stream was never open, and " + ended.output + " does not say why"};
    return {true, 0, false, "ended with status 0; whether its stream was open cannot be known"};
}

Ending bySignal(int signal, bool wasStopped) {
    const std::string name = std::string("ended by signal ") + std::to_string(signal) + " (" + ::strsignal(signal) +
                             ")";
    if (wasStopped && isStop(static_cast<unsigned>(signal))) return {true, 0, false, name + " as asked"};
    return {false, 128 + signal, true, name};
}

// The line that names the cause may be lost, so nobody knows whether another start would do harm.
Ending withoutOutput(const Ended& ended) {
    return {false, kUseless, false,
            "its stream was never open, and nobody knows why: " + ended.output + " could not be written"};
}

}  // namespace

Ending judge(const Ended& ended) {
    if (ended.wasStanding) return {false, kFinding, true, "ended because its polls stood still"};
    if (WIFSIGNALED(ended.waitStatus)) return bySignal(WTERMSIG(ended.waitStatus), ended.wasStopped);
    const int status = WEXITSTATUS(ended.waitStatus);
    const check::StartEnd end = readOutput(ended.output);
    // Whatever the status: an application may have turned the library's 0 into another one.
    if (end.line != nullptr) return failedStart(end, ended);
    const bool wasOpen = ended.wasReady || end.opened;
    const bool hasFailed = ended.isAttached && !wasOpen && !ended.wasStopped;
    if (hasFailed && !ended.lost.empty()) return withoutOutput(ended);
    if (status == 0) return withStatusZero(end, ended);
    if (status == kNotFound && !wasOpen)
        if (const LoaderLine line = loaderLine(ended.output); line.number != 0)
            return withoutLibrary(line, ended.output);
    return {false, status, true, "ended with status " + std::to_string(status)};
}

}  // namespace vexo::run
