#include "tests/cardtest/CardtestRun.h"

#include <sstream>

#include "tests/hosted/HostProcess.h"
#include "tests/support/TempDir.h"

namespace cardtest_tests {

std::vector<std::string> Outcome::Checks(const std::string& result) const {
    std::vector<std::string> names;
    const nlohmann::json report = Report();
    for (const nlohmann::json& check : report["checks"])
        if (check["result"] == result) names.push_back(check["name"]);
    return names;
}

std::string Outcome::Reason(const std::string& check) const {
    const nlohmann::json report = Report();
    for (const nlohmann::json& entry : report["checks"])
        if (entry["name"] == check) return entry.value("reason", "");
    return "no such check";
}

namespace {

Outcome RunProgram(const char* program, const std::vector<std::string>& options,
                   const std::vector<std::string>& environment) {
    const test_support::TempDir directory;
    const std::string output = directory.Path() + "/out", errors = directory.Path() + "/err";
    std::vector<std::string> command = {"/usr/bin/env"};
    command.insert(command.end(), environment.begin(), environment.end());
    command.push_back(program);
    command.insert(command.end(), options.begin(), options.end());
    Outcome run;
    run.status = hosted::Process(command, output, errors).Wait();
    run.output = hosted::ReadFile(output);
    run.errors = hosted::ReadFile(errors);
    return run;
}

}  // namespace

Outcome RunCardtest(const std::vector<std::string>& options, const std::vector<std::string>& environment) {
    return RunProgram(VEXO_CARDTEST, options, environment);
}

Outcome RunWithoutCardLibrary(const std::vector<std::string>& options, const std::vector<std::string>& environment) {
    return RunProgram(VEXO_BARE_CARDTEST, options, environment);
}

Outcome RunOnBrokenCard(const std::string& broken, const std::string& file, const std::vector<std::string>& options) {
    // Only a library that is linked to can be put in front of the sanitizer's own without this.
    // The directory apart from the name: LD_PRELOAD cannot hold a path with a blank.
    const std::string library = VEXO_BROKEN_CARD;
    const std::size_t slash = library.rfind('/');
    return RunCardtest(options,
                       {"LD_LIBRARY_PATH=" + library.substr(0, slash), "LD_PRELOAD=" + library.substr(slash + 1),
                        "CARDTEST_BREAKS=" + broken, "CARDTEST_FILE=" + file, "ASAN_OPTIONS=verify_asan_link_order=0"});
}

std::vector<std::string> AllNames() {
    std::istringstream list(RunCardtest({"--list"}).output);
    std::vector<std::string> names;
    for (std::string line; std::getline(list, line);)
        if (line.rfind("  ", 0) == 0) names.push_back(line.substr(2, line.find(' ', 2) - 2));
    return names;
}

}  // namespace cardtest_tests
