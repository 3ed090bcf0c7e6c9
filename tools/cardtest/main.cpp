// vexo-cardtest: checks a card, real or simulated, against what the hardware interface promises.

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/Version.h"
#include "tools/cardtest/CardLibrary.h"
#include "tools/cardtest/Helper.h"
#include "tools/cardtest/Runner.h"
#include "tools/cardtest/TestReport.h"
#include "tools/cli/Color.h"
#include "tools/cli/Manner.h"
#include "tools/cli/OptionTree.h"
#include "tools/cli/Progress.h"
#include "tools/cli/Values.h"

using namespace cardtest;

namespace {

constexpr std::uint32_t kLastBus = 4;
constexpr std::uint32_t kLastChannel = 15;

struct Arguments {
    TestPlan plan;
    CheckLimits limits;
    std::string library;
    std::vector<std::string> only;
    std::string color;
    bool list = false;
    bool json = false;
    bool inUse = false;
};

int fail(int status, const std::string& text) { return cli::fail("vexo-cardtest", status, text); }

// The loader says of a file in LD_PRELOAD that it cannot load in words of its own, and goes on without it.
std::string faultOfLibrary(const std::string& path) {
    if (::dlopen(path.c_str(), RTLD_LAZY | RTLD_LOCAL) != nullptr) return {};
    std::string fault = ::dlerror();
    if (fault.rfind(path + ": ", 0) == 0) fault.erase(0, path.size() + 2);
    return fault;
}

// Starts the program anew with the library in LD_PRELOAD, so that every process of a run, helpers included, has the
// same.
int useLibrary(const std::string& library, char** argv) {
    char path[PATH_MAX];
    std::string ignored;
    loadCardLibrary(ignored);
    if (realpath(library.c_str(), path) == nullptr || access(path, R_OK) != 0)
        return fail(cli::kUsage, "--library " + library + ": " + std::strerror(errno));
    if (libraryInUse() == path) return cli::kFine;
    if (const std::string fault = faultOfLibrary(path); !fault.empty())
        return fail(cli::kUsage, "--library " + library + ": this is no library that can be loaded: " + fault);
    // The loader splits LD_PRELOAD at blanks, but not LD_LIBRARY_PATH, where it looks for a name without a directory.
    std::string name = path;
    const bool blank = name.find_first_of(" \t") != std::string::npos;
    if (blank) name.erase(0, name.rfind('/') + 1);
    const char* before = std::getenv("LD_PRELOAD");
    const std::string chain = before != nullptr ? before : "";
    if (chain.rfind(name, 0) == 0)
        return fail(cli::kUsage, "--library " + library + ": the loader does not take the calls from it, but from " +
                                     (libraryInUse().empty() ? "no library" : libraryInUse()));
    if (blank) {
        const char* directories = std::getenv("LD_LIBRARY_PATH");
        const std::string own(path, std::strlen(path) - name.size() - 1);
        setenv("LD_LIBRARY_PATH", directories != nullptr ? (own + ":" + directories).c_str() : own.c_str(), 1);
    }
    setenv("LD_PRELOAD", (name + (chain.empty() ? "" : ":" + chain)).c_str(), 1);
    execv("/proc/self/exe", argv);
    return fail(cli::kUsage, std::string("cannot start anew: ") + std::strerror(errno));
}

bool isWanted(const Check& check, const std::vector<std::string>& only) {
    return only.empty() || std::find(only.begin(), only.end(), check.name) != only.end();
}

std::string unknownCheck(const std::string& name) {
    for (const Check& check : allChecks())
        if (name == check.name) return {};
    return "there is no check " + name + ", see --list";
}

std::vector<CheckResult> runAll(const Arguments& arguments, const TestPlan& plan) {
    std::vector<CheckResult> results;
    const bool colored = cli::isColored(arguments.color);
    cli::Progress progress;
    for (const Check& check : allChecks()) {
        if (!isWanted(check, arguments.only)) continue;
        CheckResult result = runCheck(check, plan, arguments.limits,
                                      [&] { progress.show("checking " + std::string(check.name)); });
        progress.clear();
        const CheckResult* before = results.empty() ? nullptr : &results.back();
        if (!arguments.json) std::fputs(resultText(result, before, colored).c_str(), stdout);
        std::fflush(stdout);
        results.push_back(std::move(result));
    }
    return results;
}

int testCard(const Arguments& arguments) {
    std::string error;
    if (!loadCardLibrary(error)) return fail(cli::kNoCard, "no card to test: " + error);
    const std::optional<MetCard> met = meetCard(arguments.plan, error);
    if (!met) {
        const std::string bus = std::to_string(arguments.plan.bus);
        return fail(cli::kNoCard, "no card to test: " + error +
                                      "\nCheck the bus number (--bus) and the card's driver. To have a simulated card "
                                      "at this bus: vexo-simcard --bus " +
                                      bus);
    }
    if (!met->heldStreams.empty() && !arguments.inUse)
        return fail(cli::kUsage, "--write: another process holds stream " + met->heldStreams +
                                     ", and would lose what it "
                                     "has subscribed. Stop it first, or insist with --in-use.");
    if (!arguments.json) std::fputs(headText(*met).c_str(), stdout);
    const std::vector<CheckResult> results = runAll(arguments, met->plan);
    std::fputs((arguments.json ? toJson(*met, results) : footText(results)).c_str(), stdout);
    return cli::finish("vexo-cardtest", count(results, Verdict::kFail) == 0 ? cli::kFine : cli::kFinding);
}

void addOptions(const cli::Command& app, Arguments& arguments) {
    app.addOption("--bus", arguments.plan.bus, "Bus number of the card")
        .takes("N")
        .check(cli::wholeNumber(0, kLastBus))
        .showsDefault();
    app.addOption("--channel", arguments.plan.channel, "Stream to use, 0 to 15; without it the last one that is free")
        .takes("N")
        .check(cli::wholeNumber(0, kLastChannel));
    app.addOption("--library", arguments.library, "Card library to test, instead of what the loader finds")
        .takes("FILE");
    app.addOption("--only", arguments.only, "Run only these checks").takes("NAME").check({unknownCheck});
    app.addOption("--seconds", arguments.plan.seconds, "How long to wait for packets")
        .takes("SECONDS")
        .check(cli::wholeNumber(1, 3600))
        .showsDefault();
    app.addOption("--limit", arguments.limits.seconds, "How long one check may take")
        .takes("SECONDS")
        .check(cli::wholeNumber(1, 7200))
        .showsDefault();
    app.addFlag("--write", arguments.plan.write, "Also program tables, reset the card and send to it");
    app.addFlag("--in-use", arguments.inUse, "Write even when another process holds a stream of the card");
    app.addFlag("--list", arguments.list, "Show all checks and end");
    app.addFlag("--json", arguments.json, "Show the results as JSON; with --list the checks");
    cli::addColorOption(app, arguments.color);
    app.addFlag("--verbose", arguments.limits.verbose, "Let through what the card's library writes to standard error");
    cli::tellStatuses(app, {{cli::kFine, "no promise is broken"},
                            {cli::kFinding, "one is"},
                            {cli::kUsage, "wrong usage"},
                            {cli::kNoCard, "no card"}});
    cli::complete(app, kVexoVersion);
}

}  // namespace

int main(int argc, char** argv) {
    cli::guardStandardStreams();
    if (const int status = runRole(argc, argv); status >= 0) return status;
    Arguments arguments;
    const cli::CommandLine line("vexo-cardtest",
                                "Checks a card, real or simulated, against what its C interface promises.");
    const cli::Command app = line.command();
    addOptions(app, arguments);
    if (cli::isDumpWanted(argc, argv)) return cli::dumpOptions(app, kVexoVersion);
    if (const std::optional<int> ends = cli::parse(app, cli::wordsOf(argc, argv))) return *ends;
    if (arguments.list) {
        std::fputs((arguments.json ? listJson() : listText()).c_str(), stdout);
        return cli::finish("vexo-cardtest", cli::kFine);
    }
    // Waiting for packets must not exceed the limit of a check.
    arguments.limits.seconds = std::max(arguments.limits.seconds, arguments.plan.seconds + 1);
    if (!arguments.library.empty())
        if (const int status = useLibrary(arguments.library, argv); status != cli::kFine) return status;
    return testCard(arguments);
}
