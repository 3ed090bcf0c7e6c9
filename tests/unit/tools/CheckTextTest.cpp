#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iniparser/iniparser.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <regex>

#include "src/config/IniFile.h"
#include "tests/support/TempDir.h"
#include "tools/vexo/check/IniText.h"
#include "tools/vexo/check/Quiet.h"
#include "tools/vexo/check/StartLog.h"

using namespace vexo::check;
using ::testing::HasSubstr;

namespace {

std::string ContentOf(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The keys of the text are those of the library, and a text that the library refuses has a line that says so.
// @return whether the library takes the text
bool ExpectAgreement(const std::string& path, const std::string& text) {
    const IniText lines(path);
    const char* why = nullptr;
    std::unique_ptr<dictionary, void (*)(dictionary*)> library(nullptr, iniparser_freedict);
    {
        const Quiet quiet;
        library.reset(loadIniFile(path, why));
    }
    std::map<std::string, std::string> keys;
    bool refused = lines.lineThatIsTooLong() != 0;
    for (const IniLine& line : lines.lines()) {
        refused = refused || line.kind == IniLine::Kind::kNonsense;
        if (line.kind == IniLine::Kind::kKey) keys[line.section + ":" + line.key] = line.value;
    }
    EXPECT_EQ(refused, library == nullptr) << text;
    if (refused || library == nullptr) return false;
    std::map<std::string, std::string> expected;
    for (int i = 0; i < library->n; ++i)
        if (library->val[i] != nullptr) expected[library->key[i]] = library->val[i];
    EXPECT_EQ(keys, expected) << text;
    return !expected.empty();
}

std::vector<Finding> CheckedLog(const std::string& path) {
    Report report;
    checkLog(path, report);
    return report.findings();
}

class CheckLog : public ::testing::Test {
protected:
    Finding FindingOf(const std::string& text) {
        dir.Write("fpga.log", text);
        const std::vector<Finding> findings = CheckedLog("fpga.log");
        EXPECT_EQ(findings.size(), 1U);
        return findings.empty() ? Finding{} : findings.front();
    }
    test_support::TempDir dir;
};

constexpr char kBegin[] = "[INFO   ][time][log]log is initialized successfully.\n";
constexpr char kRead[] = "[INFO   ][time][fpga]Successful load confie file zce.ini\n";
constexpr char kOpen[] = "[INFO   ][time][fpga]Init dma channel :CUSTOM_CHAN0_DATA success.\n";

}  // namespace

TEST(CheckText, ReadsRandomFilesAsTheLibraryDoes) {
    const std::vector<std::string> parts = {"[config]",    "[ Version ] ",
                                            "[a]b]",       "device",
                                            "DEVICE",      " = ",
                                            "=",           "xilinx0:0",
                                            "\"a ; b\" c", "'",
                                            "\"",          ";",
                                            "#",           " ; note",
                                            "\\",          "\\\n",
                                            "\n",          "\n",
                                            "\n",          "\n\n",
                                            " ",           "\t",
                                            "x",           ":",
                                            "\r",          "insts",
                                            "SR, CF",      std::string(300, 'y')};
    test_support::TempDir dir;
    std::mt19937 random(20250303);
    int taken = 0;
    for (int round = 0; round < 600; ++round) {
        std::string text;
        for (std::size_t n = random() % 30; n > 0; --n) text += parts[random() % parts.size()];
        if (ExpectAgreement(dir.Write("random.ini", text), text)) ++taken;
        if (HasFailure()) return;
    }
    EXPECT_GT(taken, 50) << "most of the texts say nothing";
}

TEST_F(CheckLog, AStartThatSucceededIsANote) {
    for (const char* name : {"/fresh_start.log", "/restart.log"}) {
        const std::vector<Finding> findings = CheckedLog(VEXO_GOLDEN_DIR + std::string(name));
        ASSERT_EQ(findings.size(), 1U);
        EXPECT_EQ(findings.front().level, Level::kNote);
        EXPECT_THAT(findings.front().what, HasSubstr("the last start-up succeeded"));
    }
}

TEST_F(CheckLog, TheFirstLineThatNamesACauseCounts) {
    const Finding finding = FindingOf(
        kBegin + std::string("[ERROR  ][time][fpga]Failed to load file none.ini\n") +
        "[ERROR  ][time][fpga]Config file init fail.\n[ERROR  ][time][fpga]Vexo inner init fail.\n");
    EXPECT_EQ(finding.level, Level::kFatal);
    EXPECT_EQ(finding.line, 2U);
    EXPECT_THAT(finding.what, HasSubstr("ended while reading the configuration: the file is not there"));
    EXPECT_THAT(finding.todo, HasSubstr("give VexoStart the right path"));
}

TEST_F(CheckLog, TheLastStartOfADayCounts) {
    const std::string failed = kBegin + std::string("[ERROR  ][time][fpga]Get dma chan fail!\n");
    const std::string good = std::string(kBegin) + kRead + kOpen;
    EXPECT_EQ(FindingOf(failed + good).level, Level::kNote);
    EXPECT_EQ(FindingOf(good + failed).line, 5U);
}

TEST_F(CheckLog, AnErrorAfterTheStartIsNotItsFailure) {
    EXPECT_EQ(
        FindingOf(std::string(kBegin) + kRead + kOpen + "[ERROR  ][time][fpga]Create Brix service failed!\n").level,
        Level::kNote);
}

TEST_F(CheckLog, AStartThatIsCutOffSaysHowFarItCame) {
    const Finding finding = FindingOf(std::string(kBegin) + kRead);
    EXPECT_EQ(finding.level, Level::kError);
    EXPECT_THAT(finding.what, HasSubstr("after reading the configuration"));
    EXPECT_THAT(FindingOf("no log\n").what, HasSubstr("has no start-up in it"));
}

TEST_F(CheckLog, KnowsEveryLineThatTroubleshootingListsForTheStart) {
    const std::string page = ContentOf(VEXO_TROUBLESHOOTING);
    const std::size_t begin = page.find("## The process ends at start-up");
    const std::string part = page.substr(begin, page.find("\n## ", begin + 1) - begin);
    // These three are on standard output or standard error only.
    const std::string elsewhere =
        "Error! Invalid parameter! Input: ... Error! file or dir: [...] already exist and "
        "havn't write authority. use root try again ? Error! Create file ... fail, errmsg:... ";
    std::size_t known = 0;
    const std::regex row("\n\\| `([^`]+)`");
    for (std::sregex_iterator one(part.begin(), part.end(), row), end; one != end; ++one) {
        const std::string text = (*one)[1];
        const bool inTable = std::any_of(startLines().begin(), startLines().end(),
                                         [&](const StartLine& line) { return text == line.text; });
        EXPECT_TRUE(inTable || elsewhere.find(text) != std::string::npos) << text;
        known += inTable ? 1 : 0;
    }
    EXPECT_GE(known, 9U);
}
