// The page that tells what a scenario may contain, against what the parser knows.

#include <fstream>
#include <map>
#include <regex>
#include <set>

#include "tests/unit/sim/scenario/ScenarioFixture.h"

using namespace vexo_sim::scenario;

namespace {

std::vector<std::string> readme() {
    std::ifstream page(VEXO_SCENARIO_DIR "/README.md");
    std::vector<std::string> lines;
    for (std::string line; std::getline(page, line);) lines.push_back(line);
    return lines;
}

// The words in backquotes of a text.
std::vector<std::string> quoted(const std::string& text) {
    static const std::regex word("`([^`]*)`");
    std::vector<std::string> words;
    for (std::sregex_iterator match(text.begin(), text.end(), word), end; match != end; ++match)
        words.push_back((*match)[1]);
    return words;
}

// The lines of the table whose first line begins with @p heading, without its two heading lines, cut into cells.
std::vector<std::vector<std::string>> table(const std::string& heading) {
    const std::vector<std::string> lines = readme();
    std::vector<std::vector<std::string>> rows;
    auto line = lines.begin();
    while (line != lines.end() && line->rfind(heading, 0) != 0) ++line;
    EXPECT_NE(line, lines.end()) << "no table begins with " << heading;
    for (line += 2; line < lines.end() && line->rfind("|", 0) == 0; ++line) {
        std::vector<std::string> cells;
        std::size_t start = 1;
        for (std::size_t bar; (bar = line->find('|', start)) != std::string::npos; start = bar + 1)
            cells.push_back(line->substr(start, bar - start));
        rows.push_back(cells);
    }
    return rows;
}

}  // namespace

TEST(ScenarioReadme, ListsTheKeysThatTheParserKnows) {
    std::vector<std::string> told;
    for (const auto& row : table("| section | key |"))
        told.push_back(quoted(row.at(0)).at(0) + quoted(row.at(1)).at(0));
    std::vector<std::string> known;
    for (const KeyName& key : knownKeys()) known.push_back("[" + key.section + "]" + key.key);
    EXPECT_EQ(told, known);
}

TEST(ScenarioReadme, ListsTheKindsOfFaultsWithTheirKeys) {
    std::map<std::string, std::vector<std::string>> told;
    for (const auto& row : table("| kind | keys |")) told[quoted(row.at(0)).at(0)] = quoted(row.at(1));
    std::map<std::string, std::vector<std::string>> known;
    for (const FaultKindName& kind : knownFaultKinds()) known[kind.kind] = kind.keys;
    EXPECT_EQ(told, known);
}

TEST(ScenarioReadme, ExplainsEveryKeyOfAFault) {
    std::set<std::string> told;
    for (const auto& row : table("| key | what it means |"))
        for (const std::string& key : quoted(row.at(0))) told.insert(key);
    std::set<std::string> known;
    for (const FaultKindName& kind : knownFaultKinds()) known.insert(kind.keys.begin(), kind.keys.end());
    EXPECT_EQ(told, known);
}

TEST(ScenarioReadme, ListsTheFilesWithTheirDescriptions) {
    for (const auto& row : table("| file | what it rehearses |")) {
        const std::string name = row.at(0).substr(2, row.at(0).find(']') - 2);
        std::string error;
        const auto scenario = load(VEXO_SCENARIO_DIR "/" + name, error);
        ASSERT_TRUE(scenario.has_value()) << error;
        EXPECT_EQ(" " + scenario->description + " ", row.at(1));
    }
    EXPECT_GT(table("| file | what it rehearses |").size(), 12U);
}
