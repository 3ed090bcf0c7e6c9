#include "tests/integration/SimulatedRun.h"

#include <enyx-sim/enyx_sim.h>
#include <enyx-sim/md_payload.h>
#include <gtest/gtest.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

namespace scenario {

namespace {

constexpr char kReport[] = "REPORT ";

// Follows the sequence numbers, as an application that looks for gaps does.
class FollowingSpi : public QuoteCallbacks {
public:
    Sight sight;

private:
    int OnQuote(int, const unsigned char* data) override {
        enyx_sim::QuoteCommon quote;
        std::memcpy(&quote, data, sizeof quote);
        const std::uint64_t number = quote.sequence;
        if (number != m_last + 1) ++sight.outOfTurn;
        if (number > m_last + 1) sight.largestGap = std::max(sight.largestGap, number - m_last - 1);
        m_last = number;
        if (sight.quotes++ == 0) {
            sight.firstDate = quote.exchangeDate;
            sight.firstTime = quote.exchangeTime;
        }
        sight.lastDate = quote.exchangeDate;
        sight.lastTime = quote.exchangeTime;
        m_ids.emplace(quote.id, sizeof quote.id);
        sight.instruments = m_ids.size();
        return 0;
    }

    std::uint64_t m_last = 0;
    std::set<std::string> m_ids;
};

// Standard output is what the parent reads of the child; log lines have another form.
void PrintReport(const Sight& s) {
    std::printf("%s%lu %lu %lu %u %u %u %u %lu\n", kReport, s.quotes, s.outOfTurn, s.largestGap, s.firstDate,
                s.firstTime, s.lastDate, s.lastTime, s.instruments);
}

void ReadReport(Sight& s) {
    const std::size_t at = s.outcome.out.find(kReport);
    s.started = at != std::string::npos;
    if (!s.started) return;
    std::istringstream report(s.outcome.out.substr(at + sizeof kReport - 1));
    report >> s.quotes >> s.outOfTurn >> s.largestGap >> s.firstDate >> s.firstTime >> s.lastDate >> s.lastTime >>
        s.instruments;
}

int RunHere(const SimulatedRun& run) {
    test_support::FakeTime clock(run.year, run.month, run.day, run.hour, run.minute, run.second);
    for (const auto& [name, value] : run.environment) ::setenv(name.c_str(), value.c_str(), 1);
    char reason[512] = "";
    if (!run.cardIni.empty()) {
        EXPECT_EQ(enyx_sim_load_scenario(run.cardIni.c_str(), reason, sizeof reason), 0) << reason;
    }
    std::ofstream("zce.ini") << run.libraryIni;
    FollowingSpi spi;
    IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
    EXPECT_EQ(api->VexoStart(spi, "zce.ini"), 0);
    clock.Advance(run.secondsBefore);
    for (int ms = 0; ms < run.milliseconds; ++ms) {
        for (int n = 0; n < run.pollsEach; ++n) EXPECT_NE(api->VexoRecv(), -1);
        clock.AdvanceNs(1'000'000);
    }
    IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    PrintReport(spi.sight);
    return 0;
}

}  // namespace

Sight RunOnSimulatedCard(const SimulatedRun& run, const std::function<void()>& prepare) {
    Sight sight;
    sight.outcome = RunInChild([&] {
        prepare();
        return RunHere(run);
    });
    EXPECT_EQ(sight.outcome.exitStatus, 0) << sight.outcome.out << sight.outcome.err;
    ReadReport(sight);
    return sight;
}

}  // namespace scenario
