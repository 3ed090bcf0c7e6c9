// The contract filter against the decision table read plainly, over random rules and instruments. A failure names the
// seed of its case.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "src/instruments/ContractServ.h"
#include "src/instruments/InstId.h"
#include "tests/doubles/FakeDrv.h"
#include "tests/doubles/LogLines.h"
#include "tests/equivalence/RandomMarket.h"

namespace {

namespace plain = test_support::plain;
using test_support::LogLines;

/// Random instruments, random rules of all channels, and the services over them.
struct Case {
    explicit Case(unsigned int seed) : random(seed) {
        for (auto left = random.Number(30); left > 0; --left) {
            idToIndex[random.Id()] = static_cast<unsigned short>(random.Number(25));
        }
        for (auto& channel : rules) channel = random.Rules();
        for (unsigned int chan = 0; chan < card_reg::kChannels; ++chan) records[chan] = Record(rules[chan]);
        fpga.Init(&drv);
    }

    RandomMarket random;
    plain::Rules rules[card_reg::kChannels];
    Vexo2_U50::InstIdToIndex idToIndex;
    Vexo2_U50::ZceSubsInfo_t records[card_reg::kChannels];
    test_support::FakeDrv drv;
    Vexo2_U50::CZceFpgaServ fpga{idToIndex, 0};
    Vexo2_U50::CContractServ contracts{idToIndex, nullptr, nullptr, &fpga, 0, records};
};

std::string Count(std::size_t n) { return std::to_string(n); }
std::string Channel(unsigned int chan) { return "[channel:" + Count(chan) + "] "; }

// ---- what a whole pass does ----

/// What the pass leaves behind, worked out step by step.
struct Expected {
    explicit Expected(const Case& input) {
        ReportMissingIds(input);
        Filter(input);
        for (unsigned int chan = 0; chan < card_reg::kChannels; ++chan) Store(chan);
        Subscribe();
    }

