// vexo-simcard: hosts a simulated card in shared memory for several processes, as a machine's one card would serve
// them.

#include <grp.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "sim/host/CardHost.h"
#include "sim/host/Status.h"
#include "sim/scenario/Pace.h"
#include "sim/shm/CardPlaces.h"
#include "tools/Version.h"
#include "tools/cli/Color.h"
#include "tools/cli/Manner.h"
#include "tools/cli/OptionTree.h"
#include "tools/cli/Progress.h"
#include "tools/cli/Values.h"

using namespace vexo_sim;

namespace {

constexpr std::uint32_t kLastBus = 4;
constexpr std::uint32_t kLongestHosting = 86400 * 366;  // seconds

struct Arguments {
    std::string scenario;
    scenario::KeySettings settings{"--set", {}};
    std::optional<std::uint32_t> bus;
    std::string pace;
    std::string group;
    std::string record;
    std::string user;
    std::string color;
    std::uint32_t seconds = 0;
    bool json = false;
    bool status = false;
    bool quiet = false;
};

volatile sig_atomic_t g_stop = 0;

void stop(int) { g_stop = 1; }

int fail(int status, const std::string& text) { return cli::fail("vexo-simcard", status, text); }

std::string textOf(const CardStatus& status, const Arguments& arguments) {
    return cli::isColored(arguments.color) ? toText(status, TextStyle::kColored) : toText(status);
}

void catchStopSignals() {
    struct sigaction action {};
    action.sa_handler = stop;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
}

// Shows the card that another process hosts.
int showStatus(const Arguments& arguments) {
    const std::uint32_t bus = arguments.bus.value_or(0);
    const std::optional<uid_t> user = arguments.user.empty() ? geteuid() : findUser(arguments.user);
    if (!user) return fail(cli::kUsage, "there is no user " + arguments.user);
    const std::unique_ptr<SharedCard> card = attachCard(bus, *user, "vexo-simcard");
    if (card == nullptr) {
        const std::string whose = arguments.user.empty() ? "" : " by " + arguments.user + " for this user";
        return fail(cli::kNoCard, "no card is hosted at bus " + std::to_string(bus) + whose +
                                      ". Start one: vexo-simcard --bus " + std::to_string(bus) +
                                      (whose.empty() ? "" : " --group GROUP"));
    }
    const std::optional<CardStatus> status = readStatus(*card);
    if (!status) return fail(cli::kFinding, "the card cannot be read now");
    std::fputs((arguments.json ? toJson(*status) : textOf(*status, arguments)).c_str(), stdout);
    return cli::finish("vexo-simcard", cli::kFine);
}

void rest(std::uint64_t ns) {
    if (ns == 0) return;
    const timespec duration{0, static_cast<long>(ns)};
    nanosleep(&duration, nullptr);
}

// Shows the status on a terminal, always in the same place.
void redraw(CardHost& host, const Arguments& arguments) {
    static bool first = true;
    const std::optional<CardStatus> status = readStatus(host.card());
    if (!status) return;
    std::printf("%s%s(Ctrl-C ends it)\n", first ? "\x1b[2J\x1b[H" : "\x1b[H\x1b[J", textOf(*status, arguments).c_str());
    std::fflush(stdout);
    first = false;
}

void run(CardHost& host, const Arguments& arguments) {
    const bool live = !arguments.quiet && cli::isTerminal(STDOUT_FILENO);
    const time_t begin = time(nullptr);
    time_t shown = 0;
    while (g_stop == 0) {
        rest(host.turn());
        const time_t now = time(nullptr);
        if (arguments.seconds != 0 && now - begin >= static_cast<time_t>(arguments.seconds)) break;
        if (!live || now == shown) continue;
        redraw(host, arguments);
        shown = now;
    }
}

bool findGroup(const std::string& name, gid_t& group) {
    const struct group* entry = getgrnam(name.c_str());
    if (entry != nullptr) group = entry->gr_gid;
    return entry != nullptr;
}

int hostCard(const Arguments& arguments) {
    std::string error;
    const std::optional<scenario::Scenario> scenario = scenario::load(arguments.scenario, arguments.settings, error);
    if (!scenario) return fail(cli::kUsage, error);
    CardHost::Plan plan{*scenario, {}, arguments.record};
    if (arguments.bus) plan.scenario.bus = *arguments.bus;
    if (!arguments.pace.empty()) plan.scenario.config.pace = *parsePace(arguments.pace);
    gid_t group = 0;
    if (!arguments.group.empty() && !findGroup(arguments.group, group))
        return fail(cli::kUsage, "there is no group " + arguments.group);
    if (!arguments.group.empty()) plan.group = group;
    if (!arguments.record.empty())
        if (const std::string fault = cli::faultOfNewFile(arguments.record); !fault.empty())
            return fail(cli::kUsage, "--record " + arguments.record + ": " + fault);
    catchStopSignals();
    cli::Progress progress;  // a capture may be large
    if (!plan.scenario.replayFile.empty()) progress.announce("reading " + plan.scenario.replayFile + " ...");
    const std::unique_ptr<CardHost> host = CardHost::start(plan, error);
    progress.clear();
    if (host == nullptr) return fail(cli::kFinding, error);
    if (!arguments.quiet) {
        std::printf("Simulated card at bus %u: every quote is made up. Ctrl-C ends it.\n", plan.scenario.bus);
        std::fflush(stdout);
    }
    run(*host, arguments);
    if (arguments.quiet) return 0;
    if (const std::optional<CardStatus> status = readStatus(host->card()))
        std::fputs(textOf(*status, arguments).c_str(), stdout);
    return cli::finish("vexo-simcard", cli::kFine);
}

void addOptions(const cli::Command& app, Arguments& arguments) {
    app.addOption("scenario", arguments.scenario, "Scenario file; without one the card has an ordinary day")
        .takes("SCENARIO.ini");
    app.addOption("--set", arguments.settings.texts, "Set one key of the scenario; may be given several times")
        .takes("SECTION.KEY=VALUE")
        .takesOneEach();
    app.addOption("--bus", arguments.bus, "Bus number of the card; overrides the scenario's")
        .takes("N")
        .check(cli::wholeNumber(0, kLastBus));
    app.addOption("--pace", arguments.pace, "real, x2 to x1000, or max: as fast as the readers take the quotes")
        .takes("PACE")
        .check({[](const std::string& text) {
            return parsePace(text) ? "" : text + " is none of real, x2 to x1000, max";
        }});
    app.addOption("--group", arguments.group, "Share the card with the members of this group").takes("GROUP");
    app.addOption("--record", arguments.record,
                  "Write all that the card sends to a capture file; if it exists, a free name with a number is used")
        .takes("FILE");
    app.addOption("--seconds", arguments.seconds, "End after this time")
        .takes("SECONDS")
        .check(cli::wholeNumber(1, kLongestHosting));
    app.addFlag("--quiet", arguments.quiet, "Show nothing while hosting");
    app.addFlag("--status", arguments.status, "Show the status of the card at the bus, and end");
    app.addOption("--user", arguments.user, "Whose card --status and --json show; without it your own").takes("USER");
    app.addFlag("--json", arguments.json, "Show the same as JSON, and end");
    cli::addColorOption(app, arguments.color);
    cli::tellStatuses(app, {{cli::kFine, "the card was hosted, or shown"},
                            {cli::kFinding, "it could not be"},
                            {cli::kUsage, "wrong usage, or a wrong scenario"},
                            {cli::kNoCard, "no card to show at this bus"}});
    cli::complete(app, kVexoVersion);
}

// vexo sim run has an option for it.
std::string adviceFor(const std::vector<std::string>& words) {
    const bool isOption = words.front().substr(0, words.front().find('=')) == "--scenario";
    return isOption ? "Name the file without --scenario: vexo-simcard SCENARIO.ini" : "";
}

}  // namespace

int main(int argc, char** argv) {
    cli::guardStandardStreams();
    Arguments arguments;
    const cli::CommandLine line("vexo-simcard", "Hosts a simulated card in shared memory for up to sixteen processes.");
    const cli::Command app = line.command();
    addOptions(app, arguments);
    if (cli::isDumpWanted(argc, argv)) return cli::dumpOptions(app, kVexoVersion);
    if (const std::optional<int> ends = cli::parse(app, cli::wordsOf(argc, argv), adviceFor)) return *ends;
    if (arguments.json || arguments.status) return showStatus(arguments);
    if (!arguments.user.empty())
        return fail(cli::kUsage, "--user: only --status and --json look at the card of another user");
    return hostCard(arguments);
}
