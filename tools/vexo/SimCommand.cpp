#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>

#include "tools/vexo/Command.h"
#include "tools/vexo/Launch.h"
#include "tools/vexo/Places.h"

namespace vexo {
namespace {

namespace fs = std::filesystem;

// What the simulated card's library looks at when a program first uses it.
constexpr char kScenarioVariable[] = "VEXO_SIM_SCENARIO";
constexpr char kCardVariable[] = "VEXO_SIM_CARD";

struct Options {
    std::string scenario;
    bool embedded = false;
    bool hosted = false;
};

fs::path absoluteScenario(const std::string& file) {
    std::error_code error;
    if (fs::is_directory(file, error)) throw Failure(kUsage, "--scenario " + file + ": this is a directory");
    if (::access(file.c_str(), R_OK) != 0) throw Failure(kUsage, "--scenario " + file + ": " + std::strerror(errno));
    return fs::absolute(file);
}

int run(const Options& options, const Program& program) {
    requireProgram(program);
    if (!options.scenario.empty()) set(kScenarioVariable, absoluteScenario(options.scenario).string());
    if (options.embedded || !options.scenario.empty()) set(kCardVariable, "embedded");
    if (options.hosted) set(kCardVariable, "hosted");
    prepend("LD_LIBRARY_PATH", simulatedCardDirectory());
    become(program);
}

}  // namespace

void addSim(CLI::App& app, Invocation& invocation) {
    const auto options = std::make_shared<Options>();
    CLI::App* sim = app.add_subcommand("sim", "The simulated card");
    CLI::App* runIt = sim->add_subcommand("run", "Run a program on the simulated card instead of a real one");
    runIt->footer("Run it as:  vexo sim run [OPTIONS] -- PROGRAM [ARGUMENTS]");
    CLI::Option* scenario = runIt->add_option("--scenario", options->scenario,
                                              "Ini file that says what the card of the program's own does");
    CLI::Option* embedded = runIt->add_flag("--embedded", options->embedded,
                                            "A card of the program's own, also when one is hosted");
    runIt->add_flag("--hosted", options->hosted, "The card that vexo-simcard hosts, and no other")
        ->excludes(embedded)
        ->excludes(scenario);
    runIt->callback([options, &invocation] {
        invocation.run = [options, &invocation] { return run(*options, invocation.program); };
    });
}

}  // namespace vexo
