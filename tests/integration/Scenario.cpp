#include "tests/integration/Scenario.h"

#include <enyx-sim/enyx_sim.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>

#include "tests/support/CaptureOutput.h"
#include "tests/support/TempDir.h"

namespace scenario {

namespace {

constexpr int kAssertionFailed = 99;
constexpr char kDayFileDirectory[] = "VEXO_TEST_DAY_FILES";  // tests/scripts/own_day_files.c reads it

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

void AppendBigEndian16(std::string& bytes, std::size_t value) {
    bytes += static_cast<char>(value >> 8 & 0xFF);
    bytes += static_cast<char>(value & 0xFF);
}

}  // namespace

std::vector<std::string> Outcome::Log() const {
    static const std::regex form(R"(\[([A-Z]+) *\]\[[0-9]{8}-[0-9:]{8}\]\[fpga\](.*))");
    std::vector<std::string> log;
    for (const std::string& line : Lines(out)) {
        std::smatch parts;
        if (std::regex_match(line, parts, form)) log.push_back(parts[1].str() + ' ' + parts[2].str());
    }
    return log;
}

std::string Outcome::MaskedLog() const {
    static const std::regex time(R"(\[[0-9]{8}-[0-9:]{8}\])");
    return std::regex_replace(out, time, "[time]");
}

std::size_t Outcome::CountLogged(const std::string& line) const {
    const auto log = Log();
    return static_cast<std::size_t>(std::count(log.begin(), log.end(), line));
}

bool Outcome::Logged(const std::string& line) const { return CountLogged(line) > 0; }

Outcome RunInChild(const std::function<int()>& body) {
    Outcome outcome;
    const test_support::TempDir directory;
    test_support::CaptureOutput out(1);
    test_support::CaptureOutput err(2);
    std::fflush(stdout);
    const pid_t child = ::fork();
    if (child == 0) {
        const int status = body();
        std::exit(::testing::Test::HasFailure() ? kAssertionFailed : status);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFEXITED(status)) outcome.exitStatus = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) outcome.signal = WTERMSIG(status);
    outcome.out = out.Stop();
    outcome.err = err.Stop();
    if (outcome.exitStatus == kAssertionFailed) ADD_FAILURE() << outcome.out;
    return outcome;
}

std::string WriteIni(const std::string& extra, const std::string& device) {
    std::ofstream("zce.ini") << "[version]\n1.1.2.12 = 1\n1.1.2.13 = 13\n[config]\ndevice = " << device << "\n"
                             << extra;
    return "zce.ini";
}

DayFile::DayFile(int year, int month, int day, bool evening) {
    char name[64];
    std::snprintf(name, sizeof name, "/.zce_%04d%02d%02d_%s", year, month, day, evening ? "pm" : "am");
    m_path = m_directory.Path() + name;
    ::setenv(kDayFileDirectory, m_directory.Path().c_str(), 1);
}

DayFile::~DayFile() { ::unsetenv(kDayFileDirectory); }

void DayFile::Write(const std::string& content) const { std::ofstream(m_path) << content; }

std::string DayFile::Read() const {
    std::ostringstream content;
    content << std::ifstream(m_path).rdbuf();
    return content.str();
}

std::string MarketDataPacket(std::uint32_t type, const std::string& payload) {
    std::string packet(12, '\0');
    for (unsigned int i = 0; i < 4; ++i) packet[i] = static_cast<char>(type >> (8 * i) & 0xFF);
    return packet + payload;
}

std::string ContractMapPacket(const std::vector<std::pair<std::string, std::uint16_t>>& instruments) {
    std::string area;
    for (const auto& [id, index] : instruments) {
        const bool first = area.empty();
        AppendBigEndian16(area, id.size() + (first ? 9 : 5));
        if (first) area += std::string(4, '\0');
        area += '\x01';
        AppendBigEndian16(area, index);
        area += id;
    }
    std::string packet = MarketDataPacket(2, "");
    AppendBigEndian16(packet, area.size());
    return packet + area;
}

void Push(std::uint32_t channel, const std::string& packet) {
    ASSERT_EQ(enyx_sim_push(0, channel, packet.data(), static_cast<std::uint32_t>(packet.size()), 0), 0);
}

void SmallCard(const std::vector<std::pair<std::string, std::uint16_t>>& oneLeg,
               const std::vector<std::pair<std::string, std::uint16_t>>& combine) {
    enyx_sim_config config;
    enyx_sim_default_config(&config);
    config.instruments = ENYX_SIM_INSTRUMENTS_NONE;
    ASSERT_EQ(enyx_sim_power_cycle(&config), 0);
    std::vector<enyx_sim_instrument> list;
    for (std::uint32_t table = 0; table < 2; ++table) {
        for (const auto& [id, row] : table == 0 ? oneLeg : combine) {
            enyx_sim_instrument entry{};
            entry.table = table;
            entry.row = row;
            std::snprintf(entry.id, sizeof entry.id, "%s", id.c_str());
            list.push_back(entry);
        }
    }
    ASSERT_EQ(enyx_sim_set_instruments(0, list.data(), list.size()), 0);
    ASSERT_EQ(enyx_sim_pause_feed(0, 1), 0);
}

void ExpectGolden(const std::string& text, const std::string& name) {
    const std::string path = std::string(VEXO_GOLDEN_DIR) + "/" + name;
    if (std::getenv("VEXO_UPDATE_GOLDEN") != nullptr) std::ofstream(path) << text;
    std::ostringstream golden;
    golden << std::ifstream(path).rdbuf();
    EXPECT_EQ(Lines(text), Lines(golden.str())) << "differs from " << path;
}

}  // namespace scenario
