// vexo: the command-line tool. Words after "--" are a program: vexo sets its environment, then becomes it.

#include <algorithm>
#include <optional>

#include "tools/Version.h"
#include "tools/cli/Manner.h"
#include "tools/cli/OptionTree.h"
#include "tools/vexo/Command.h"

namespace {

using namespace vexo;

constexpr AddCommand kCommands[] = {addCheck,  addExport, addIndex, addInfo, addLog,  addPlan, addRelay,
                                    addRemote, addReport, addRun,   addSim,  addStat, addTap,  addWatch};

// The usual cause of words without a place is a program without "--" before it.
std::string adviceFor(const cli::Command& app, const Invocation& invocation, const std::vector<std::string>& words) {
    const cli::Command command = cli::chosen(app);
    const auto& commands = invocation.takeProgram;
    const bool forgotten = invocation.program.empty() && words.front().front() != '-' &&
                           std::find(commands.begin(), commands.end(), command) != commands.end();
    return forgotten ? "Put -- before the program: " + cli::nameOf(command) + " [OPTIONS] -- " + cli::joined(words)
                     : "";
}

int parseAndRun(int argc, char** argv) {
    std::vector<std::string> words = cli::wordsOf(argc, argv);
    Invocation invocation;
    const auto dashes = std::find(words.begin(), words.end(), "--");
    if (dashes != words.end()) invocation.program.assign(dashes + 1, words.end());
    words.erase(dashes, words.end());

    const cli::CommandLine line(
        "vexo",
        "Checks and plans a configuration, supervises an application, runs programs on a simulated card or on the card "
        "of another machine, records, counts, exports and relays what a card delivers, and shows numbers, logs and day "
        "files.");
    const cli::Command app = line.command();
    for (const AddCommand add : kCommands) add(app, invocation);
    cli::tellStatuses(app, {{cli::kFine, "fine"},
                            {cli::kFinding, "a finding, or a failure"},
                            {cli::kUsage, "wrong usage, or a file that was named and cannot be read"},
                            {cli::kNoCard, "no card"},
                            {kCannotRun, "the program behind -- cannot be run"},
                            {kNotFound, "the program behind -- is not there"},
                            {cli::kElse, "that of the program behind --"}});
    cli::complete(app, kVexoVersion);
    if (cli::isDumpWanted(argc, argv)) return cli::dumpOptions(app, kVexoVersion);
    const auto advice = [&](const std::vector<std::string>& extra) { return adviceFor(app, invocation, extra); };
    if (const std::optional<int> status = cli::parse(app, words, advice)) return *status;
    if (!invocation.run) throw Failure(kUsage, "no subcommand: see " + cli::nameOf(cli::chosen(app)) + " --help");
    return invocation.run();
}

}  // namespace

int main(int argc, char** argv) {
    cli::guardStandardStreams();
    try {
        return parseAndRun(argc, argv);
    } catch (const Failure& failure) {
        return cli::fail("vexo", failure.status, failure.what());
    }
}
