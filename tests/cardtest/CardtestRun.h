#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace cardtest_tests {

/// What a run of vexo-cardtest came to.
struct Outcome {
    int status = -1;
    std::string output;
    std::string errors;

    nlohmann::json Report() const { return nlohmann::json::parse(output); }
    /// Names of the checks with a result: "pass", "fail" or "not testable".
    std::vector<std::string> Checks(const std::string& result) const;
    std::string Reason(const std::string& check) const;
};

/// Runs vexo-cardtest. @p environment are settings NAME=VALUE of its own.
Outcome RunCardtest(const std::vector<std::string>& options, const std::vector<std::string>& environment = {});
/// The same where the loader finds no card library.
Outcome RunWithoutCardLibrary(const std::vector<std::string>& options,
                              const std::vector<std::string>& environment = {});

/// The same on a card whose library breaks one promise, see broken_card.cpp; with its notes in @p file.
Outcome RunOnBrokenCard(const std::string& broken, const std::string& file, const std::vector<std::string>& options);

/// Names of all checks, as --list shows them.
std::vector<std::string> AllNames();

}  // namespace cardtest_tests
