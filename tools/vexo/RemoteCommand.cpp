#include <memory>
#include <optional>

#include "tools/vexo/Command.h"
#include "tools/vexo/Launch.h"
#include "tools/vexo/Places.h"
#include "tools/vexo/PrivateDayFiles.h"
#include "tools/vexo/ServerOptions.h"

namespace vexo {
namespace {

constexpr int kLastBus = 4;

struct Options {
    ServerOptions servers;
    std::optional<int> bus;
    bool ownRegisters = false;
    bool sharedDayFile = false;
};

// Without the option, the environment may name the file.
void setUnlessEmpty(const char* variable, const std::string& value) {
    if (!value.empty()) set(variable, value);
}

int run(Options& options, const Program& program) {
    requireProgram(program);
    checkServerOptions(options.servers);
    set("VEXO_SIM_CARD", "remote");
    set("VEXO_SIM_REMOTE", options.servers.servers);
    set("VEXO_SIM_REMOTE_SITE", options.servers.site);
    set("VEXO_SIM_REMOTE_BUS", options.bus ? std::to_string(*options.bus) : "");
    set("VEXO_SIM_REMOTE_REGISTERS", options.ownRegisters ? "own" : "");
    setUnlessEmpty("VEXO_NATS_CREDS", options.servers.creds);
    setUnlessEmpty("VEXO_NATS_USER_FILE", options.servers.userFile);
    setUnlessEmpty("VEXO_NATS_TLS_CA", options.servers.tlsCa);
    setUnlessEmpty("VEXO_NATS_TLS_CERT", options.servers.tlsCert);
    setUnlessEmpty("VEXO_NATS_TLS_KEY", options.servers.tlsKey);
    set("VEXO_SIM_DAY_FILES", options.sharedDayFile ? "" : privateDayFiles());
    if (!options.sharedDayFile) preload(dayFileLibrary());
    prepend("LD_LIBRARY_PATH", simulatedCardDirectory());
    become(program);
}

}  // namespace

void addRemote(CLI::App& app, Invocation& invocation) {
    const auto options = std::make_shared<Options>();
    CLI::App* remote = app.add_subcommand("remote", "The card of another machine");
    CLI::App* runIt = remote->add_subcommand(
        "run", "Run a program on the packets that a relay sends from the card of another machine");
    takeProgram(
        *runIt, "remote run", invocation,
        "Each channel that the program opens receives what a relay sends of the same channel. A master (channel "
        "0) needs --own-registers. The files of --creds, --user-file and --tls-... may also be named by "
        "VEXO_NATS_CREDS, VEXO_NATS_USER_FILE, VEXO_NATS_TLS_CA, _CERT and _KEY.");
    addServerOptions(*runIt, options->servers, "--from", "Servers that the relay sends to; one is enough");
    runIt->add_option("--bus", options->bus, "Bus of the card at the relay, and of the card that the program finds")
        ->type_name("N")
        ->check(CLI::Range(0, kLastBus));
    runIt->add_flag("--own-registers", options->ownRegisters,
                    "Let a model in the program answer its registers, and send it a contract map");
    runIt->add_flag("--shared-day-file", options->sharedDayFile,
                    "Use the day file in /tmp, which a start on a real card would load too");
    runIt->callback([options, &invocation] {
        invocation.run = [options, &invocation] { return run(*options, invocation.program); };
    });
}

}  // namespace vexo
