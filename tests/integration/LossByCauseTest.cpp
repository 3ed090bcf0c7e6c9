// Where packets were lost, as vexo stat tells it for an unmodified application, against what the scenario, the
// library's log and the application know.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>

#include "tests/support/TempDir.h"

namespace {

namespace fs = std::filesystem;

std::string Word(const std::string& path) { return "'" + path + "'"; }

std::string Output(const std::string& command) {
    std::FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    std::string output;
    if (pipe == nullptr) return output;
    char part[4096];
    for (std::size_t n; (n = std::fread(part, 1, sizeof part, pipe)) > 0;) output.append(part, n);
    EXPECT_EQ(::pclose(pipe), 0) << output;
    return output;
}

std::uint64_t NumberIn(const std::string& text, const std::string& pattern) {
    std::smatch found;
    if (std::regex_search(text, found, std::regex(pattern))) return std::stoull(found[1]);
    ADD_FAILURE() << "no " << pattern << " in " << text;
    return 0;
}

class LossByCause : public ::testing::Test {
protected:
    LossByCause() {
        fs::create_directories("day-files");
        fs::copy_file(VEXO_OWN_DAY_FILES, "preload.so");  // LD_PRELOAD takes no path with a blank
        fs::copy_file(VEXO_EXAMPLES_DIR "/demo.ini", "demo.ini");
    }

    // Runs quote_printer on a scenario; @p behind stands behind its command.
    void Run(const std::string& scenario, const std::string& settings, const std::string& arguments,
             const std::string& behind = "") {
        const std::string programs = VEXO_PROGRAM_DIR;
        output = Output("export VEXO_STATS_DIR=pages VEXO_SIM_CARD=embedded VEXO_TEST_DAY_FILES=" +
                        Word(dir.Path("day-files")) + " LD_PRELOAD=./preload.so; " + Word(programs + "/vexo") +
                        " sim run --scenario " + Word(VEXO_SCENARIO_DIR "/" + scenario) + " " + settings + " -- " +
                        Word(programs + "/vexo") + " tap --stats-only --keep-page -- " +
                        Word(programs + "/quote_printer") + " demo.ini " + arguments + behind);
        const std::string line = Output(Word(programs + "/vexo") + " stat --dir pages --json");
        const nlohmann::json page = nlohmann::json::parse(line);
        EXPECT_EQ(page["state"], "ended");
        ASSERT_EQ(page["streams"].size(), 1U);
        stream = page["streams"][0];
        back = NumberIn(output, "DMA count info: backpress:([0-9]+),");
        EXPECT_EQ(stream["back_pressure"], back);
        EXPECT_LE(stream["packets"], NumberIn(output, "dma2soft:([0-9]+),"));  // some may be left in the ring
        const std::uint64_t quotes = NumberIn(output, "received ([0-9]+) quotes");
        std::uint64_t counted = 0;
        for (const char* type : {"17", "18", "19", "20"})
            counted += stream["types"].value(type, nlohmann::json{{"packets", 0}})["packets"].get<std::uint64_t>();
        EXPECT_EQ(counted, quotes);
    }
    std::uint64_t Lost(const char* cause) const { return stream["lost"][cause].get<std::uint64_t>(); }

    test_support::TempDir dir;
    std::string output;
    nlohmann::json stream;
    std::uint64_t back = 0;  // packets for which the ring had no room, as the library logs them
};

constexpr char kFailedPolls[] =
    " --set 'fault bad.kind=call_fails' --set 'fault bad.call=enyx_hw_a2c_stream_poll_once' --set 'fault bad.nth=1000'"
    " --set 'fault bad.times=5' --set 'fault bad.errno=EIO'";
// No packet comes twice: the ring has no room for both, but one quote is missing.
constexpr char kStalled[] = "--set 'fault lost.times=40' --set 'fault twice.first=1000000'";
constexpr char kLargeRing[] = "--set card.ring_bytes=1048576";

}  // namespace

TEST_F(LossByCause, QuotesThatAreLostOnTheWayAreLostBeforeTheCard) {
    Run("lossy_stream.ini",
        std::string(kLargeRing) + " --set 'fault lost.times=40' --set 'fault twice.times=6'" + kFailedPolls,
        "--seconds 4 --quotes 0");
    EXPECT_EQ(Lost("before_card"), 40U);
    EXPECT_EQ(Lost("by_card"), 17U);
    EXPECT_EQ(stream["sequence"]["late"], 6);
    EXPECT_EQ(stream["polls"]["failed"], 5);
    EXPECT_EQ(Lost("by_ring") + Lost("by_application"), back);
    EXPECT_LE(NumberIn(output, "; lost ([0-9]+)"), 40U + back);  // the application counts from its first quote on
}

TEST_F(LossByCause, QuotesForWhichASmallRingHasNoRoomAreLostByIt) {
    // The card stops, so that nothing is lost any more when the library logs its counters.
    constexpr std::uint64_t kSent = 200'000;
    Run("slow_reader.ini",
        "--set 'fault end.kind=card_stops' --set 'fault end.after_packets=" + std::to_string(kSent) + "'",
        "--seconds 3 --quotes 0");
    EXPECT_GT(back, 0U);
    EXPECT_EQ(stream["packets"].get<std::uint64_t>() + back, kSent);
    EXPECT_EQ(Lost("by_ring") + Lost("by_application"), back);
    EXPECT_EQ(Lost("before_card"), 0U);
    EXPECT_EQ(Lost("by_card"), 0U);
}

// The application prints in its callback, and nobody reads what it prints. Its ring overflows once; then it goes on, so
// that the gap is seen.
TEST_F(LossByCause, QuotesThatAStalledCallbackCostsAreLostByTheApplication) {
    Run("lossy_stream.ini", kStalled, "--seconds 6 --quotes 100000",
        " | { while read -r line; do case $line in quote\\ *) break;; esac; done; sleep 2; cat; }");
    EXPECT_GT(back, 0U);
    EXPECT_EQ(Lost("by_application"), back);
    EXPECT_EQ(Lost("by_ring"), 0U);
    EXPECT_EQ(Lost("before_card"), 40U);
    EXPECT_EQ(Lost("by_card"), 17U);
}
