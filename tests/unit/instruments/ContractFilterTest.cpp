#include <initializer_list>
#include <list>
#include <thread>
#include <type_traits>

#include "src/config/ConfigFile.h"
#include "tests/unit/card/MutexProbe.h"
#include "tests/unit/instruments/ContractServiceFixture.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Pair;
using Vexo2_U50::CContractServ;
using Vexo2_U50::IndexToInstId;
using Vexo2_U50::ZceSubsInfo_t;

static_assert(std::has_virtual_destructor_v<CContractServ>, "channels delete it through a base of their own");

class ContractFilter : public test_support::ContractServiceFixture {
protected:
    static constexpr unsigned int kChan = 4;

    ZceSubsInfo_t& Rules() { return rules[kChan]; }

    /// Announces the ids under the indexes 1, 2, 3 ... in the order given, and filters.
    void Filter(std::initializer_list<std::string> ids) {
        for (const std::string& id : ids) idToIndex.emplace(id, static_cast<unsigned short>(idToIndex.size() + 1));
        contracts.JudgeAndFilterSubsInst();
    }
    const IndexToInstId& OneLeg() const { return contracts.oneLegByChannel[kChan]; }
    const IndexToInstId& Combine() const { return contracts.combineByChannel[kChan]; }
};

/// What a pass over @p all instruments logs when one channel alone chooses some.
std::vector<std::string> FilterLines(std::size_t all, std::size_t oneLeg, std::size_t combine,
                                     unsigned int chosenChan) {
    std::vector<std::string> lines = {"INFO Begin match needed inst! AllInstNum:" + std::to_string(all) + "."};
    for (unsigned int chan = 0; chan < 16; ++chan) {
        const bool chosen = chan == chosenChan;
        lines.push_back("INFO [channel:" + std::to_string(chan) +
                        "] Filter needed sgl count:" + std::to_string(chosen ? oneLeg : 0) +
                        ", cmb count:" + std::to_string(chosen ? combine : 0) + ".");
    }
    return lines;
}

// ---- construction ----

TEST_F(ContractFilter, ConstructorKeepsWhatItIsGiven) {
    Vexo2_U50::CZceConfigFile config("unused.ini", &drv, nullptr);
    const CContractServ fresh(idToIndex, &config, &binFile, &fpga, 9, rules);

    EXPECT_EQ(fresh.channel, 9u);
    EXPECT_EQ(&fresh.instIdToIndex, &idToIndex);
    EXPECT_EQ(fresh.fpgaServ, &fpga);
    EXPECT_EQ(fresh.binFile, &binFile);
    EXPECT_EQ(fresh.config, &config);
    EXPECT_THAT(fresh.lackIds, IsEmpty());
    EXPECT_EQ(&fresh.subsInfo, &rules);
    for (const IndexToInstId& map : fresh.oneLegByChannel) EXPECT_THAT(map, IsEmpty());
    for (const IndexToInstId& map : fresh.combineByChannel) EXPECT_THAT(map, IsEmpty());
}

TEST_F(ContractFilter, MembersStandInTheirFixedOrder) {
    auto& [channel, oneLeg, combine, ids, fpgaServ, bin, config, lackIds, subsInfo] = contracts;

    EXPECT_EQ(&channel, &contracts.channel);
    EXPECT_EQ(&oneLeg, &contracts.oneLegByChannel);
    EXPECT_EQ(&combine, &contracts.combineByChannel);
    EXPECT_EQ(&ids, &contracts.instIdToIndex);
    EXPECT_EQ(&fpgaServ, &contracts.fpgaServ);
    EXPECT_EQ(&bin, &contracts.binFile);
    EXPECT_EQ(&config, &contracts.config);
    EXPECT_EQ(&lackIds, &contracts.lackIds);
    EXPECT_EQ(&subsInfo, &contracts.subsInfo);
}

// ---- combinations ----

TEST_F(ContractFilter, CalendarSpreadIsSkippedWithoutSpdWhateverElseTheRulesSay) {
    Rules().bSubAll = Rules().bOptionsRecv = Rules().bIpsRecv = true;
    Rules().m_SubsContractClass = {"SPD", "SPD-"};
    Rules().m_SubsContractId = {"SPD-SR505/SR509"};

    Filter({"SPD-SR505/SR509"});

    EXPECT_THAT(OneLeg(), IsEmpty());
    EXPECT_THAT(Combine(), IsEmpty());
}

