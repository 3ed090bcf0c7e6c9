#include "tools/cardtest/TestReport.h"

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tools/cli/Color.h"

namespace cardtest {
namespace {

constexpr int kNameWidth = 21;
constexpr std::size_t kVerdictWidth = 14;
constexpr char kDetail[] = "                ";

const char* text(Verdict verdict) {
    switch (verdict) {
        case Verdict::kPass: return "pass";
        case Verdict::kFail: return "FAIL";
        case Verdict::kUntestable: break;
    }
    return "not testable";
}

const char* colorOf(Verdict verdict) {
    switch (verdict) {
        case Verdict::kPass: return cli::kGreen;
        case Verdict::kFail: return cli::kBoldRed;
        case Verdict::kUntestable: break;
    }
    return cli::kYellow;
}

// What writing checks could not put back, each thing once.
std::vector<std::string> leftBehind(const std::vector<CheckResult>& results) {
    std::vector<std::string> left;
    for (const CheckResult& result : results) {
        const bool ran = result.verdict != Verdict::kUntestable || result.reason != "needs --write";
        if (!ran || result.check->leaves == nullptr) continue;
        const std::string thing = result.check->leaves;
        if (std::find(left.begin(), left.end(), thing) == left.end()) left.push_back(thing);
    }
    return left;
}

std::string kindOf(const MetCard& met) {
    if (!met.simulated) return "a card";
    return met.plan.shared ? "a simulated card that its host shares" : "a simulated card of the process's own";
}

}  // namespace

std::string listText() {
    std::ostringstream out;
    const char* group = "";
    for (const Check& check : allChecks()) {
        if (std::strcmp(group, check.group) != 0) out << (group = check.group) << '\n';
        out << "  " << std::left << std::setw(kNameWidth) << check.name << check.promise
            << (check.writes ? " (--write)" : "") << '\n';
    }
    return out.str();
}

std::string listJson() {
    nlohmann::ordered_json checks = nlohmann::ordered_json::array();
    for (const Check& check : allChecks())
        checks.push_back(
            {{"group", check.group}, {"name", check.name}, {"promise", check.promise}, {"write", check.writes}});
    return nlohmann::ordered_json{{"checks", checks}}.dump(2) + '\n';
}

std::string headText(const MetCard& met) {
    std::ostringstream out;
    out << "Bus " << met.plan.bus << ": " << kindOf(met) << ", through " << met.library << '\n';
    if (met.plan.channel >= 0)
        out << "Stream: CUSTOM_CHAN" << met.plan.channel << "_DATA\n";
    else
        out << "Stream: none is free\n";
    out << (met.plan.write ? "The card is written to and reset (--write).\n" : "Nothing on the card is changed.\n");
    return out.str();
}

std::string resultText(const CheckResult& result, const CheckResult* before, bool colored) {
    std::ostringstream out;
    if (before == nullptr || std::strcmp(before->check->group, result.check->group) != 0)
        out << '\n' << result.check->group << '\n';
    const std::string verdict = text(result.verdict);
    out << "  " << cli::painted(verdict, colorOf(result.verdict), colored)
        << std::string(kVerdictWidth - verdict.size(), ' ') << std::left << std::setw(kNameWidth) << result.check->name
        << result.check->promise << '\n';
    if (result.verdict == Verdict::kFail)
        out << kDetail << "expected: " << result.expected << '\n' << kDetail << "seen:     " << result.seen << '\n';
    if (result.verdict == Verdict::kUntestable) out << kDetail << result.reason << '\n';
    return out.str();
}

std::string footText(const std::vector<CheckResult>& results) {
    std::ostringstream out;
    out << '\n'
        << count(results, Verdict::kPass) << " pass, " << count(results, Verdict::kFail) << " fail, "
        << count(results, Verdict::kUntestable) << " not testable\n";
    const std::vector<std::string> left = leftBehind(results);
    if (!left.empty()) out << "Not put back:\n";
    for (const std::string& thing : left) out << "  - " << thing << '\n';
    return out.str();
}

std::string toJson(const MetCard& met, const std::vector<CheckResult>& results) {
    nlohmann::ordered_json checks = nlohmann::ordered_json::array();
    for (const CheckResult& result : results) {
        nlohmann::ordered_json entry = {{"group", result.check->group},
                                        {"name", result.check->name},
                                        {"promise", result.check->promise},
                                        {"result", result.verdict == Verdict::kFail ? "fail" : text(result.verdict)}};
        if (result.verdict == Verdict::kFail) entry.update({{"expected", result.expected}, {"seen", result.seen}});
        if (result.verdict == Verdict::kUntestable) entry["reason"] = result.reason;
        checks.push_back(entry);
    }
    const nlohmann::ordered_json report = {{"library", met.library},
                                           {"simulated", met.simulated},
                                           {"bus", met.plan.bus},
                                           {"channel", met.plan.channel},
                                           {"write", met.plan.write},
                                           {"passed", count(results, Verdict::kPass)},
                                           {"failed", count(results, Verdict::kFail)},
                                           {"not testable", count(results, Verdict::kUntestable)},
                                           {"not put back", leftBehind(results)},
                                           {"checks", checks}};
    // A broken card may hand out any bytes; the report stays valid JSON.
    return report.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

unsigned count(const std::vector<CheckResult>& results, Verdict verdict) {
    return static_cast<unsigned>(std::count_if(results.begin(), results.end(),
                                               [=](const CheckResult& result) { return result.verdict == verdict; }));
}

}  // namespace cardtest