    plain::Chosen chosen[card_reg::kChannels];
    std::map<unsigned short, unsigned short> masks[2];
    plain::IndexToId names[2];
    std::vector<std::string> log;

private:
    void ReportMissingIds(const Case& input) {
        if (input.idToIndex.empty()) {
            log.push_back("WARN All instrument count is zero.");
            return;
        }
        for (unsigned int chan = 0; chan < card_reg::kChannels; ++chan) {
            std::vector<std::string> missing;
            for (const std::string& id : input.rules[chan].ids) {
                if (input.idToIndex.count(id) == 0) missing.push_back(id);
            }
            if (missing.empty()) continue;
            std::string joined = missing[0];
            for (std::size_t i = 1; i < missing.size(); ++i) joined += "," + missing[i];
            log.push_back("WARN " + Channel(chan) + "Warning!! Hasn't receive these insts:" + joined +
                          "! The program continues to run");
        }
    }
    void Filter(const Case& input) {
        log.push_back("INFO Begin match needed inst! AllInstNum:" + Count(input.idToIndex.size()) + ".");
        if (input.idToIndex.empty()) return;
        for (unsigned int chan = 0; chan < card_reg::kChannels; ++chan) {
            chosen[chan] = plain::Choose(input.idToIndex, input.rules[chan]);
            log.push_back("INFO " + Channel(chan) + "Filter needed sgl count:" + Count(chosen[chan].oneLeg.size()) +
                          ", cmb count:" + Count(chosen[chan].combine.size()) + ".");
        }
    }
    void Store(unsigned int chan) {
        const auto& [oneLeg, combine] = chosen[chan];
        log.push_back("INFO " + Channel(chan) + "Record func:Meeting conditions count is:OneLeg:" +
                      Count(oneLeg.size()) + ", Combine:" + Count(combine.size()) + ".");
        if (oneLeg.empty() && combine.empty())
            log.push_back("INFO " + Channel(chan) + "Matched subs inst count is 0. you doesn't subscribe inst.");
        for (int table = 0; table < 2; ++table) {
            for (const auto& [index, id] : table == 0 ? oneLeg : combine) {
                masks[table][index] = static_cast<unsigned short>(masks[table][index] + (1U << chan));
                names[table][index] = id;
            }
        }
    }
    void Subscribe() {
        log.push_back("WARN Subscribe:Meeting conditions count is:OneLeg:" + Count(masks[0].size()) +
                      ", Combine:" + Count(masks[1].size()) + ". Now write to fpga!");
        if (masks[0].empty() && masks[1].empty())
            log.push_back(
                "INFO Warning !! The number of contracts that comply with the subscription rules is 0. "
                "You subscribe no contract !!");
        for (int table = 0; table < 2; ++table) {
            for (const auto& [index, mask] : masks[table]) {
                char bits[16];
                std::snprintf(bits, sizeof bits, "0x%x", mask);
                log.push_back("INFO Subscribes:Write to fpga:chanbit:" + std::string(bits) + ", index:" + Count(index) +
                              ", instId:" + names[table][index]);
            }
        }
        log.push_back("INFO Subscribes:Write to fpga Over!");
        log.push_back("INFO Already write into fpga, now read back!");
    }
};

// The log lines of a whole pass.
std::vector<std::string> RunPass(Case& input) {
    LogLines log;
    input.contracts.FilterAndStoreToGlobMap();
    input.fpga.SubsFromGlobInsts();
    return log.Take();
}

void FilterOnce(Case& input) {
    const LogLines silence;
    input.contracts.JudgeAndFilterSubsInst();
}

void ExpectRows(Case& input, const Expected& expected) {
    EXPECT_EQ(input.fpga.oneLegChanBits, expected.masks[0]);
    EXPECT_EQ(input.fpga.combineChanBits, expected.masks[1]);
    EXPECT_EQ(input.fpga.oneLegNames, expected.names[0]);
    EXPECT_EQ(input.fpga.combineNames, expected.names[1]);
    for (int table = 0; table < 2; ++table) {
        for (const auto& [index, mask] : expected.masks[table]) EXPECT_EQ(input.drv.Mask(table, index), mask);
    }
}

TEST(FilterEquivalence, AWholePassChoosesStoresWritesAndLogsAsThePlainReading) {
    for (unsigned int seed = 0; seed < 10000 && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Case input(seed);
        const Expected expected(input);

        const std::vector<std::string> log = RunPass(input);

        EXPECT_EQ(log, expected.log);
        for (unsigned int chan = 0; chan < card_reg::kChannels; ++chan) {
            EXPECT_EQ(input.contracts.oneLegByChannel[chan], expected.chosen[chan].oneLeg) << "channel " << chan;
            EXPECT_EQ(input.contracts.combineByChannel[chan], expected.chosen[chan].combine) << "channel " << chan;
        }
        ExpectRows(input, expected);
    }
}

TEST(FilterEquivalence, ASecondPassWithOtherRulesAddsToTheFirst) {
    for (unsigned int seed = 0; seed < 1000 && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Case input(seed);
        FilterOnce(input);
        plain::Chosen first = plain::Choose(input.idToIndex, input.rules[5]);
        input.rules[5] = input.random.Rules();
        input.records[5] = Record(input.rules[5]);
        const plain::Chosen second = plain::Choose(input.idToIndex, input.rules[5]);

        FilterOnce(input);

        for (const auto& [index, id] : second.oneLeg) first.oneLeg[index] = id;
        for (const auto& [index, id] : second.combine) first.combine[index] = id;
        EXPECT_EQ(input.contracts.oneLegByChannel[5], first.oneLeg);
        EXPECT_EQ(input.contracts.combineByChannel[5], first.combine);
    }
}

// ---- single questions ----

TEST(FilterEquivalence, EverySingleQuestionIsAnsweredAsByASearchOfTheLists) {
    for (unsigned int seed = 0; seed < 10000 && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        RandomMarket random(seed);
        plain::Rules rules = random.Rules();
        Vexo2_U50::InstIdToIndex none;
        Vexo2_U50::ZceSubsInfo_t records[card_reg::kChannels];
        const auto chan = static_cast<unsigned int>(random.Number(card_reg::kChannels));
        records[chan] = Record(rules);
        Vexo2_U50::CContractServ contracts(none, nullptr, nullptr, nullptr, 0, records);
        for (int i = 0; i < 10; ++i) {
            const std::string id = i == 0 && !rules.ids.empty() ? rules.ids.back() : random.Id();
            SCOPED_TRACE("id \"" + id + "\"");

            const bool wanted = plain::Decide(id, rules) != plain::Decision::kSkip;
            EXPECT_EQ(contracts.wantedBy(id), wanted ? 1U << chan : 0U);
            EXPECT_EQ(contracts.bOrderedId(id, chan), plain::Listed(rules.ids, id));
            EXPECT_EQ(contracts.bOrderedClass(id, chan), plain::Listed(rules.classes, id));
            EXPECT_EQ(contracts.bOrderedClass(ExtractClass(id), chan),
                      plain::Listed(rules.classes, plain::ClassOf(id)));
            EXPECT_EQ(IsOption(id), plain::Mark(id) != 0);
            if (IsOption(id)) {
                EXPECT_EQ(contracts.OptionIsMeetCondition(id, chan), plain::OptionWanted(id, rules));
            }
        }
    }
}

}  // namespace
