// Where packets were lost, as vexo stat and a capture tell it for an unmodified application, against what the scenario,
// the library's log and the application know.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>

#include "capture/Reader.h"
#include "tests/support/TempDir.h"
#include "tools/data/Losses.h"

namespace {

namespace fs = std::filesystem;

std::string Word(const std::string& path) { return "'" + path + "'"; }

using OnLine = std::function<void(const std::string&)>;

// @param onLine  gets each line before the next one is read: a program that prints faster waits
std::string Output(const std::string& command, const OnLine& onLine = nullptr) {
    std::FILE* pipe = ::popen(("{ " + command + "; } 2>&1").c_str(), "r");
    std::string output;
    if (pipe == nullptr) return output;
    char* line = nullptr;
    std::size_t room = 0;
    for (ssize_t size; (size = ::getline(&line, &room, pipe)) > 0;) {
        output.append(line, static_cast<std::size_t>(size));
        if (onLine) onLine(std::string(line, static_cast<std::size_t>(size)));
    }
    std::free(line);
    EXPECT_EQ(::pclose(pipe), 0) << output;
    return output;
}

std::uint64_t NumberIn(const std::string& text, const std::string& pattern) {
    std::smatch found;
    if (std::regex_search(text, found, std::regex(pattern))) return std::stoull(found[1].matched ? found[1] : found[2]);
    ADD_FAILURE() << "no " << pattern << " in " << text;
    return 0;
}

class LossByCause : public ::testing::Test {
protected:
    LossByCause() {
        fs::create_directories("day-files");
        fs::copy_file(VEXO_OWN_DAY_FILES, "preload.so");  // LD_PRELOAD takes no path with a blank
        fs::copy_file(VEXO_HELD_DISK, "held.so");
        fs::copy_file(VEXO_EXAMPLES_DIR "/demo.ini", "demo.ini");
    }

    // Runs quote_printer on a scenario; @p onLine reads what it prints.
    void Run(const std::string& scenario, const std::string& settings, const std::string& arguments,
             const OnLine& onLine = nullptr, const std::string& tap = "--stats-only") {
        const std::string programs = VEXO_PROGRAM_DIR;
        output = Output(
            "export VEXO_STATS_DIR=pages VEXO_SIM_CARD=embedded VEXO_TEST_HELD_DISK=hold "
            "VEXO_TEST_DAY_FILES=" +
                Word(dir.Path("day-files")) + " LD_PRELOAD=./preload.so:./held.so; " + Word(programs + "/vexo") +
                " sim run --scenario " + Word(VEXO_SCENARIO_DIR "/" + scenario) + " " + settings + " -- " +
                Word(programs + "/vexo") + " tap " + tap + " --keep-page -- " + Word(programs + "/quote_printer") +
                " demo.ini " + arguments,
            onLine);
        ReadPage();
    }
    void ReadPage() {
        const std::string programs = VEXO_PROGRAM_DIR;
        const std::string line = Output(Word(programs + "/vexo") + " stat --dir pages --json");
        const nlohmann::json page = nlohmann::json::parse(line);
        EXPECT_EQ(page["state"], "ended");
        ASSERT_EQ(page["streams"].size(), 1U);
        stream = page["streams"][0];
        back = NumberIn(output, "DMA count info: backpress:([0-9]+),");
        EXPECT_EQ(stream["back_pressure"], back);
        EXPECT_LE(stream["packets"], NumberIn(output, "dma2soft:([0-9]+),"));  // some may be left in the ring
        received = NumberIn(output, "received ([0-9]+) quotes|\"received\".*\"all\":([0-9]+)");
        std::uint64_t counted = 0;
        for (const char* type : {"17", "18", "19", "20"})
            counted += stream["types"].value(type, nlohmann::json{{"packets", 0}})["packets"].get<std::uint64_t>();
        if (stream["lost"]["by_tap"].is_number()) counted += Lost("by_tap");
        EXPECT_EQ(counted, received);
    }
    // The same, recorded. What the capture tells has to be what the page tells.
    void Record(const std::string& scenario, const std::string& settings, const std::string& arguments,
                const OnLine& onLine = nullptr) {
        Run(scenario, settings, arguments, onLine, "--ring 1 --output a.pcapng");
        std::ifstream file("a.pcapng", std::ios::binary);
        capture::Reader reader(file);
        std::uint64_t packets = 0;
        for (capture::Packet packet; reader.next(packet);) ++packets;
        ASSERT_FALSE(reader.damage());
        ASSERT_EQ(reader.interfaces().size(), 1U);
        const auto& counts = reader.interfaces()[0].counts;
        ASSERT_TRUE(counts && counts->card);
        EXPECT_EQ(stream["packets"], packets);
        EXPECT_EQ(counts->received, packets + counts->dropped);
        vexo::data::LossCounts known;
        known.lostBeforeCard = counts->card->beforeCard;
        known.backPressure = counts->card->backPressure;
        known.backPressureByApplication = counts->card->byApplication;
        known.fifoErrors = counts->card->fifoErrors;
        known.errors = counts->card->errors;
        known.byTap = counts->dropped;
        const vexo::data::Losses losses = vexo::data::lossesOf(known);
        for (const vexo::data::LossCause cause : vexo::data::kAllLossCauses) {
            const auto& onPage = stream["lost"][vexo::data::keyOf(cause)];
            EXPECT_EQ(onPage.is_null() ? "-" : onPage.dump(), vexo::data::lossText(losses[cause])) << nameOf(cause);
        }
        EXPECT_GE(counts->card->packets.value_or(0), NumberIn(output, "dma2soft:([0-9]+),"));
        const auto info = nlohmann::json::parse(Output(Word(VEXO_PROGRAM_DIR "/vexo") + " info --json a.pcapng"));
        EXPECT_EQ(info["streams"][0]["lost"], stream["lost"]);
        EXPECT_EQ(info["packets"], packets);
    }
    std::uint64_t Lost(const char* cause) const { return stream["lost"][cause].get<std::uint64_t>(); }