TEST_F(ContractFilter, InterProductSpreadIsSkippedWithoutIpsWhateverElseTheRulesSay) {
    Rules().bSubAll = Rules().bOptionsRecv = Rules().bSpdRecv = true;
    Rules().m_SubsContractClass = {"IPS", "IPS-"};
    Rules().m_SubsContractId = {"IPS-SF505/SM505"};

    Filter({"IPS-SF505/SM505"});

    EXPECT_THAT(OneLeg(), IsEmpty());
    EXPECT_THAT(Combine(), IsEmpty());
}

TEST_F(ContractFilter, CalendarSpreadIsTakenBySpdAloneIntoTheCombinations) {
    Rules().bSpdRecv = true;

    Filter({"SPD-SR505/SR509", "IPS-SF505/SM505", "SR505"});

    EXPECT_THAT(Combine(), ElementsAre(Pair(1, "SPD-SR505/SR509")));
    EXPECT_THAT(OneLeg(), IsEmpty());
}

TEST_F(ContractFilter, InterProductSpreadIsTakenByIpsAloneIntoTheCombinations) {
    Rules().bIpsRecv = true;

    Filter({"SPD-SR505/SR509", "IPS-SF505/SM505", "SR505"});

    EXPECT_THAT(Combine(), ElementsAre(Pair(2, "IPS-SF505/SM505")));
    EXPECT_THAT(OneLeg(), IsEmpty());
}

TEST_F(ContractFilter, RestOfACombinationIsNotLookedAt) {
    Rules().bSpdRecv = Rules().bIpsRecv = true;

    Filter({"SPD-", "IPS-", "SPD-SR505C6000", "IPS-9"});

    EXPECT_THAT(Combine(), ElementsAre(Pair(1, "SPD-"), Pair(2, "IPS-"), Pair(3, "SPD-SR505C6000"), Pair(4, "IPS-9")));
    EXPECT_THAT(OneLeg(), IsEmpty());
}

TEST_F(ContractFilter, OnlyTheExactPrefixMakesACombination) {
    Rules().bSubAll = Rules().bSpdRecv = Rules().bIpsRecv = true;

    Filter({"SPD", "SPDSR505", "spd-SR505", "XSPD-SR505", "IPS", "ips-SF505", " IPS-"});

    EXPECT_EQ(OneLeg().size(), 7u);
    EXPECT_THAT(Combine(), IsEmpty());
}

// ---- options ----

TEST_F(ContractFilter, OptionIsSkippedWithoutOptionsWhateverElseTheRulesSay) {
    Rules().bSubAll = true;
    Rules().m_SubsContractClass = {"SR"};
    Rules().m_SubsContractId = {"SR505", "SR505C6000"};

    Filter({"SR505C6000"});

    EXPECT_THAT(OneLeg(), IsEmpty());
}

TEST_F(ContractFilter, OptionIsTakenByItsClass) {
    Rules().bOptionsRecv = true;
    Rules().m_SubsContractClass = {"CF", "SR"};

    Filter({"SR505C6000", "SR507P5800", "CF505C14000", "TA505C5000"});

    EXPECT_THAT(OneLeg(), ElementsAre(Pair(1, "SR505C6000"), Pair(2, "SR507P5800"), Pair(3, "CF505C14000")));
}

TEST_F(ContractFilter, OptionIsTakenByTheIdOfItsUnderlying) {
    Rules().bOptionsRecv = true;
    Rules().m_SubsContractId = {"SR505"};

    Filter({"SR505C6000", "SR505P6000", "SR507C6000"});

    EXPECT_THAT(OneLeg(), ElementsAre(Pair(1, "SR505C6000"), Pair(2, "SR505P6000")));
}

TEST_F(ContractFilter, OptionIsTakenByAll) {
    Rules().bOptionsRecv = Rules().bSubAll = true;

    Filter({"SR505C6000"});

    EXPECT_THAT(OneLeg(), ElementsAre(Pair(1, "SR505C6000")));
}

