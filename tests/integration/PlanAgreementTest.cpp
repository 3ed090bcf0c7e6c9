// The rows that `vexo plan` shows are the rows that a simulated card holds after a start, for random configurations and
// instruments. A failure names the seed of its case.

#include <enyx-sim/enyx_sim.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <fstream>
#include <set>

#include "src/instruments/InstId.h"
#include "tests/equivalence/RandomMarket.h"
#include "tests/integration/Scenario.h"
#include "tests/support/Sanitizers.h"
#include "tests/support/TempDir.h"
#include "tools/vexo/plan/Plan.h"

namespace {

using namespace scenario;
using vexo::plan::Instruments;

constexpr unsigned int kDate = 20660114;
constexpr std::size_t kMessagesPerPacket = 40;

/// A configuration of a master, one of another channel, and what the card announces.
class RandomStart {
public:
    explicit RandomStart(unsigned int seed) : m_random(seed) {
        instruments.isLoaded = m_random.Once(2);
        AddInstruments();
        const std::string version = "[version]\n1.1.2.12 = 11\n1.1.2.13 = 12\n";
        master = version + "[config]\ndevice = xilinx0:0\n" + Sections();
        channel = 1 + m_random.Number(15);
        other = version + "[config]\ndevice = xilinx0:" + std::to_string(channel) + "\n" + Sections();
    }

    std::string DayFileText() const {
        std::string text = "inst_index,inst_id\n";
        for (const auto& [id, index] : instruments.list) text += std::to_string(index) + "," + id + "\n";
        return text + "bin_file_over_tag\n";
    }

    Instruments instruments;
    std::string master;
    std::string other;
    std::size_t channel;

private:
    void AddInstruments() {
        std::set<std::string> ids;
        for (auto left = 1 + m_random.Number(120); left > 0; --left) {
            const std::string id = m_random.Id();
            if (id.empty() || !ids.insert(id).second) continue;
            // A few rows are those of another instrument, and a few are beyond the card.
            const std::size_t rows = m_random.Once(10) ? 65536 : m_random.Once(4) ? 30 : 8193;
            instruments.list.push_back({id, static_cast<unsigned short>(m_random.Number(rows))});
        }
    }

    std::string Sections() {
        std::string text;
        for (unsigned int n = 0; n < card_reg::kChannels; ++n)
            if (!m_random.Once(4)) text += Section(n);
        return text;
    }

    std::string Section(unsigned int number) {
        std::string text = "[" + std::string(m_random.Once(10) ? "Channel" : "channel") + std::to_string(number) +
                           "]\n";
        if (!m_random.Once(8)) text += "insts = " + Insts() + "\n";
        if (!m_random.Once(60)) text += "options = " + Word() + "\n";
        if (!m_random.Once(4)) text += "ips = " + Word() + "\n";
        if (!m_random.Once(4)) text += "spd = " + Word() + "\n";
        if (m_random.Once(20)) text += "insts = " + Insts() + "\n";  // the last one counts
        return text;
    }

    std::string Word() {
        static const std::vector<std::string> words = {"recv", "recv", "norecv", "RECV", "\"recv\""};
        return words[m_random.Number(words.size())];
    }

    std::string Insts() {
        const test_support::plain::Rules rules = m_random.Rules();
        std::vector<std::string> entries = rules.classes;
        entries.insert(entries.end(), rules.ids.begin(),
                       rules.ids.begin() + std::min<long>(40, std::distance(rules.ids.begin(), rules.ids.end())));
        for (auto left = m_random.Number(5); left > 0 && !instruments.list.empty(); --left)
            entries.push_back(instruments.list[m_random.Number(instruments.list.size())].id);
        if (rules.all) entries.push_back(m_random.Once(2) ? "all" : "ALL");
        std::string text;
        for (const std::string& entry : entries) text += entry + (m_random.Once(2) ? "," : " , ");
        return text;
    }