    test_support::TempDir dir;
    std::string output;
    nlohmann::json stream;
    std::uint64_t received = 0;  // quotes, as the application counts them
    std::uint64_t back = 0;      // packets for which the ring had no room, as the library logs them
};

constexpr char kFailedPolls[] =
    " --set 'fault bad.kind=call_fails' --set 'fault bad.call=enyx_hw_a2c_stream_poll_once' --set 'fault bad.nth=1000'"
    " --set 'fault bad.times=5' --set 'fault bad.errno=EIO'";
// No packet comes twice: the ring has no room for both, but one quote is missing.
constexpr char kStalled[] = "--set 'fault lost.times=40' --set 'fault twice.first=1000000'";
// Reads what the application prints as JSON. Holds the disk from the first line of totals on, until the tap's ring of
// 1 MB has overflowed: at the latest when the application ends.
class HoldsTheDisk {
public:
    /// @param stalls  reads nothing for two seconds after the first quote
    explicit HoldsTheDisk(bool stalls) : m_stalls(stalls) {}

    void operator()(const std::string& line) {
        if (m_stalls && line.find("\"quote\"") != std::string::npos) {
            m_stalls = false;
            ::sleep(2);
        }
        if (line.find("\"totals\"") != std::string::npos) {
            const std::uint64_t all = NumberIn(line, "\"all\":([0-9]+)");
            if (m_first == 0) std::ofstream("hold").flush();
            if (m_first == 0) m_first = all;
            if (all - m_first > 12'000) fs::remove("hold");
        }
        if (line.find("\"received\"") != std::string::npos) fs::remove("hold");
    }

private:
    bool m_stalls;
    std::uint64_t m_first = 0;
};

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
    bool hasStalled = false;
    Run("lossy_stream.ini", kStalled, "--seconds 6 --quotes 800", [&](const std::string& line) {
        if (!hasStalled && line.rfind("quote ", 0) == 0) ::sleep(2);
        hasStalled = hasStalled || line.rfind("quote ", 0) == 0;
    });
    EXPECT_GT(back, 0U);
    EXPECT_EQ(Lost("by_application"), back);
    EXPECT_EQ(Lost("by_ring"), 0U);
    EXPECT_EQ(Lost("before_card"), 40U);
    EXPECT_EQ(Lost("by_card"), 17U);
}

TEST_F(LossByCause, ACaptureOfALossyStreamTellsTheSameCausesAsThePage) {
    Record("lossy_stream.ini", std::string(kLargeRing) + " --set 'fault lost.times=40' --set 'fault twice.times=6'",
           "--seconds 3 --quotes 0");
    EXPECT_EQ(Lost("before_card"), 40U);
    EXPECT_EQ(Lost("by_card"), 17U);
    EXPECT_EQ(Lost("by_tap"), 0U);
    EXPECT_EQ(Lost("by_ring") + Lost("by_application"), back);
    EXPECT_EQ(stream["sequence"]["late"], 6);
}

TEST_F(LossByCause, ACaptureOfASmallRingTellsWhatTheRingLost) {
    constexpr std::uint64_t kSent = 200'000;
    Record("slow_reader.ini",
           "--set 'fault end.kind=card_stops' --set 'fault end.after_packets=" + std::to_string(kSent) + "'",
           "--seconds 3 --quotes 0");
    EXPECT_GT(back, 0U);
    EXPECT_EQ(stream["packets"].get<std::uint64_t>() + Lost("by_tap") + back, kSent);
    EXPECT_EQ(Lost("by_ring") + Lost("by_application"), back);
    EXPECT_EQ(Lost("before_card"), 0U);
}

TEST_F(LossByCause, QuotesForWhichTheTapHasNoRoomAreLostByTheTapAlone) {
    Record("lossy_stream.ini", std::string(kLargeRing) + " " + kStalled, "--json --seconds 8 --quotes 0",
           HoldsTheDisk(false));
    EXPECT_GT(Lost("by_tap"), 0U);
    EXPECT_EQ(Lost("before_card"), 40U);
    EXPECT_EQ(Lost("by_card"), 17U);
    EXPECT_EQ(Lost("by_ring") + Lost("by_application"), back);
}

TEST_F(LossByCause, EachOfSeveralCausesHasItsOwnLosses) {
    Record("lossy_stream.ini", kStalled, "--json --seconds 8 --quotes 400", HoldsTheDisk(true));
    EXPECT_GT(back, 0U);
    EXPECT_EQ(Lost("by_application"), back);
    EXPECT_EQ(Lost("by_ring"), 0U);
    EXPECT_GT(Lost("by_tap"), 0U);
    EXPECT_EQ(Lost("before_card"), 40U);
    EXPECT_EQ(Lost("by_card"), 17U);
}