TEST_F(ContractFilter, OptionIsNotTakenByItsOwnId) {
    Rules().bOptionsRecv = true;
    Rules().m_SubsContractId = {"SR505C6000"};

    Filter({"SR505C6000"});

    EXPECT_THAT(OneLeg(), IsEmpty());
}

TEST_F(ContractFilter, OptionsAloneTakeNoOptionAndNoFuture) {
    Rules().bOptionsRecv = true;

    Filter({"SR505C6000", "SR505"});

    EXPECT_THAT(OneLeg(), IsEmpty());
}

TEST_F(ContractFilter, OptionRuleIsAnsweredForSingleInstruments) {
    EXPECT_FALSE(contracts.OptionIsMeetCondition("SR505C6000", kChan));
    Rules().bOptionsRecv = true;
    EXPECT_FALSE(contracts.OptionIsMeetCondition("SR505C6000", kChan));
    Rules().m_SubsContractId = {"SR505"};
    EXPECT_TRUE(contracts.OptionIsMeetCondition("SR505C6000", kChan));
    EXPECT_FALSE(contracts.OptionIsMeetCondition("SR507C6000", kChan));
    Rules().m_SubsContractClass = {"SR"};
    EXPECT_TRUE(contracts.OptionIsMeetCondition("SR507C6000", kChan));
    EXPECT_FALSE(contracts.OptionIsMeetCondition("CF507C6000", kChan));
    Rules().bSubAll = true;
    EXPECT_TRUE(contracts.OptionIsMeetCondition("CF507C6000", kChan));
    Rules().bOptionsRecv = false;
    EXPECT_FALSE(contracts.OptionIsMeetCondition("SR507C6000", kChan));
}

TEST_F(ContractFilter, OptionRuleDoesNotTakeAFutureByItsId) {
    Rules().bOptionsRecv = true;
    Rules().m_SubsContractId = {"SR505"};

    EXPECT_FALSE(contracts.OptionIsMeetCondition("SR505", kChan));
}

TEST_F(ContractFilter, OptionRuleIsTheOneOfTheChannelAsked) {
    rules[15].bOptionsRecv = rules[15].bSubAll = true;

    EXPECT_TRUE(contracts.OptionIsMeetCondition("SR505C6000", 15));
    EXPECT_FALSE(contracts.OptionIsMeetCondition("SR505C6000", 14));
}

// ---- futures ----

TEST_F(ContractFilter, AllWithoutOptionsTakesEveryFutureAndNoOption) {
    Rules().bSubAll = true;

    Filter({"SR505", "SR505C6000", "CF505", "CF505P14000", "SPD-SR505/SR509", "IPS-SF505/SM505"});

    EXPECT_THAT(OneLeg(), ElementsAre(Pair(1, "SR505"), Pair(3, "CF505")));
    EXPECT_THAT(Combine(), IsEmpty());
}

TEST_F(ContractFilter, FutureIsTakenByItsExactClass) {
    Rules().m_SubsContractClass = {"S", "SRX", "sr", "CF"};

    Filter({"SR505", "CF505"});

    EXPECT_THAT(OneLeg(), ElementsAre(Pair(2, "CF505")));
}

TEST_F(ContractFilter, FutureIsTakenByItsExactId) {
    Rules().m_SubsContractId = {"SR50", "SR5050", "sr505", "CF505"};

    Filter({"SR505", "CF505"});

    EXPECT_THAT(OneLeg(), ElementsAre(Pair(2, "CF505")));
}

TEST_F(ContractFilter, LowerCaseMarkMakesAFutureAndNotAnOption) {
    Rules().m_SubsContractClass = {"SR"};

    Filter({"SR505c6000", "SR505C", "SR505C6"});

    EXPECT_THAT(OneLeg(), ElementsAre(Pair(1, "SR505c6000"), Pair(2, "SR505C")));
}

TEST_F(ContractFilter, IdThatNoRuleNamesIsSkipped) {
    Rules().m_SubsContractClass = {"CF"};
    Rules().m_SubsContractId = {"TA505"};

    Filter({"SR505", "505", ""});

    EXPECT_THAT(OneLeg(), IsEmpty());
}

