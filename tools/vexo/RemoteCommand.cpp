#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>

#include "sim/remote/Moment.h"
#include "sim/remote/Subjects.h"
#include "tools/cli/Values.h"
#include "tools/vexo/Command.h"
#include "tools/vexo/InputFile.h"
#include "tools/vexo/Launch.h"
#include "tools/vexo/Places.h"
#include "tools/vexo/PrivateDayFiles.h"
#include "tools/vexo/ServerOptions.h"

namespace vexo {
namespace {

constexpr int kLastBus = 4;
constexpr char kCommand[] = "vexo remote run";

struct Options {
    std::string servers;
    std::string site = "local";
    std::optional<int> bus;
    vexo_sim::remote::ConnectionSettings connection;
    std::string since;
    bool ownRegisters = false;
    bool sharedDayFile = false;
};

// The program would find a mistake only when it opens its card.
void check(const Options& options) {
    if (options.servers.empty())
        throw Failure(kUsage, "no servers: give --from nats://HOST:PORT\nSee vexo remote run --help");
    std::string error;
    if (vexo_sim::remote::serversOf(options.servers, error).empty()) throw Failure(kUsage, "--from: " + error);
    if (!vexo_sim::remote::isSite(options.site))
        throw Failure(kUsage, "--site " + options.site + ": use 1 to 32 letters, digits, _ and -");
}

// The moment is fixed here: a program that is started again at once begins with the same packets.
std::string sinceOf(const Options& options) {
    if (options.since.empty()) return {};
    std::timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const auto nowNs = static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
    const auto found = vexo_sim::remote::pastMomentOf(options.since, nowNs);
    if (!found) throw Failure(kUsage, "--since " + options.since + ": " + vexo_sim::remote::kMomentForms);
    return vexo_sim::remote::secondsText(*found);
}

// Without the option, the environment may name the file. The program may change its directory before it connects.
void setFile(const char* variable, const std::string& file) {
    if (file.empty()) return;
    requireFile(file);
    set(variable, std::filesystem::absolute(file).string());
}

void describeConnection(const vexo_sim::remote::ConnectionSettings& connection) {
    setFile("VEXO_NATS_CREDS", connection.credsFile);
    setFile("VEXO_NATS_USER_FILE", connection.userFile);
    setFile("VEXO_NATS_TLS_CA", connection.tlsCaFile);
    setFile("VEXO_NATS_TLS_CERT", connection.tlsCertFile);
    setFile("VEXO_NATS_TLS_KEY", connection.tlsKeyFile);
}

int run(const Options& options, const Program& program) {
    requireProgram(program);
    check(options);
    describeConnection(options.connection);
    set("VEXO_SIM_CARD", "remote");
    set("VEXO_SIM_REMOTE", options.servers);
    set("VEXO_SIM_REMOTE_SITE", options.site);
    set("VEXO_SIM_REMOTE_BUS", options.bus ? std::to_string(*options.bus) : "");
    set("VEXO_SIM_REMOTE_REGISTERS", options.ownRegisters ? "own" : "");
    set("VEXO_SIM_REMOTE_SINCE", sinceOf(options));
    set("VEXO_SIM_COMMAND", kCommand);
    set("VEXO_SIM_DAY_FILES", options.sharedDayFile ? "" : privateDayFiles(kCommand));
    if (!options.sharedDayFile) preload(dayFileLibrary());
    prepend("LD_LIBRARY_PATH", simulatedCardDirectory());
    become(program);
}

}  // namespace

void addRemote(const cli::Command& app, Invocation& invocation) {
    const auto options = std::make_shared<Options>();
    const cli::Command remote = app.addCommand("remote", "The card of another machine");
    const cli::Command runIt = remote.addCommand(
        "run", "Run a program on the packets that a relay sends from the card of another machine");
    takeProgram(
        runIt, "remote run", invocation,
        "Each channel that the program opens receives what a relay sends of the same channel. A master (channel "
        "0) needs --own-registers.");
    runIt
        .addOption("--from", options->servers, "Servers, with commas between them: nats://HOST:PORT or tls://HOST:PORT")
        .takes("SERVERS");
    runIt.addOption("--site", options->site, "Name of the relay's site, a part of the subjects")
        .takes("NAME")
        .showsDefault();
    runIt.addOption("--bus", options->bus, "Number of the card at the relay, and of the card that the program finds")
        .takes("N")
        .check(cli::wholeNumber(0, kLastBus));
    runIt
        .addOption("--since", options->since,
                   "Receive the packets from this time on first, from the relay's archive: 09:00, 20261122 or "
                   "\"2026-11-22 09:00\" of the exchange's zone, or seconds since 1970")
        .takes("TIME")
        .check(cli::notEmpty());
    runIt.addFlag("--own-registers", options->ownRegisters,
                  "Let a model in the program answer its registers, and send it a contract map");
    addServerFiles(runIt, options->connection);
    runIt.addFlag("--shared-day-file", options->sharedDayFile,
                  "Use the day file in /tmp, which a start on a real card would load too");
    runIt.whenChosen([options, &invocation] {
        invocation.run = [options, &invocation] { return run(*options, invocation.program); };
    });
}

}  // namespace vexo
