// A card that breaks one promise fails the check of that promise, and no other.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "tests/cardtest/CardtestRun.h"
#include "tests/hosted/HostProcess.h"
#include "tests/support/TempDir.h"

namespace cardtest_tests {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::string CheckOf(const std::string& broken) { return broken.substr(0, broken.find(' ')); }

// All checks, but of those that take seconds by their nature only the one that is concerned.
std::vector<std::string> Options(const std::string& broken) {
    std::vector<std::string> options = {"--json", "--write", "--seconds", "1", "--only"};
    for (const std::string& name : AllNames()) {
        const bool slow = name == "reset-register" || name == "reset-counters" || name == "map-on-request";
        if (!slow || name == CheckOf(broken)) options.push_back(name);
    }
    return options;
}

Outcome RunBroken(const std::string& broken, const std::vector<std::string>& options) {
    const test_support::TempDir directory;
    return RunOnBrokenCard(broken, directory.Path("notes"), options);
}

struct BrokenEmbeddedCard : ::testing::TestWithParam<const char*> {
    // Just after midnight the exchange's time is a small number, in which a field that is too wide does not show.
    void SetUp() override {
        setenv("VEXO_SIM_CARD", "embedded", 1);
        setenv("VEXO_SIM_SET", "card.clock=09:30:00\n", 1);
    }
    void TearDown() override {
        unsetenv("VEXO_SIM_CARD");
        unsetenv("VEXO_SIM_SET");
    }
};

// Each is the name of the check that must fail, with a word more where a promise can be broken in several ways.
constexpr const char* kBreakableAlone[] = {
    "filter-create",
    "filter-empty",
    "filter-index",
    "filter-name",
    "filter-own",
    "enumeration-count",
    "enumeration-room",
    "enumeration-none",
    "enumeration-failure",
    "enumeration-again",
    "card-opens",
    "card-descriptor",
    "space-found",
    "space-again",
    "space-second",
    "core-root",
    "core-registers",
    "core-unknown",
    "lock-again",
    "lock-threads",
    "read-widths",
    "read-offsets",
    "read-again",
    "read-threads",
    "register-time",
    "register-date",
    "date-kept",
    "version-verdict",
    "data-kept",
    "write-fields",
    "write-wide",
    "table-words",
    "table-masks",
    "table-ids",
    "reset-root",
    "reset-register",
    "reset-counters",
    "a2c-busy",
    "a2c-busy errno",
    "a2c-again",
    "a2c-second",
    "a2c-mtu",
    "a2c-counters",
    "a2c-poll",
    "a2c-poll result",
    "a2c-packets",
    "a2c-context",
    "a2c-count",
    "a2c-threads poll",
    "a2c-threads destroy",
    "quotes-by-mask",
    "map-on-request",
    "map-on-request content",
    "c2a-again",
    "c2a-mtu",
    "c2a-mtu crash",
    "c2a-send",
};

constexpr const char* kBreakableAmongProcesses[] = {
    "stream-processes",
    "lock-processes",
    "stream-dead-holder",
    "lock-dead-holder",
};

TEST_P(BrokenEmbeddedCard, FailsTheCheckOfThatPromiseOnly) {
    const Outcome run = RunBroken(GetParam(), Options(GetParam()));
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.Checks("fail"), ElementsAre(CheckOf(GetParam()))) << run.output << run.errors;
}

std::string TestName(const ::testing::TestParamInfo<const char*>& info) {
    std::string name = info.param;
    for (char& c : name)
        if (c == '-' || c == ' ') c = '_';
    return name;
}

INSTANTIATE_TEST_SUITE_P(Breaking, BrokenEmbeddedCard, ::testing::ValuesIn(kBreakableAlone), TestName);

struct BrokenHostedCard : BrokenEmbeddedCard {
    void SetUp() override { setenv("VEXO_SIM_CARD", "hosted", 1); }
    hosted::CardDirectory directory;
};

TEST_P(BrokenHostedCard, FailsTheCheckOfThatPromiseOnly) {
    const hosted::Process host = hosted::StartHost({});
    const Outcome run = RunBroken(GetParam(), Options(GetParam()));
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.Checks("fail"), ElementsAre(CheckOf(GetParam()))) << run.output << run.errors;
}

INSTANTIATE_TEST_SUITE_P(Breaking, BrokenHostedCard, ::testing::ValuesIn(kBreakableAmongProcesses), TestName);

TEST_F(BrokenEmbeddedCard, ThatHangsFailsTheCheckThatItHangs) {
    const Outcome run = RunBroken("c2a-mtu hang",
                                  {"--json", "--seconds", "1", "--limit", "2", "--only", "c2a-mtu", "core-root"});
    EXPECT_THAT(run.Checks("fail"), ElementsAre("c2a-mtu"));
    EXPECT_THAT(run.output, HasSubstr("\"no end within 2 s\""));
    EXPECT_THAT(run.Checks("pass"), ElementsAre("core-root"));
}

TEST_F(BrokenEmbeddedCard, ThatCrashesIsToldWithTheSignal) {
    const Outcome run = RunBroken("c2a-mtu crash", {"--json", "--only", "c2a-mtu"});
    EXPECT_THAT(run.output, HasSubstr("the process died of signal 6 (Aborted)"));
}

TEST_F(BrokenEmbeddedCard, IsToldWithWhatWasExpectedAndWhatWasSeen) {
    const Outcome run = RunBroken("a2c-busy errno", {"--only", "a2c-busy"});
    EXPECT_THAT(run.output, HasSubstr("expected: errno 16 (Device or resource busy)\n"
                                      "                seen:     errno 11 (Resource temporarily unavailable)\n"));
}

TEST(EveryCheck, HasACardThatFailsIt) {
    std::vector<std::string> names = AllNames();
    const auto isBroken = [](const std::string& name) {
        const auto breaks = [&](const char* broken) { return CheckOf(broken) == name; };
        return std::any_of(std::begin(kBreakableAlone), std::end(kBreakableAlone), breaks) ||
               std::any_of(std::begin(kBreakableAmongProcesses), std::end(kBreakableAmongProcesses), breaks);
    };
    EXPECT_FALSE(names.empty());
    for (const std::string& name : names) EXPECT_TRUE(isBroken(name)) << name;
}

}  // namespace
}  // namespace cardtest_tests
