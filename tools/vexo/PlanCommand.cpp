#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "tools/vexo/Command.h"
#include "tools/vexo/plan/PlanOutput.h"
#include "tools/vexo/show/Terminal.h"

namespace vexo {
namespace {

struct Options {
    std::vector<std::string> configs;
    std::vector<std::string> against;
    std::string instruments;
    std::string color;
    bool all = false;
    bool json = false;
};

int run(const Options& options) {
    if (options.configs.empty())
        throw Failure(kUsage, "nothing to plan: name a configuration, such as vexo plan zce.ini\nSee vexo plan --help");
    const plan::Instruments instruments = plan::chooseInstruments(options.instruments);
    const plan::Plan plan = plan::makePlan(options.configs, instruments);
    plan::Shown shown{instruments, plan, options.against, {}};
    if (!options.against.empty())
        shown.differences = plan::differences(plan::makePlan(options.against, instruments), plan);
    const std::string text = options.json ? asJson(shown)
                                          : asText(shown, options.all, terminal::isColored(options.color));
    std::fputs(text.c_str(), stdout);
    return terminal::statusOfOutput(plan.report.count() == 0 ? 0 : kFinding);
}

}  // namespace

void addPlan(const cli::Command& app, Invocation& invocation) {
    const auto options = std::make_shared<Options>();
    const cli::Command command = app.addCommand(
        "plan", "Show which instruments each channel would get from a start, without starting anything");
    command.addOption("CONFIG.ini", options->configs,
                      "Configuration of the master, such as zce.ini; with those of the other programs");
    command
        .addOption("--against", options->against,
                   "Show what changes from this configuration; may be given several times")
        .takes("OTHER.ini")
        .takesOneEach();
    command
        .addOption(
            "--instruments", options->instruments,
            "The instruments of the card: day-file (the one that a start now loads), simulated or full (lists of "
            "the simulated card), or a file: a day file, or lines of an id, or of an id and its index. The "
            "default is the newest day file of the last days, or else the simulated list")
        .takes("FILE");
    command.addFlag("--all", options->all, "Show every name and every row, not only the first names");
    command.addFlag("--json", options->json, "Write JSON, with every name and every row");
    terminal::addColorOption(command, options->color);
    command.footer(
        "Example: vexo plan zce.ini --against zce.ini.old shows what a change of insts= does to each channel.\n"
        "Only the master's configuration, of channel 0, decides about instruments. It does so for all channels.\n"
        "A difference is no finding.");
    cli::tellStatuses(command, {{cli::kFine, "no findings"},
                                {kFinding, "findings, such as a rule that matches nothing"},
                                {kUsage, "wrong usage, or a file that cannot be read"}});
    command.whenChosen([options, &invocation] { invocation.run = [options] { return run(*options); }; });
}

}  // namespace vexo
