// docs/faults.md against the library: every example of the page is run, and what the library logs and the application
// sees is compared with it. VEXO_UPDATE_GOLDEN writes what came of it into the page instead.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>

#include "sim/scenario/Scenario.h"
#include "tests/integration/FaultPage.h"
#include "tests/integration/SimulatedRun.h"

namespace {

using namespace scenario;
using fault_page::Example;
using fault_page::Page;

const std::string kPage = VEXO_FAULT_PAGE;

// The log's own lines, the time masked.
std::vector<std::string> LogLines(const Sight& sight) {
    std::vector<std::string> lines;
    std::istringstream log(sight.outcome.MaskedLog());
    for (std::string line; std::getline(log, line);)
        if (line.rfind('[', 0) == 0) lines.push_back(line);
    return lines;
}

// Lines of @p log beyond those that @p other has too, in order.
std::vector<std::string> Beyond(const std::vector<std::string>& log, const std::vector<std::string>& other, char mark) {
    std::multiset<std::string> common(other.begin(), other.end());
    std::vector<std::string> rest;
    for (const std::string& line : log) {
        const auto found = common.find(line);
        if (found != common.end())
            common.erase(found);
        else
            rest.push_back(mark + line);
    }
    return rest;
}

class FaultPage : public ::testing::Test {
protected:
    Sight RunWith(const std::string& ini) {
        const DayFile dayFile(2067, 1, 1, false);
        SimulatedRun run;
        run.cardIni = "card.ini";
        run.secondsBefore = 1;  // the card has learned its instruments, unless it is told otherwise
        run.libraryIni = page.files.at("zce.ini");
        return RunOnSimulatedCard(run, [&] {
            std::ofstream("list.txt") << page.files.at("list.txt");
            std::ofstream("card.ini") << page.files.at("card.ini") << ini;
        });
    }

    // The example with what really comes of it.
    Example Observed(const Example& example, const std::vector<std::string>& healthy) {
        const Sight sight = RunWith(example.ini);
        const std::vector<std::string> log = LogLines(sight);
        Example observed = example;
        observed.log = Beyond(log, healthy, '+');
        observed.sight = {sight.started ? "start-up: done" : "start-up: ends the process"};
        if (!sight.started) return observed;  // all that follows in a healthy log is missing, of course
        for (const std::string& line : Beyond(healthy, log, '-')) observed.log.push_back(line);
        observed.sight.push_back("quotes: " + std::to_string(sight.quotes));
        observed.sight.push_back("instruments: " + std::to_string(sight.instruments));
        observed.sight.push_back("out of turn: " + std::to_string(sight.outOfTurn));
        return observed;
    }

    const Page page = fault_page::Read(kPage);
};

}  // namespace

TEST_F(FaultPage, SaysWhatEveryExampleBringsAbout) {
    const std::vector<std::string> healthy = LogLines(RunWith(""));
    std::vector<Example> observed;
    for (const Example& example : page.examples) observed.push_back(Observed(example, healthy));
    if (std::getenv("VEXO_UPDATE_GOLDEN") != nullptr) return fault_page::Write(kPage, page, observed);

    for (std::size_t n = 0; n < observed.size(); ++n) {
        const Example& example = page.examples[n];
        SCOPED_TRACE(example.fault + ", line " + std::to_string(example.logLine + 1) + " of " + kPage);
        EXPECT_EQ(observed[n].log, example.log);
        EXPECT_EQ(observed[n].sight, example.sight);
    }
}

TEST_F(FaultPage, HasEveryKindOfFaultAndNoOther) {
    std::set<std::string> kinds, cardKeys;
    for (const auto& kind : vexo_sim::scenario::knownFaultKinds()) kinds.insert(kind.kind);
    for (const auto& key : vexo_sim::scenario::knownKeys())
        if (key.section == "card") cardKeys.insert(key.key);
    std::set<std::string> told;
    for (const std::string& heading : page.faults) {
        EXPECT_TRUE(kinds.count(heading) + cardKeys.count(heading) == 1)
            << heading << " is nothing that a card may have";
        EXPECT_TRUE(told.insert(heading).second) << heading << " is told twice";
    }
    for (const std::string& kind : kinds) EXPECT_EQ(told.count(kind), 1U) << "the page lacks " << kind;
}

TEST_F(FaultPage, ShowsEveryFaultItTellsOf) {
    for (const std::string& heading : page.faults) {
        const auto examples = std::count_if(page.examples.begin(), page.examples.end(),
                                            [&](const Example& example) { return example.fault == heading; });
        EXPECT_GE(examples, 1) << heading << " has no example";
    }
    for (const Example& example : page.examples) {
        EXPECT_NE(example.logLine, 0U) << example.fault << " has an example without its log";
        EXPECT_GT(example.sight.size(), 0U) << example.fault << " has an example without what the application sees";
        const bool named = example.ini.find("kind = " + example.fault + "\n") != std::string::npos ||
                           example.ini.find("\n" + example.fault + " = ") != std::string::npos;
        EXPECT_TRUE(named) << "an example under " << example.fault << " shows something else";
    }
}

// The page's four parts under each heading, in order.
TEST_F(FaultPage, TellsOfEveryFaultWhatItsReadersAsk) {
    const std::vector<std::string> parts = {"**Card:**", "**Library:**", "**Application:**", "**Operator:**"};
    std::vector<std::string> found;
    for (const std::string& line : page.lines)
        for (const std::string& part : parts)
            if (line.rfind(part, 0) == 0) found.push_back(part);
    ASSERT_EQ(found.size(), page.faults.size() * parts.size());
    for (std::size_t n = 0; n < found.size(); ++n) EXPECT_EQ(found[n], parts[n % parts.size()]);
}
