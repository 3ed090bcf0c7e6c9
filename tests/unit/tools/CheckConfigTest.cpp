#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>

#include "tests/support/TempDir.h"
#include "tools/vexo/check/ConfigCheck.h"
#include "tools/vexo/check/KeyTable.h"

using namespace vexo::check;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace vexo::check {

void PrintTo(const Finding& finding, std::ostream* out) {
    *out << finding.place << ":" << finding.line << " (level " << static_cast<int>(finding.level)
         << "): " << finding.what << "; " << finding.todo;
}

}  // namespace vexo::check

namespace {

using Lines = std::vector<std::string>;

Lines ReadLines(const std::string& path) {
    std::ifstream file(path);
    Lines lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
}

// examples/zce.ini with the keys that it shows as comments.
Lines FullExample() {
    Lines lines = ReadLines(VEXO_EXAMPLES_DIR "/zce.ini");
    for (std::string& line : lines) line = std::regex_replace(line, std::regex("^;(L[15]_)"), "$1");
    return lines;
}

std::string Joined(const Lines& lines) {
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    return text;
}

struct KeyLine {
    std::size_t at;  // in the lines, from 0
    std::string section;
    std::string name;
    const Key* key;
};

std::vector<KeyLine> KeysOf(const Lines& lines) {
    std::vector<KeyLine> keys;
    std::string section;
    std::smatch part;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (std::regex_match(lines[i], part, std::regex(R"(\[(\w+)\])"))) section = part[1];
        if (std::regex_match(lines[i], part, std::regex(R"(([\w.]+) *=.*)")))
            keys.push_back({i, section, part[1], findKey(tableSection(section), lowered(part[1]))});
    }
    return keys;
}

std::size_t HeaderOf(const Lines& lines, const std::string& section) {
    return static_cast<std::size_t>(std::find(lines.begin(), lines.end(), "[" + section + "]") - lines.begin());
}

const char* OutOfRange(Type type) {
    switch (type) {
        case Type::kDevice: return "xilinx0:16";
        case Type::kNumber: return "-1";
        case Type::kCpu: return "1024";
        case Type::kPort: return "65536";
        case Type::kAddress: return "192.168.50.256";
        case Type::kMulticast: return "239.300.50.1";
        case Type::kMac: return "01:00:5e:03:32:100";
        case Type::kSwitch: return "Disabled";
        case Type::kVersion: return "123456789";
        case Type::kInsts: return "sr505";
        case Type::kReceive: break;
    }
    return "RECV";
}

class CheckConfig : public ::testing::Test {
protected:
    std::vector<Finding> Findings(const std::string& text) {
        dir.Write("zce.ini", text);
        Report report;
        facts = checkConfig("zce.ini", report);
        return report.findings();
    }
    std::vector<Finding> Findings(const Lines& lines) { return Findings(Joined(lines)); }

    // Exactly one line of the file is at fault, and the finding names the key.
    void ExpectFoundAt(const Lines& lines, std::size_t at, const std::string& name, const std::string& mutation) {
        const std::vector<Finding> findings = Findings(lines);
        const auto sound = [&](const Finding& one) {
            return one.place == "zce.ini" && one.line == at + 1 &&
                   lowered(one.what + one.todo).find(lowered(name)) != std::string::npos;
        };
        EXPECT_TRUE(std::any_of(findings.begin(), findings.end(), sound))
            << mutation << " of " << name << " in line " << at + 1 << ": " << ::testing::PrintToString(findings);
    }

    const Lines example = FullExample();
    const std::vector<KeyLine> keys = KeysOf(example);
    test_support::TempDir dir;
    ConfigFacts facts;
};

}  // namespace

TEST_F(CheckConfig, TheExamplesHaveNoFindings) {
    EXPECT_THAT(Findings(ReadLines(VEXO_EXAMPLES_DIR "/zce.ini")), IsEmpty());
    EXPECT_THAT(Findings(ReadLines(VEXO_EXAMPLES_DIR "/demo.ini")), IsEmpty());
    EXPECT_THAT(Findings(example), IsEmpty());
    EXPECT_EQ(facts.device.channel, 0U);
    EXPECT_EQ(keys.size(), 33U) << "the mutations below are of every key";
}

