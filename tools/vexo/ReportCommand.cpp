#include <sys/stat.h>
#include <unistd.h>
#include <cstdio>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>

#include "tools/cli/Values.h"
#include "tools/vexo/Command.h"
#include "tools/vexo/report/Collect.h"
#include "tools/vexo/show/Harmless.h"
#include "tools/vexo/show/Terminal.h"

namespace vexo {
namespace {

constexpr std::size_t kMostLines = 100'000;

struct Options {
    report::Wanted wanted;
    std::string output;
    bool list = false;
    bool json = false;
};

std::string defaultName(std::time_t now) {
    std::tm local{};
    ::localtime_r(&now, &local);
    char name[48];
    std::strftime(name, sizeof name, "vexo-report_%Y%m%d_%H%M%S", &local);
    return name;
}

void show(const std::vector<report::Part>& parts) {
    std::size_t total = 0;
    for (const report::Part& part : parts) {
        std::printf("%10zu  %-28s %s\n", part.content.size(), part.name.c_str(), part.what.c_str());
        total += part.content.size();
    }
    std::printf("%10zu  bytes in all\n", total);
}

// @param file  that has been written; empty for none
std::string asJson(const std::vector<report::Part>& parts, const std::string& file, bool masked) {
    nlohmann::ordered_json all = {
        {"file", file}, {"masked", masked}, {"bytes", 0}, {"parts", nlohmann::ordered_json::array()}};
    std::size_t total = 0;
    for (const report::Part& part : parts) {
        all["parts"].push_back({{"name", part.name}, {"what", part.what}, {"bytes", part.content.size()}});
        total += part.content.size();
    }
    all["bytes"] = total;
    return all.dump(1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

// Before anything is gathered and shown.
void requireNewFile(const std::string& output) {
    struct stat there {};
    const std::string fault = ::lstat(output.c_str(), &there) == 0
                                  ? "it exists, and vexo never overwrites; give another name with --output"
                                  : cli::faultOfNewFile(output);
    if (!fault.empty()) throw Failure(kUsage, harmless(output) + ": " + fault);
}

int run(const Options& options) {
    const std::time_t now = std::time(nullptr);
    const std::string folder = defaultName(now);
    const std::string output = options.list ? "" : options.output.empty() ? folder + ".tar" : options.output;
    if (!options.list) requireNewFile(output);
    const std::vector<report::Part> parts = report::collect(options.wanted);
    if (!options.json) show(parts);
    if (options.list && options.json) std::fputs(asJson(parts, "", options.wanted.masked).c_str(), stdout);
    const int status = terminal::statusOfOutput(0);  // who cannot see the list gets no file
    if (options.list) return status;
    report::writeNew(output, report::tarOf(parts, folder, now));
    if (!options.json) {
        std::printf("written to %s%s\n", output.c_str(),
                    options.wanted.masked ? "" : "; it has addresses, and passwords if a file has any: see --mask");
        return terminal::statusOfOutput(status);
    }
    std::fputs(asJson(parts, output, options.wanted.masked).c_str(), stdout);
    try {
        return terminal::statusOfOutput(status);
    } catch (const Failure&) {
        ::unlink(output.c_str());  // the same holds here
        throw;
    }
}

}  // namespace

void addReport(const cli::Command& app, Invocation& invocation) {
    const auto options = std::make_shared<Options>();
    options->wanted.lines = 2000;
    const cli::Command report = app.addCommand("report", "Gather what support needs into one tar file");
    report.addOption("CONFIG.ini", options->wanted.configs, "Configurations of the programs on this host");
    const cli::Option list = report.addFlag("--list", options->list, "Show what the file would have; write nothing");
    report.addOption("--output", options->output, "File to write (default: vexo-report_DATE_TIME.tar)")
        .takes("FILE")
        .excludes(list);
    report.addFlag("--json", options->json, "Show the list as JSON");
    report.addFlag("--mask", options->wanted.masked, "Leave out passwords, IPv4 and MAC addresses");
    report.addOption("--lines", options->wanted.lines, "How many lines of the end of a log")
        .takes("N")
        .check(cli::wholeNumber(1, kMostLines))
        .showsDefault();
    report
        .addOption("--directory", options->wanted.places.directory,
                   "Working directory of the program, with its log (default: this one)")
        .takes("DIR")
        .check(cli::directory());
    report.footer(
        "The list that it shows is all that the file has: no core dump, no environment, no arguments of programs.\n"
        "A file that is there is not overwritten. Only its owner can read it.");
    cli::tellStatuses(report, {{cli::kFine, "fine"},
                               {kFinding, "the file cannot be written to its end"},
                               {kUsage, "wrong usage, a configuration that cannot be read, or a file that is there"}});
    report.whenChosen([options, &invocation] { invocation.run = [options] { return run(*options); }; });
}

}  // namespace vexo
