// vexo: the command-line tool. Words after "--" are a program: vexo sets its environment, then becomes it.

#include <algorithm>
#include <cstdio>

#include "tools/Version.h"
#include "tools/cli/OptionTree.h"
#include "tools/vexo/Command.h"

namespace {

using namespace vexo;

constexpr AddCommand kCommands[] = {addCheck, addIndex, addLog, addPlan, addSim, addStat, addTap};

// CLI11 takes the words last one first.
std::vector<std::string> reversed(std::vector<std::string> words) {
    std::reverse(words.begin(), words.end());
    return words;
}

// The subcommand that the user chose, or the one before it when the last word is missing or wrong.
const CLI::App& chosen(const CLI::App& app) {
    const std::vector<CLI::App*> next = app.get_subcommands();
    return next.empty() ? app : chosen(*next.front());
}

// As typed: "vexo sim".
std::string nameOf(const CLI::App& app) {
    return (app.get_parent() != nullptr ? nameOf(*app.get_parent()) + " " : "") + app.get_name();
}

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
    return text;
}

// What to say of words that the command line has no place for. The usual cause is a program without "--" before it.
std::string unexpected(const CLI::App& app, const Invocation& invocation) {
    const CLI::App& command = chosen(app);
    const std::vector<std::string> words = app.remaining(true);
    const auto& commands = invocation.takeProgram;
    const bool forgotten = invocation.program.empty() && words.front().front() != '-' &&
                           std::find(commands.begin(), commands.end(), &command) != commands.end();
    return std::string(words.size() == 1 ? "unexpected argument: " : "unexpected arguments: ") + joined(words) +
           (forgotten ? "\nPut -- before the program: " + nameOf(command) + " [OPTIONS] -- " + joined(words)
                      : "\nSee " + nameOf(command) + " --help");
}

int parseAndRun(int argc, char** argv) {
    std::vector<std::string> words(argv + 1, argv + argc);
    Invocation invocation;
    const auto dashes = std::find(words.begin(), words.end(), "--");
    if (dashes != words.end()) invocation.program.assign(dashes + 1, words.end());
    words.erase(dashes, words.end());

    CLI::App app(
        "Checks and plans a configuration, runs programs on a simulated card, records what a card delivers, and shows logs and "
        "day files.",
        "vexo");
    app.set_version_flag("--version", std::string("vexo ") + kVexoVersion, "Show the version and end");
    for (const AddCommand add : kCommands) add(app, invocation);
    app.footer(
        "Exit status: 0 fine, 1 a finding or a failure, 2 wrong usage, 3 no card, 126 a program cannot be run, "
        "127 it is not there; otherwise that of the program behind --.");
    if (cli::isDumpWanted(argc, argv)) return cli::dumpOptions(app, kVexoVersion);
    try {
        app.parse(reversed(words));
    } catch (const CLI::ExtrasError&) {
        throw Failure(kUsage, unexpected(app, invocation));
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kUsage;
    }
    if (!invocation.run) throw Failure(kUsage, "no subcommand: see " + nameOf(chosen(app)) + " --help");
    return invocation.run();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return parseAndRun(argc, argv);
    } catch (const Failure& failure) {
        std::fprintf(stderr, "vexo: %s\n", failure.what());
        return failure.status;
    }
}