TEST_F(ContractFilter, OrderedClassAndOrderedIdLookIntoTheChannelsOwnLists) {
    rules[3].m_SubsContractClass = {"SR", "CF"};
    rules[3].m_SubsContractId = {"TA505", "MA509"};

    EXPECT_TRUE(contracts.bOrderedClass("SR", 3));
    EXPECT_TRUE(contracts.bOrderedClass("CF", 3));
    EXPECT_FALSE(contracts.bOrderedClass("TA505", 3));
    EXPECT_FALSE(contracts.bOrderedClass("SR", 2));
    EXPECT_TRUE(contracts.bOrderedId("TA505", 3));
    EXPECT_TRUE(contracts.bOrderedId("MA509", 3));
    EXPECT_FALSE(contracts.bOrderedId("SR", 3));
    EXPECT_FALSE(contracts.bOrderedId("TA505", 4));
}

// ---- a whole pass ----

TEST_F(ContractFilter, EmptyMapLogsOnlyTheFirstMessage) {
    Rules().bSubAll = true;

    contracts.JudgeAndFilterSubsInst();

    EXPECT_THAT(log.Take(), ElementsAre("INFO Begin match needed inst! AllInstNum:0."));
}

TEST_F(ContractFilter, CountsOfEveryChannelAreLoggedInOrder) {
    Rules().bSubAll = Rules().bSpdRecv = true;

    Filter({"SR505", "CF505", "SPD-SR505/SR509", "TA505C5000"});

    EXPECT_THAT(log.Take(), ElementsAreArray(FilterLines(4, 2, 1, kChan)));
}

TEST_F(ContractFilter, EachChannelFollowsItsOwnRules) {
    rules[0].bSubAll = true;
    rules[1].bSpdRecv = true;
    rules[15].m_SubsContractId = {"SR505"};

    Filter({"SR505", "CF505", "SPD-SR505/SR509"});

    EXPECT_THAT(contracts.oneLegByChannel[0], ElementsAre(Pair(1, "SR505"), Pair(2, "CF505")));
    EXPECT_THAT(contracts.combineByChannel[0], IsEmpty());
    EXPECT_THAT(contracts.oneLegByChannel[1], IsEmpty());
    EXPECT_THAT(contracts.combineByChannel[1], ElementsAre(Pair(3, "SPD-SR505/SR509")));
    EXPECT_THAT(contracts.oneLegByChannel[15], ElementsAre(Pair(1, "SR505")));
    for (unsigned int chan = 2; chan < 15; ++chan) EXPECT_THAT(contracts.oneLegByChannel[chan], IsEmpty()) << chan;
}

TEST_F(ContractFilter, IdLastInOrderNamesAnIndexThatTwoIdsShare) {
    Rules().bSubAll = true;
    idToIndex = {{"SR509", 7}, {"SR505", 7}};

    contracts.JudgeAndFilterSubsInst();

    EXPECT_THAT(OneLeg(), ElementsAre(Pair(7, "SR509")));
}

TEST_F(ContractFilter, LaterPassAddsToTheEarlierOneAndRenamesItsIndexes) {
    Rules().bSubAll = true;
    idToIndex = {{"SR505", 7}, {"SR507", 8}};
    contracts.JudgeAndFilterSubsInst();
    idToIndex = {{"CF505", 7}, {"CF507", 9}};

    contracts.JudgeAndFilterSubsInst();

    EXPECT_THAT(OneLeg(), ElementsAre(Pair(7, "CF505"), Pair(8, "SR507"), Pair(9, "CF507")));
}

// ---- into the merged store ----

TEST_F(ContractFilter, StoringGoesThroughAllChannelsInOrder) {
    contracts.oneLegByChannel[0] = {{7, "SR505"}};
    contracts.oneLegByChannel[2] = {{7, "SR505"}};
    contracts.combineByChannel[15] = {{3, "SPD-A"}};

    EXPECT_TRUE(contracts.StoreAllSubsInstToFpga());

    EXPECT_THAT(fpga.oneLegChanBits, ElementsAre(Pair(7, 0x5)));
    EXPECT_THAT(fpga.combineChanBits, ElementsAre(Pair(3, 0x8000)));
    std::vector<std::string> expected;
    for (int chan = 0; chan < 16; ++chan) {
        const std::string head = "INFO [channel:" + std::to_string(chan) + "] ";
        expected.push_back(head + "Record func:Meeting conditions count is:OneLeg:" +
                           (chan == 0 || chan == 2 ? "1" : "0") + ", Combine:" + (chan == 15 ? "1" : "0") + ".");
        if (chan != 0 && chan != 2 && chan != 15)
            expected.push_back(head + "Matched subs inst count is 0. you doesn't subscribe inst.");
    }
    EXPECT_THAT(log.Take(), ElementsAreArray(expected));
}

