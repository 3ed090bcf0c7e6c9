#include <VexoZceMdStatsPage.h>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <vector>

#include "tools/cli/Duration.h"
#include "tools/cli/Values.h"
#include "tools/share/SharedRing.h"
#include "tools/stats/Settings.h"
#include "tools/tap/Settings.h"
#include "tools/vexo/Command.h"
#include "tools/vexo/Launch.h"
#include "tools/vexo/Places.h"

namespace vexo {
namespace {

namespace fs = std::filesystem;

struct Options {
    std::string output = tap::kDefaultFile;
    bool registers = false;
    bool json = false;
    std::uint64_t rotateMb = 0;
    std::uint64_t rotateSeconds = 0;
    std::uint64_t keep = 0;
    std::uint64_t keepSpaceMb = tap::kDefaultKeepSpaceMb;
    std::uint64_t durationSeconds = 0;
    std::uint64_t ringMb = tap::kDefaultRingMb;
    bool statsOnly = false;
    bool share = false;
    std::uint64_t ringLastsUs = stats::kDefaultRingLastsUs;
    bool keepPage = false;
};

// The program may change its directory before the tap creates the first file.
fs::path absoluteOutput(const std::string& output) {
    if (const std::string fault = cli::faultOfNewFile(output); !fault.empty())
        throw Failure(kUsage, "--output " + output + ": " + fault);
    return fs::absolute(output);
}

[[noreturn]] void count(const Program& program) {
    preload(statsLibrary());
    become(program);
}

[[noreturn]] void shareWithRelay(const Options& options, const Program& program) {
    set(tap::kJsonVariable, options.json ? "1" : "0");
    set(share::kRingVariable, std::to_string(options.ringMb));
    if (std::getenv(share::kDirectoryVariable) != nullptr) set(share::kDirectoryVariable, share::directory());
    preload(shareLibrary());
    become(program);
}

int run(const Options& options, const Program& program) {
    requireProgram(program);
    if (options.share) shareWithRelay(options, program);
    if (options.keep > 0 && options.rotateMb == 0 && options.rotateSeconds == 0) {
        throw Failure(kUsage,
                      "--keep keeps the newest files, so there must be several: add --rotate or --rotate-every");
    }
    set(tap::kJsonVariable, options.json ? "1" : "0");
    set(stats::kRingLastsVariable, std::to_string(options.ringLastsUs));
    if (options.keepPage) set(vexo_stats::kKeepVariable, "1");
    keepPaths();
    if (options.statsOnly) count(program);
    set(tap::kFileVariable, absoluteOutput(options.output).string());
    set(tap::kRegistersVariable, options.registers ? "1" : "0");
    set(tap::kRotateVariable, std::to_string(options.rotateMb));
    set(tap::kRotateEveryVariable, std::to_string(options.rotateSeconds));
    set(tap::kKeepVariable, std::to_string(options.keep));
    set(tap::kKeepSpaceVariable, std::to_string(options.keepSpaceMb));
    set(tap::kDurationVariable, std::to_string(options.durationSeconds));
    set(tap::kRingVariable, std::to_string(options.ringMb));
    preload(tapLibrary());
    become(program);
}

// How large, how long and how many. All of them belong to a recording.
std::vector<cli::Option> addLimits(const cli::Command& tap, Options& options) {
    const cli::Option rotate = tap.addOption("--rotate", options.rotateMb,
                                             "Start another file before one grows beyond so many megabytes")
                                   .takes("MB")
                                   .check(cli::wholeNumber(1, tap::kMaxRotateMb));
    const cli::Option rotateEvery =
        tap.addOption("--rotate-every", options.rotateSeconds,
                      "Start another file at each multiple of this time: 1h is at each full hour of UTC. TIME is "
                      "seconds, or a number with s, m, h or d")
            .takes("TIME")
            .check(cli::duration(tap::kMaxSeconds));
    const cli::Option keep = tap.addOption("--keep", options.keep,
                                           "Keep the newest N files of this and earlier recordings to --output, and "
                                           "remove older ones. Their names then have number and time")
                                 .takes("N")
                                 .check(cli::wholeNumber(tap::kLeastKeptFiles, tap::kMostKeptFiles));
    const cli::Option keepSpace = tap.addOption("--keep-space", options.keepSpaceMb,
                                                "Megabytes of the disk to leave free: older files are removed for it; "
                                                "then nothing is recorded until there is space again")
                                      .takes("MB")
                                      .check(cli::wholeNumber(0, tap::kMaxKeepSpaceMb))
                                      .showsDefault()
                                      .needs(keep);
    const cli::Option duration = tap.addOption("--duration", options.durationSeconds,
                                               "End the recording after this time; the program goes on")
                                     .takes("TIME")
                                     .check(cli::duration(tap::kMaxSeconds));
    return {rotate, rotateEvery, keep, keepSpace, duration};
}

}  // namespace

void addTap(const cli::Command& app, Invocation& invocation) {
    const auto options = std::make_shared<Options>();
    const cli::Command tap = app.addCommand("tap", "Run a program and record what its card delivers, as pcapng");
    takeProgram(tap, "tap", invocation);
    const cli::Option output = tap.addOption("--output", options->output,
                                             "File to write; if it exists, a free name with a number is used")
                                   .takes("FILE")
                                   .showsDefault();
    const cli::Option registers = tap.addFlag("--registers", options->registers, "Record every register access too");
    const cli::Option ring =
        tap.addOption("--ring", options->ringMb,
                      "Megabytes of memory for packets on their way to the file or the relay, for each stream")
            .takes("MB")
            .check(cli::wholeNumber(1, tap::kMaxRingMb))
            .showsDefault();
    const cli::Option statsOnly = tap.addFlag(
        "--stats-only", options->statsOnly, "Record nothing; count for vexo stat what the program receives and loses");
    const cli::Option share = tap.addFlag("--share", options->share,
                                          "Record nothing; share the packets with vexo relay --beside");
    const cli::Option ringLasts =
        tap.addOption(
               "--ring-lasts", options->ringLastsUs,
               "Microseconds until the ring of a stream is full when nobody polls: packets that a longer callback "
               "costs are lost by the application")
            .takes("US")
            .check(cli::wholeNumber(1, stats::kMaxRingLastsUs))
            .showsDefault();
    const cli::Option keepPage = tap.addFlag("--keep-page", options->keepPage,
                                             "Keep the page of numbers for vexo stat when the program ends");
    std::vector<cli::Option> recording = addLimits(tap, *options);
    recording.insert(recording.end(), {output, registers});
    statsOnly.excludes(ring);
    for (const cli::Option& one : recording) statsOnly.excludes(one);
    for (const cli::Option& one : recording) share.excludes(one);
    for (const cli::Option& one : {statsOnly, ringLasts, keepPage}) share.excludes(one);
    tap.addFlag("--json", options->json,
                "Write what the tap says on standard error as JSON, one object a line: {\"tap\": ...}");
    tap.whenChosen([options, &invocation] {
        invocation.run = [options, &invocation] { return run(*options, invocation.program); };
    });
}

}  // namespace vexo