TEST_F(CheckConfig, FindsEachMisspeltKeyAndNamesTheRightOne) {
    for (const KeyLine& one : keys) {
        const std::string& name = one.name;
        for (const std::string& wrong : {name.substr(0, name.size() - 1), name[1] + (name[0] + name.substr(2)),
                                         name.substr(0, 2) + "x" + name.substr(2)}) {
            Lines lines = example;
            lines[one.at] = wrong + lines[one.at].substr(name.size());
            ExpectFoundAt(lines, one.at, "write " + std::string(one.key->name), "misspelling " + wrong);
        }
    }
}

TEST_F(CheckConfig, FindsEachEmptyValue) {
    for (const KeyLine& one : keys) {
        Lines lines = example;
        lines[one.at] = one.name + " =";
        ExpectFoundAt(lines, one.at, one.name, "emptying");
    }
}

TEST_F(CheckConfig, FindsEachValueOutOfRange) {
    for (const KeyLine& one : keys) {
        Lines lines = example;
        lines[one.at] = one.name + " = " + OutOfRange(one.key->type);
        ExpectFoundAt(lines, one.at, one.key->type == Type::kInsts ? "insts" : one.name, "value out of range");
    }
}

TEST_F(CheckConfig, FindsEachDoubledKey) {
    for (const KeyLine& one : keys) {
        Lines lines = example;
        lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(one.at) + 1, lines[one.at]);
        ExpectFoundAt(lines, one.at + 1, one.name, "doubling");
    }
}

TEST_F(CheckConfig, FindsEachKeyInAnotherSection) {
    for (const KeyLine& one : keys) {
        Lines lines = example;
        lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(one.at));
        const std::size_t to = HeaderOf(lines, one.section == "version" ? "config" : "version") + 1;
        lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(to), example[one.at]);
        ExpectFoundAt(lines, to, "move it to [" + std::string(one.key->section), "moving " + one.name);
    }
}

TEST_F(CheckConfig, FindsEachMissingKeyThatIsNeeded) {
    for (const KeyLine& one : keys) {
        Lines lines = example;
        lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(one.at));
        const Type type = one.key->type;
        const bool isOutput = one.key->byDefault == std::string("no output");
        if (type == Type::kNumber || type == Type::kCpu || type == Type::kSwitch || one.name == "ips" ||
            one.name == "spd") {
            EXPECT_THAT(Findings(lines), IsEmpty()) << one.name;
        } else if (isOutput) {
            const auto first = std::find_if(lines.begin(), lines.end(), [&](const std::string& line) {
                return std::regex_search(line, std::regex("^" + one.name.substr(0, 2) + "_(DST|SRC)"));
            });
            ExpectFoundAt(lines, static_cast<std::size_t>(first - lines.begin()), one.name, "deleting");
        } else if (type == Type::kInsts || type == Type::kReceive) {
            const auto other = std::find_if(keys.begin(), keys.end(), [&](const KeyLine& key) {
                return key.section == one.section && key.name == (one.name == "insts" ? "options" : "insts");
            });
            ExpectFoundAt(lines, other->at - (other->at > one.at ? 1 : 0), one.name, "deleting");
        } else {
            ExpectFoundAt(lines, HeaderOf(lines, one.section), one.name, "deleting");
        }
    }
}

TEST_F(CheckConfig, FindsEachMisspeltSectionOnceWithAllItsKeys) {
    for (const char* section : {"config", "version", "channel0", "channel1"}) {
        Lines lines = example;
        const std::size_t at = HeaderOf(lines, section);
        lines[at] = "[x" + std::string(section) + "]";
        ExpectFoundAt(lines, at, "[" + std::string(section) + "]", "misspelling");
        EXPECT_EQ(Findings(lines).size(), 1U);
    }
}

TEST_F(CheckConfig, FindsBothOfTwoFaults) {
    for (std::size_t i = 0; i + 1 < keys.size(); ++i) {
        Lines lines = example;
        lines[keys[i].at] = keys[i].name + " =";
        lines[keys[i + 1].at] = "#x" + lines[keys[i + 1].at];
        lines[keys[i + 1].at].erase(0, 1);
        ExpectFoundAt(lines, keys[i].at, keys[i].name, "the first fault, emptying");
        ExpectFoundAt(lines, keys[i + 1].at, keys[i + 1].name, "the second fault, misspelling");
    }
}

