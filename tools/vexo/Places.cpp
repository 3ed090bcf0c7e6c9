#include "tools/vexo/Places.h"

#include <string>
#include <system_error>

#include "tools/vexo/Failure.h"
#include "tools/vexo/Layout.h"

namespace vexo {
namespace {

namespace fs = std::filesystem;

fs::path ownDirectory() {
    std::error_code error;
    const fs::path self = fs::read_symlink("/proc/self/exe", error);
    if (error) throw Failure(kCannotRun, "cannot tell where vexo itself is: " + error.message());
    return self.parent_path();
}

// @param places  relative to vexo itself
template <std::size_t n>
fs::path find(const char* const (&places)[n], const char* what) {
    const fs::path own = ownDirectory();
    std::string tried;
    for (const char* place : places) {
        const fs::path path = (own / place).lexically_normal();
        std::error_code error;
        if (fs::exists(path, error)) return path;
        tried += "\n    " + path.string();
    }
    throw Failure(kCannotRun, std::string(what) + " is not installed with this vexo; it would be" + tried);
}

}  // namespace

fs::path simulatedCardDirectory() { return find(layout::kSimulatedCard, "the simulated card").parent_path(); }

fs::path tapLibrary() { return find(layout::kTap, "the tap"); }

fs::path statsLibrary() { return find(layout::kStats, "the tap's stats-only mode"); }

fs::path pollsLibrary() { return find(layout::kPolls, "the library that counts polls"); }

fs::path receiverProgram() { return find(layout::kReceiver, "what receives for vexo watch"); }

fs::path relayLibrary() { return find(layout::kRelay, "the relay"); }

fs::path besideRelayLibrary() { return find(layout::kRelayBeside, "the relay beside an application"); }

fs::path shareLibrary() { return find(layout::kShare, "what shares a program's packets"); }

fs::path dayFileLibrary() { return find(layout::kDayFile, "what keeps day files apart"); }

fs::path readyScenario(const std::string& name) {
    if (name.find('/') != std::string::npos) return {};
    const fs::path folder = ownDirectory() / layout::kScenarios;
    std::error_code error;
    for (const std::string& file : {name, name + ".ini"})
        if (fs::is_regular_file(folder / file, error)) return (folder / file).lexically_normal();
    return {};
}

}  // namespace vexo
