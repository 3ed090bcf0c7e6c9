#include <cstdio>
#include <ctime>
#include <memory>

#include "tools/vexo/Command.h"
#include "tools/vexo/report/Collect.h"
#include "tools/vexo/show/Terminal.h"

namespace vexo {
namespace {

constexpr std::size_t kMostLines = 100'000;

struct Options {
    report::Wanted wanted;
    std::string output;
    bool list = false;
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

int run(const Options& options) {
    const std::time_t now = std::time(nullptr);
    const std::string folder = defaultName(now);
    const std::vector<report::Part> parts = report::collect(options.wanted);
    show(parts);
    const int status = terminal::statusOfOutput(0);  // who cannot see the list gets no file
    if (options.list) return status;
    const std::string output = options.output.empty() ? folder + ".tar" : options.output;
    report::writeNew(output, report::tarOf(parts, folder, now));
    std::printf("written to %s%s\n", output.c_str(),
                options.wanted.masked ? "" : "; it has addresses, and passwords if a file has any: see --mask");
    return terminal::statusOfOutput(status);
}

}  // namespace

void addReport(CLI::App& app, Invocation& invocation) {
    const auto options = std::make_shared<Options>();
    options->wanted.lines = 2000;
    CLI::App* report = app.add_subcommand("report", "Gather what support needs into one tar file");
    report->add_option("CONFIG.ini", options->wanted.configs, "Configurations of the programs on this host");
    CLI::Option* list = report->add_flag("--list", options->list, "Show what the file would have; write nothing");
    report->add_option("--output", options->output, "File to write (default: vexo-report_DATE_TIME.tar)")
        ->type_name("FILE")
        ->excludes(list);
    report->add_flag("--mask", options->wanted.masked, "Leave out passwords, IPv4 and MAC addresses");
    report->add_option("--lines", options->wanted.lines, "How many lines of the end of a log")
        ->type_name("N")
        ->check(CLI::Range(std::size_t{1}, kMostLines))
        ->capture_default_str();
    report
        ->add_option("--directory", options->wanted.places.directory,
                     "Working directory of the program, with its log (default: this one)")
        ->type_name("DIR")
        ->check(CLI::ExistingDirectory);
    report->footer(
        "The list that it shows is all that the file has: no core dump, no environment, no arguments of programs.\n"
        "A file that is there is not overwritten. Only its owner can read it.");
    cli::tellStatuses(*report, {{cli::kFine, "fine"},
                                {kFinding, "the file cannot be written"},
                                {kUsage, "wrong usage, or a configuration that cannot be read"}});
    report->callback([options, &invocation] { invocation.run = [options] { return run(*options); }; });
}

}  // namespace vexo