TEST_F(CheckConfig, FindsWhatTheLibraryDoesNotRead) {
    const struct {
        const char* line;
        const char* text;
    } cases[] = {
        {"device = xilinx0:0 and more", "only the front of \"xilinx0:0 and more\" is read"},
        {"device = Xilinx0:0", "each start logs an error for its capital letters"},
        {"cpucore = 08", "only \"0\" of \"08\" is read"},
        {"cpucore = 010", "it is octal: 8"},
        {"BIN_DELAY_TIME = 15 min", "only \"15\" of \"15 min\" is read"},
        {"BIN_DELAY_TIME = fifteen", "is no number and counts as 0"},
        {"L5_IPA = 239.3.50.1.7", "is no address"},
        {"L5_IPA = 10.3.50.1", "is no multicast address"},
        {"L5_IPA = \"239.3.50.1\" 7", "behind the closing quote is not read"},
        {"L5_IPA = \"239.3.50.1", "the closing quote is missing"},
        {"L5_IPA = 239.3.50.1;A", "a comment begins inside the value"},
        {"what is this", "this is neither a section nor a key"},
        {"; a comment \\", "makes the next line part of this comment"},
    };
    for (const auto& c : cases) {
        const std::string line = c.line;
        Lines lines = ReadLines(VEXO_EXAMPLES_DIR "/demo.ini");
        const std::string name = line.substr(0, line.find(' '));
        const auto same = std::find_if(lines.begin(), lines.end(),
                                       [&](const std::string& one) { return one.compare(0, name.size(), name) == 0; });
        const bool replaces = same != lines.end() && name.size() > 4;
        const std::size_t at = replaces ? static_cast<std::size_t>(same - lines.begin()) : 4;
        if (replaces) lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(at));
        lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(at), line);
        ExpectFoundAt(lines, at, c.text, "the line");
    }
}

TEST_F(CheckConfig, ALineThatIsTooLongEndsTheStartAndIsNamed) {
    Lines lines = example;
    lines[2] = ";" + std::string(1100, 'x');
    const std::vector<Finding> findings = Findings(lines);
    ASSERT_FALSE(findings.empty());
    EXPECT_EQ(findings.front().level, Level::kFatal);
    const auto isAtTheLine = [](const Finding& one) {
        return one.line == 3 && one.what.find("too long") != one.what.npos;
    };
    EXPECT_TRUE(std::any_of(findings.begin(), findings.end(), isAtTheLine)) << ::testing::PrintToString(findings);
}

TEST_F(CheckConfig, ABackslashAtTheEndOfTheFileLosesItsLastLine) {
    Lines lines = ReadLines(VEXO_EXAMPLES_DIR "/demo.ini");
    lines.back() += " \\";
    ExpectFoundAt(lines, lines.size() - 1, "the library drops this end of the file", "the backslash");
}

TEST_F(CheckConfig, NamesTheByteOrderMarkOfAnEditor) {
    const std::vector<Finding> findings = Findings("\xEF\xBB\xBF; note\r\n[config]\r\ndevice = xilinx0:3\r\n");
    ASSERT_EQ(findings.size(), 1U) << ::testing::PrintToString(findings);
    EXPECT_EQ(findings.front().level, Level::kFatal);
    EXPECT_THAT(findings.front().what, HasSubstr("byte-order mark"));
}

TEST_F(CheckConfig, AKeyAboveAllSectionsIsNotRead) {
    Lines lines = example;
    lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(keys.front().at));
    lines.insert(lines.begin(), "device = xilinx0:0");
    const std::vector<Finding> findings = Findings(lines);
    ASSERT_EQ(findings.size(), 1U) << ::testing::PrintToString(findings);
    EXPECT_EQ(findings.front().level, Level::kFatal);
    EXPECT_THAT(findings.front().what, HasSubstr("no section is above device"));
}

TEST_F(CheckConfig, TakesContinuedLinesAsOneAndNamesTheFirst) {
    EXPECT_THAT(Findings("[config]\ndevice = xilinx0:\\\n3\n"), IsEmpty());
    EXPECT_EQ(facts.device.channel, 3U);
    const std::vector<Finding> findings = Findings("[config]\ncpucore = \\\n\\\n 5000\ndevice = xilinx0:3\n");
    ASSERT_EQ(findings.size(), 1U) << ::testing::PrintToString(findings);
    EXPECT_EQ(findings.front().line, 2U);
}

TEST_F(CheckConfig, ChannelsOtherThanTheMasterNeedTheirDeviceAlone) {
    EXPECT_THAT(Findings("[config]\ndevice = xilinx0:7\n"), IsEmpty());
    EXPECT_EQ(Findings("[config]\ncpucore = -1\n").front().level, Level::kFatal);
}

