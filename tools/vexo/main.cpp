// vexo: the command-line tool. What stands after "--" is a program that vexo prepares the way for, and becomes.

#include <algorithm>
#include <cstdio>

#include "tools/vexo/Command.h"
#include "tools/vexo/Version.h"

namespace {

using namespace vexo;

constexpr AddCommand kCommands[] = {addSim, addTap};

// CLI11 takes the words last one first.
std::vector<std::string> reversed(std::vector<std::string> words) {
    std::reverse(words.begin(), words.end());
    return words;
}

// As far as the user has come: "vexo sim".
std::string chosen(const CLI::App& app) {
    const std::vector<CLI::App*> next = app.get_subcommands();
    return app.get_name() + (next.empty() ? "" : " " + chosen(*next.front()));
}

int parseAndRun(std::vector<std::string> words) {
    Invocation invocation;
    const auto dashes = std::find(words.begin(), words.end(), "--");
    if (dashes != words.end()) invocation.program.assign(dashes + 1, words.end());
    words.erase(dashes, words.end());

    CLI::App app("Tools around the card: the simulated one, and what passes a card's interface.", "vexo");
    app.set_version_flag("--version", std::string("vexo ") + kVersion);
    for (const AddCommand add : kCommands) add(app, invocation);
    try {
        app.parse(reversed(words));
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kUsage;
    }
    if (!invocation.run) throw Failure(kUsage, "no subcommand: see " + chosen(app) + " --help");
    return invocation.run();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return parseAndRun(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const Failure& failure) {
        std::fprintf(stderr, "vexo: %s\n", failure.what());
        return failure.status;
    }
}