    RandomMarket m_random;
};

// Switched on with the date of the day: a start then need not reset it.
void PowerOn() {
    enyx_sim_config config;
    enyx_sim_default_config(&config);
    config.instruments = ENYX_SIM_INSTRUMENTS_NONE;
    config.initial_date = kDate;
    ASSERT_EQ(enyx_sim_power_cycle(&config), 0);
    ASSERT_EQ(enyx_sim_pause_feed(0, 1), 0);
}

IVexoZceMdApi* StartWith(const std::string& file, const std::string& text, IVexoZceMdSpi& spi) {
    std::ofstream(file) << text;
    IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
    EXPECT_EQ(api->VexoStart(spi, file.c_str()), 0);
    return api;
}

void Announce(IVexoZceMdApi& api, const Instruments& instruments) {
    std::vector<std::pair<std::string, std::uint16_t>> messages;
    const auto send = [&] {
        Push(0, ContractMapPacket(messages));
        EXPECT_EQ(api.VexoRecv(), 0);
        messages.clear();
    };
    for (const auto& [id, index] : instruments.list) {
        messages.emplace_back(id, index);
        if (messages.size() == kMessagesPerPacket) send();
    }
    if (!messages.empty()) send();
}

void ExpectRows(const vexo::plan::CardPlan& plan) {
    for (std::uint32_t table = 0; table < 2; ++table) {
        for (std::uint32_t row = 0; row < card_reg::kRows; ++row) {
            const auto planned = plan.rows[table].find(static_cast<std::uint16_t>(row));
            const std::uint32_t expected = planned != plan.rows[table].end() ? planned->second.mask : 0;
            std::uint32_t mask = ~expected;
            if (enyx_sim_table_word(0, table, row, 0, &mask) != 0 || mask != expected)
                ADD_FAILURE() << "table " << table << " row " << row << " has mask " << mask << ", not " << expected;
        }
    }
}

int RunStart(const RandomStart& start, const vexo::plan::CardPlan& plan) {
    test_support::FakeTime clock(2066, 1, 14, 9, 30, 0);
    PowerOn();
    PayloadSpi spi;
    IVexoZceMdApi* master = StartWith("master.ini", start.master, spi);
    if (!start.instruments.isLoaded) Announce(*master, start.instruments);
    IVexoZceMdApi* other = StartWith("other.ini", start.other, spi);
    ExpectRows(plan);
    IVexoZceMdApi::DestroyVexoZceMdApi(*other);
    IVexoZceMdApi::DestroyVexoZceMdApi(*master);
    return 0;
}

class PlanAgreement : public ::testing::TestWithParam<unsigned int> {};

}  // namespace

TEST_P(PlanAgreement, ShowsTheRowsThatACardHoldsAfterTheStart) {
    constexpr unsigned int kCases = kWithAddressSanitizer || kWithThreadSanitizer ? 25 : 250;
    std::size_t rows = 0;
    std::size_t several = 0;  // rows of more than one channel
    for (unsigned int seed = kCases * GetParam(); seed < kCases * (GetParam() + 1); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const RandomStart start(seed);
        const DayFile dayFile(2066, 1, 14, false);
        if (start.instruments.isLoaded) dayFile.Write(start.DayFileText());
        const test_support::TempDir directory;
        std::ofstream("master.ini") << start.master;
        std::ofstream("other.ini") << start.other;
        const vexo::plan::Plan plan = vexo::plan::makePlan({"master.ini", "other.ini"}, start.instruments);
        const vexo::plan::CardPlan& card = plan.cards.at(0);

        const Outcome outcome = RunInChild([&] { return RunStart(start, card); });

        ASSERT_EQ(outcome.exitStatus, 0) << start.master;
        for (const auto& table : card.rows) {
            rows += table.size();
            for (const auto& [index, row] : table) several += (row.mask & (row.mask - 1)) != 0 ? 1 : 0;
        }
    }
    EXPECT_GT(rows, 20 * kCases);
    EXPECT_GT(several, 4 * kCases);
}

INSTANTIATE_TEST_SUITE_P(, PlanAgreement, ::testing::Range(0u, 4u));