TEST_F(CheckConfig, FindsRulesThatSelectNothing) {
    const struct {
        const char* rules;
        const char* text;
    } cases[] = {
        {"ips = norecv\nspd = norecv", "selects nothing; the channel gets no quotes"},
        {"insts = ,,\noptions = recv", "the list names nothing"},
        {"insts = SR, sr\noptions = recv", "sr selects nothing"},
        {"insts = SR,\tCF\noptions = recv", "CF selects nothing"},
        {"insts = SR, SPD-SR505/SR509\noptions = recv", "come with spd = recv"},
        {"insts = CF, SR505C6000\noptions = recv", "options come with options = recv and their future"},
        {"insts = SR505, SR505C6000\noptions = norecv", "options come with options = recv and their future"},
        {"insts = Small\noptions = recv", "so the channel gets every future"},
        {"insts = SR, SR\noptions = recv", "in the list twice"},
    };
    for (const auto& c : cases) {
        const std::string text = "[config]\ndevice = xilinx0:1\n[channel1]\n" + std::string(c.rules) + "\n";
        const std::vector<Finding> findings = Findings(text);
        ASSERT_EQ(findings.size(), 1U) << c.rules << ::testing::PrintToString(findings);
        EXPECT_THAT(findings.front().what, HasSubstr(c.text));
    }
    EXPECT_THAT(Findings("[config]\ndevice = xilinx0:1\n[channel1]\ninsts = SR505, SR505C6000\noptions = recv\n"),
                IsEmpty());
}

TEST_F(CheckConfig, OptionsThatAreMissingEndTheRulesOfLaterChannels) {
    const std::string rest = "options = recv\n";
    const std::string text = "[config]\ndevice = xilinx0:1\n[channel7]\ninsts = SR\n" + rest +
                             "[channel2]\ninsts = CF\nips = recv\n[channel1]\ninsts = TA\n" + rest +
                             "[channel10]\nips = recv\n";
    const std::vector<Finding> findings = Findings(text);
    ASSERT_EQ(findings.size(), 1U) << ::testing::PrintToString(findings);
    EXPECT_EQ(findings.front().line, 7U);
    EXPECT_EQ(findings.front().what,
              "[channel2] options is missing beside insts; the library ends reading rules here: of this channel it "
              "takes insts, not ips and spd, and nothing of the later channels: [channel7] (line 3) and [channel10] "
              "(line 12)");
    EXPECT_EQ(findings.front().todo, "add options = recv or options = norecv to [channel2]");
}

TEST_F(CheckConfig, FindsFeedsThatBringNothing) {
    Lines lines = example;
    for (std::string& line : lines) {
        line = std::regex_replace(line, std::regex("^(czce_level\\d *=).*"), "$1 disabled");
        line = std::regex_replace(line, std::regex("^(L5_IPB *=).*"), "$1 239.3.50.1");
    }
    const std::vector<Finding> findings = Findings(lines);
    ASSERT_EQ(findings.size(), 2U) << ::testing::PrintToString(findings);
    EXPECT_THAT(findings[0].what, HasSubstr("both feeds are disabled"));
    EXPECT_THAT(findings[1].what, HasSubstr("the same address"));
}

TEST(KeyTable, HasTheKeysOfTheExample) {
    std::vector<std::string> written;
    for (const KeyLine& one : KeysOf(FullExample())) {
        ASSERT_NE(one.key, nullptr) << one.name;
        EXPECT_EQ(one.name, one.key->name);
        const std::string name = std::string(one.key->section) + ":" + one.name;
        if (std::find(written.begin(), written.end(), name) == written.end()) written.push_back(name);
    }
    std::vector<std::string> known;
    for (const Key& key : allKeys()) known.push_back(std::string(key.section) + ":" + key.name);
    EXPECT_EQ(written, known);
}

TEST(KeyTable, IsWhatThePageShows) {
    std::vector<std::string> rows;
    for (const std::string& line : ReadLines(VEXO_KEY_PAGE))
        if (line.compare(0, 3, "| `") == 0) rows.push_back(line);
    std::vector<std::string> expected;
    for (const Key& key : allKeys())
        expected.push_back(std::string("| `") + key.name + "` | " + nameOf(key.type) + " | " + key.range + " | " +
                           key.byDefault + " | `" + key.example + "` | " + key.meaning + " | " + key.logged + " |");
    EXPECT_EQ(rows, expected);
}

TEST(KeyTable, TheExampleOfEachKeyIsSound) {
    for (const Key& key : allKeys()) {
        IniLine line;
        line.value = key.example;
        line.text = std::string(key.name) + " = " + key.example;
        EXPECT_FALSE(checkValue(key, line).has_value()) << key.name;
    }
}