TEST_F(ContractFilter, PassReportsMissingIdsThenFiltersThenStores) {
    Rules().m_SubsContractId = {"SR505", "SR999"};
    idToIndex = {{"SR505", 7}};

    contracts.FilterAndStoreToGlobMap();

    std::vector<std::string> expected = {
        "WARN [channel:4] Warning!! Hasn't receive these insts:SR999! The program continues to run"};
    for (const std::string& line : FilterLines(1, 1, 0, kChan)) expected.push_back(line);
    for (unsigned int chan = 0; chan < 16; ++chan) {
        const std::string head = "INFO [channel:" + std::to_string(chan) + "] ";
        const bool chosen = chan == kChan;
        expected.push_back(head + "Record func:Meeting conditions count is:OneLeg:" + (chosen ? "1" : "0") +
                           ", Combine:0.");
        if (!chosen) expected.push_back(head + "Matched subs inst count is 0. you doesn't subscribe inst.");
    }
    EXPECT_THAT(log.Take(), ElementsAreArray(expected));
    EXPECT_THAT(fpga.oneLegChanBits, ElementsAre(Pair(7, 0x10)));
    EXPECT_THAT(fpga.oneLegNames, ElementsAre(Pair(7, "SR505")));
    EXPECT_THAT(drv.TakeCalls(), IsEmpty()) << "the card is written by another operation";
}

TEST_F(ContractFilter, PassOverNothingStillStoresEveryChannel) {
    contracts.FilterAndStoreToGlobMap();

    const std::vector<std::string> lines = log.Take();
    ASSERT_EQ(lines.size(), 2u + 2 * 16);
    EXPECT_EQ(lines[0], "WARN All instrument count is zero.");
    EXPECT_EQ(lines[1], "INFO Begin match needed inst! AllInstNum:0.");
    EXPECT_EQ(lines[2], "INFO [channel:0] Record func:Meeting conditions count is:OneLeg:0, Combine:0.");
}

TEST_F(ContractFilter, MergedStoreOnlyGrowsFromPassToPass) {
    idToIndex = {{"SR505", 7}, {"CF505", 8}};
    rules[0].bSubAll = true;
    contracts.FilterAndStoreToGlobMap();
    rules[0].bSubAll = false;
    rules[1].m_SubsContractClass = {"CF"};

    contracts.FilterAndStoreToGlobMap();

    EXPECT_THAT(fpga.oneLegChanBits, ElementsAre(Pair(7, 0x1), Pair(8, 0x3)));
}

TEST_F(ContractFilter, RulesThatRepeatThemselvesChooseTheSame) {
    idToIndex = {{"SR505", 7}, {"CF505", 8}, {"TA505", 9}};
    Rules().m_SubsContractId = {"SR505", "SR505"};
    Rules().m_SubsContractClass = {"CF", "CF"};

    contracts.JudgeAndFilterSubsInst();

    EXPECT_THAT(OneLeg(), ElementsAre(Pair(7, "SR505"), Pair(8, "CF505")));
}

TEST_F(ContractFilter, PassHoldsTheOrderLockWhileItWaitsForTheStore) {
    rules[0].bSubAll = true;
    idToIndex = {{"SR505", 7}};
    std::unique_lock<std::mutex> store(Vexo2_U50::CZceFpgaServ::subscribe_mutex);
    std::thread pass([this] { contracts.FilterAndStoreToGlobMap(); });

    // The last line before the pass needs the store.
    std::string seen;
    while (seen.find("[channel:0] Record func:") == std::string::npos) {
        std::this_thread::yield();
        seen += log.TakeText();
    }
    const bool heldMeanwhile = test_support::IsHeld(CContractServ::order_mutex);
    store.unlock();
    pass.join();

    EXPECT_TRUE(heldMeanwhile);
    EXPECT_FALSE(test_support::IsHeld(CContractServ::order_mutex)) << "free again afterwards";
}

}  // namespace
