#include <cstdio>
#include <memory>
#include <vector>

#include "tools/vexo/Command.h"
#include "tools/vexo/InputFile.h"
#include "tools/vexo/check/CardCheck.h"
#include "tools/vexo/check/ConfigCheck.h"
#include "tools/vexo/check/HostCheck.h"
#include "tools/vexo/check/KeyTable.h"
#include "tools/vexo/check/StartLog.h"
#include "tools/vexo/show/Terminal.h"

namespace vexo {
namespace {

struct Options {
    std::vector<std::string> configs;
    std::string log;
    std::string color;
    check::HostPlaces places;
    bool configOnly = false;
    bool card = false;
    bool keys = false;
    bool json = false;
};

// @return whether there is a card, if one is asked for
bool checkFiles(const Options& options, check::Report& report) {
    std::vector<check::ConfigFacts> programs;
    for (const std::string& config : options.configs) requireFile(config);
    for (const std::string& config : options.configs)
        programs.push_back(readable(config, [&] { return check::checkConfig(config, report); }));
    check::checkTogether(programs, report);
    check::HostPlaces places = options.places;
    places.cardIsRead = options.card;
    if (!programs.empty() && !options.configOnly) check::checkHost(programs, places, report);
    const bool hasCard = !options.card || check::checkCards(programs, report);
    if (options.log.empty()) return hasCard;
    requireFile(options.log);
    readable(options.log, [&] {
        check::checkLog(options.log, report);
        return 0;
    });
    return hasCard;
}

int run(const Options& options) {
    if (options.keys) {
        std::fputs((options.json ? check::keysAsJson() : check::keysAsText()).c_str(), stdout);
        return terminal::statusOfOutput(0);
    }
    if (options.configs.empty() && options.log.empty())
        throw Failure(kUsage,
                      "nothing to check: name a configuration, such as vexo check zce.ini\nSee vexo check --help");
    check::Report report;
    const bool hasCard = checkFiles(options, report);
    std::fputs((options.json ? asJson(report) : asText(report, terminal::isColored(options.color))).c_str(), stdout);
    return terminal::statusOfOutput(!hasCard ? kNoCard : report.count() == 0 ? 0 : kFinding);
}

}  // namespace

void addCheck(const cli::Command& app, Invocation& invocation) {
    const auto options = std::make_shared<Options>();
    const cli::Command check = app.addCommand(
        "check", "Find what is wrong with a configuration and this host before a start, or why a start failed");
    const cli::Option config = check.addOption("CONFIG.ini", options->configs,
                                               "Configuration, such as zce.ini; several if they run on one host");
    check.addOption("--after", options->log, "Say what became of the last start-up in a day log")
        .takes("fpga_YYYYMMDD.log");
    check.addFlag("--config-only", options->configOnly, "Check the configuration, not this host").needs(config);
    check
        .addFlag("--card", options->card,
                 "Read the card too: versions, fibres, date, switch, who holds the streams; writes no register")
        .needs(config);
    check
        .addOption("--directory", options->places.directory,
                   "Directory in which the program will run (default: this one)")
        .takes("DIR");
    check.addFlag("--keys", options->keys, "Show every key with type, range, default and meaning").excludes(config);
    check.addFlag("--json", options->json, "Write JSON");
    terminal::addColorOption(check, options->color);
    check.footer(
        "Levels: fatal ends the start-up; error: the start goes on, but not as the file asks; warning: works, but is "
        "probably not meant; note: no finding.");
    cli::tellStatuses(check, {{cli::kFine, "no findings"},
                              {kFinding, "findings"},
                              {kUsage, "wrong usage, or a file that cannot be read"},
                              {kNoCard, "no card, with --card"}});
    check.whenChosen([options, &invocation] { invocation.run = [options] { return run(*options); }; });
}

}  // namespace vexo
