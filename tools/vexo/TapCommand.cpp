#include <VexoZceMdStatsPage.h>
#include <CLI/CLI.hpp>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <vector>

#include "tools/cli/Duration.h"
#include "tools/cli/Values.h"
#include "tools/data/LayoutFile.h"
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
    std::uint64_t ringLastsUs = stats::kDefaultRingLastsUs;
    bool keepPage = false;
};

// The program may change its directory before the tap creates the first file.
fs::path absoluteOutput(const std::string& output) {
    const fs::path path = fs::absolute(output);
    std::error_code error;
    if (!fs::is_directory(path.parent_path(), error)) {
        throw Failure(kUsage, "--output " + output + ": there is no directory " + path.parent_path().string());
    }
    if (path.filename().empty() || fs::is_directory(path, error)) {
        throw Failure(kUsage, "--output " + output + ": this is a directory, not a file");
    }
    return path;
}

// The program may change its directory before its first stream is opened.
void keepLayouts() {
    const char* const named = std::getenv(data::kLayoutVariable);
    std::string all;
    for (std::string rest = named != nullptr ? named : ""; !rest.empty();) {
        const std::string name = rest.substr(0, rest.find(':'));
        rest.erase(0, name.size() + 1);
        if (name.empty()) continue;
        all += (all.empty() ? "" : ":") + (name == data::kSimulated ? name : fs::absolute(name).string());
    }
    if (!all.empty()) set(data::kLayoutVariable, all);
}

[[noreturn]] void count(const Program& program) {
    preload(statsLibrary());
    become(program);
}

int run(const Options& options, const Program& program) {
    requireProgram(program);
    if (options.keep > 0 && options.rotateMb == 0 && options.rotateSeconds == 0) {
        throw Failure(kUsage,
                      "--keep keeps the newest files, so there must be several: add --rotate or --rotate-every");
    }
    set(tap::kJsonVariable, options.json ? "1" : "0");
    set(stats::kRingLastsVariable, std::to_string(options.ringLastsUs));
    if (options.keepPage) set(vexo_stats::kKeepVariable, "1");
    keepLayouts();
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
std::vector<CLI::Option*> addLimits(CLI::App& tap, Options& options) {
    CLI::Option* rotate = tap.add_option("--rotate", options.rotateMb,
                                         "Start another file before one grows beyond so many megabytes")
                              ->type_name("MB")
                              ->transform(cli::wholeNumber(1, tap::kMaxRotateMb));
    CLI::Option* rotateEvery =
        tap.add_option("--rotate-every", options.rotateSeconds,
                       "Start another file at each multiple of this time: 1h is at each full hour of UTC. TIME is "
                       "seconds, or a number with s, m, h or d")
            ->type_name("TIME")
            ->transform(cli::duration(tap::kMaxSeconds));
    CLI::Option* keep = tap.add_option("--keep", options.keep,
                                       "Keep the newest N files of this and earlier recordings to --output, and "
                                       "remove older ones. Their names then have number and time")
                            ->type_name("N")
                            ->transform(cli::wholeNumber(tap::kLeastKeptFiles, tap::kMostKeptFiles));
    CLI::Option* keepSpace = tap.add_option("--keep-space", options.keepSpaceMb,
                                            "Megabytes of the disk to leave free: older files are removed for it; "
                                            "then nothing is recorded until there is space again")
                                 ->type_name("MB")
                                 ->transform(cli::wholeNumber(0, tap::kMaxKeepSpaceMb))
                                 ->capture_default_str()
                                 ->needs(keep);
    CLI::Option* duration = tap.add_option("--duration", options.durationSeconds,
                                           "End the recording after this time; the program goes on")
                                ->type_name("TIME")
                                ->transform(cli::duration(tap::kMaxSeconds));
    return {rotate, rotateEvery, keep, keepSpace, duration};
}

}  // namespace

void addTap(CLI::App& app, Invocation& invocation) {
    const auto options = std::make_shared<Options>();
    CLI::App* tap = app.add_subcommand("tap", "Run a program and record what its card delivers, as pcapng");
    takeProgram(*tap, "tap", invocation);
    CLI::Option* const output = tap->add_option("--output", options->output,
                                                "File to write; if it exists, a free name with a number is used")
                                    ->type_name("FILE")
                                    ->capture_default_str();
    CLI::Option* const registers = tap->add_flag("--registers", options->registers, "Record every register access too");
    CLI::Option* const ring = tap->add_option(
                                     "--ring", options->ringMb,
                                     "Megabytes of memory for packets on their way to the file, for each stream")
                                  ->type_name("MB")
                                  ->transform(cli::wholeNumber(1, tap::kMaxRingMb))
                                  ->capture_default_str();
    CLI::Option* statsOnly = tap->add_flag("--stats-only", options->statsOnly,
                                           "Record nothing; count for vexo stat what the program receives and loses");
    tap->add_option("--ring-lasts", options->ringLastsUs,
                    "Microseconds until the ring of a stream is full when nobody polls: packets that a longer callback "
                    "costs are lost by the application")
        ->type_name("US")
        ->transform(cli::wholeNumber(1, stats::kMaxRingLastsUs))
        ->capture_default_str();
    tap->add_flag("--keep-page", options->keepPage, "Keep the page of numbers for vexo stat when the program ends");
    std::vector<CLI::Option*> recording = addLimits(*tap, *options);
    recording.insert(recording.end(), {output, registers, ring});
    for (CLI::Option* one : recording) statsOnly->excludes(one);
    tap->add_flag("--json", options->json,
                  "Write what the tap says on standard error as JSON, one object a line: {\"tap\": ...}");
    tap->callback([options, &invocation] {
        invocation.run = [options, &invocation] { return run(*options, invocation.program); };
    });
}

}  // namespace vexo
