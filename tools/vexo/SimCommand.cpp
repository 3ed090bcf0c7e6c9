#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>

#include "sim/scenario/Scenario.h"
#include "sim/shm/CardPlaces.h"
#include "tools/cli/Values.h"
#include "tools/vexo/Command.h"
#include "tools/vexo/Launch.h"
#include "tools/vexo/Places.h"
#include "tools/vexo/PrivateDayFiles.h"

namespace vexo {
namespace {

namespace fs = std::filesystem;

// The simulated card's library reads these when a program first uses it.
constexpr char kScenarioVariable[] = "VEXO_SIM_SCENARIO";
constexpr char kCardVariable[] = "VEXO_SIM_CARD";
// The library that is loaded into the program reads this.
constexpr char kDayFilesVariable[] = "VEXO_SIM_DAY_FILES";
constexpr char kCommandVariable[] = "VEXO_SIM_COMMAND";
constexpr char kCommand[] = "vexo sim run";

struct Options {
    std::string scenario;
    vexo_sim::scenario::KeySettings settings{"--set", {}};
    bool embedded = false;
    bool hosted = false;
    std::string user;  // whose hosted card; empty for this one's
    bool sharedDayFile = false;
};

void requireScenario(const std::string& file) {
    std::error_code error;
    if (fs::is_directory(file, error)) throw Failure(kUsage, "--scenario " + file + ": this is a directory");
    if (::access(file.c_str(), R_OK) == 0) return;
    const int why = errno;
    const fs::path ready = why == ENOENT ? readyScenario(file) : fs::path();
    throw Failure(kUsage, "--scenario " + file + ": " +
                              (ready.empty() ? cli::faultOfReading(why)
                                             : std::strerror(why) + ("; the ready one is " + ready.string())));
}

// Describes the card of the program's own to the card's library. The library would find a mistake only when the program
// opens its card, so the description is checked here.
void describeCard(const Options& options) {
    if (!options.scenario.empty()) requireScenario(options.scenario);
    std::string error;
    if (!vexo_sim::scenario::load(options.scenario, options.settings, error)) throw Failure(kUsage, error);
    // The program may change its directory before it opens the card.
    set(kScenarioVariable, options.scenario.empty() ? "" : fs::absolute(options.scenario).string());
    set(vexo_sim::scenario::kSettingsVariable, linesOf(withAbsolutePaths(options.settings)));
    set(kCardVariable, "embedded");
}

// Which card the program's library is to look for.
std::string hostedCard(const std::string& user) {
    if (user.empty()) return "hosted";
    if (!vexo_sim::findUser(user)) throw Failure(kUsage, "--user " + user + ": there is no such user");
    return "hosted:" + user;
}

int run(const Options& options, const Program& program) {
    requireProgram(program);
    if (!options.scenario.empty() || !options.settings.texts.empty()) describeCard(options);
    if (options.embedded) set(kCardVariable, "embedded");
    if (options.hosted) set(kCardVariable, hostedCard(options.user));
    set(kCommandVariable, kCommand);
    set(kDayFilesVariable, options.sharedDayFile ? "" : privateDayFiles(kCommand));
    if (!options.sharedDayFile) preload(dayFileLibrary());
    prepend("LD_LIBRARY_PATH", simulatedCardDirectory());
    become(program);
}

}  // namespace

void addSim(const cli::Command& app, Invocation& invocation) {
    const auto options = std::make_shared<Options>();
    const cli::Command sim = app.addCommand("sim", "The simulated card");
    const cli::Command runIt = sim.addCommand("run", "Run a program on the simulated card instead of a real one");
    takeProgram(
        runIt, "sim run", invocation,
        "The program's day files lie in a private directory for each card; a line on standard error says where. "
        "So no start on a real card loads the map of a simulated one. The loader obeys neither this nor the "
        "choice of the card for programs that are static or run with the rights of another user (setuid).");
    const cli::Option scenario = runIt.addOption("--scenario", options->scenario,
                                                 "Scenario file for a card of the program's own");
    scenario.takes("SCENARIO.ini");
    const cli::Option setting = runIt.addOption("--set", options->settings.texts,
                                                "Set one key of the scenario; may be given several times");
    setting.takes("SECTION.KEY=VALUE").takesOneEach();
    const cli::Option embedded = runIt.addFlag("--embedded", options->embedded,
                                               "Use a card of the program's own, even when one is hosted");
    const cli::Option hosted = runIt.addFlag("--hosted", options->hosted,
                                             "Use the card that vexo-simcard hosts, and no other");
    hosted.excludes(embedded).excludes(scenario).excludes(setting);
    runIt.addOption("--user", options->user, "With --hosted: whose card; they must share it with vexo-simcard --group")
        .takes("USER")
        .needs(hosted);
    runIt.addFlag("--shared-day-file", options->sharedDayFile,
                  "Use the day file in /tmp, which a start on a real card would load too");
    runIt.whenChosen([options, &invocation] {
        invocation.run = [options, &invocation] { return run(*options, invocation.program); };
    });
}

}  // namespace vexo
