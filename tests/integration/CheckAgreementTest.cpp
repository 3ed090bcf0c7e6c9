// What `vexo check` calls fatal ends a start on the simulated card, and nothing else does.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>

#include "tests/integration/SimulatedRun.h"
#include "tests/support/DayFiles.h"
#include "tests/support/TempDir.h"
#include "tests/unit/tools/Program.h"

namespace {

using namespace scenario;
using ::testing::HasSubstr;

std::vector<std::string> ExampleLines() {
    std::ifstream file(VEXO_EXAMPLES_DIR "/zce.ini");
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
}

std::string Joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    return text;
}

class CheckAgreement : public ::testing::Test {
protected:
    // What the check says of a file, or of the log of a start.
    capture::ProgramResult Check(const std::string& words, const std::string& file, const std::string& content) {
        dir.Write(file, content);
        return capture::runProgram(capture::word(VEXO_PROGRAM_DIR "/vexo") + " check " + words + " " + file);
    }

    void ExpectAgreement(const std::string& text, const std::string& mutation) {
        const bool fatal = Check("--config-only", "zce.ini", text).output.find(": fatal: ") != std::string::npos;
        SimulatedRun run;
        run.year = days.year;
        run.month = days.month;
        run.day = days.day;
        run.libraryIni = text;
        run.milliseconds = 1;
        const Sight sight = RunOnSimulatedCard(run);
        EXPECT_EQ(sight.started, !fatal) << mutation << "\n" << sight.outcome.out << sight.outcome.err;
        (sight.started ? started : ended) += 1;

        const capture::ProgramResult after = Check("--after", "fpga.log", sight.outcome.out);
        EXPECT_EQ(after.status, sight.started ? 0 : 1) << mutation << "\n" << after.output;
        EXPECT_THAT(after.output,
                    HasSubstr(sight.started ? "the last start-up succeeded" : ": fatal: the start-up ended"));
    }

    int started = 0;
    int ended = 0;
    DayFiles days;
    test_support::TempDir dir;
};

}  // namespace

TEST_F(CheckAgreement, WhatIsFatalEndsTheStartAndNothingElseDoes) {
    const std::vector<std::string> example = ExampleLines();
    ExpectAgreement(Joined(example), "none");
    std::smatch part;
    std::size_t turn = 0;  // each key gets one of the mutations, those that a start cannot do without get all
    for (std::size_t i = 0; i < example.size(); ++i) {
        if (!std::regex_match(example[i], part, std::regex(R"(([\w.]+) *=.*)"))) continue;
        const std::string name = part[1];
        const bool all = name == "device" || name[0] == '1';
        const std::vector<std::string> mutations = {"x" + example[i], name + " =", name + " = -1", ""};
        for (const std::string& line : all ? mutations : std::vector<std::string>{mutations[turn++ % 4]}) {
            std::vector<std::string> lines = example;
            lines[i] = line;
            ExpectAgreement(Joined(lines), "line " + std::to_string(i + 1) + ": " + line);
        }
    }
    EXPECT_GE(started, 20);
    EXPECT_GE(ended, 9);
}

TEST_F(CheckAgreement, FilesThatTheLibraryRefusesAreFatal) {
    const std::string example = Joined(ExampleLines());
    ExpectAgreement(example + "neither key nor section\n", "nonsense at the end");
    ExpectAgreement("[config\n" + example, "a section without its bracket");
    ExpectAgreement(";" + std::string(1200, 'x') + "\n" + example, "a line that is too long");
    ExpectAgreement(example + "; the end \\", "a backslash at the end");
    ExpectAgreement(std::regex_replace(example, std::regex("\\[config\\]"), "[confg]"), "a misspelt section");
    ExpectAgreement(std::regex_replace(example, std::regex("\\[version\\]"), "[versoin]"), "a misspelt section");
    ExpectAgreement(std::regex_replace(example, std::regex("\\[channel1\\]"), "[channel16]"), "a misspelt section");
    ExpectAgreement(std::regex_replace(example, std::regex("xilinx0:0"), "XILINX0:0"), "capital letters");
    ExpectAgreement(std::regex_replace(example, std::regex("xilinx0:0"), "xilinx0:0x"), "text behind the device");
    ExpectAgreement(std::regex_replace(example, std::regex("xilinx0:0"), "xilinx5:0"), "no such card");
    ExpectAgreement("[config]\ndevice = xilinx0:5\n", "another channel");
}
