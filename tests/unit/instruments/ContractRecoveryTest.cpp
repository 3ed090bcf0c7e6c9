#include <unistd.h>
#include <ctime>
#include <fstream>

#include "tests/unit/instruments/ContractServiceFixture.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Pair;
using Vexo2_U50::CZceFpgaServ;

constexpr std::uint32_t kFailure = 0xFFFFFFFF;

/// The day file's path is fixed and /tmp is everybody's: each process takes a day of its own, far in the future.
int DayOfThisProcess() { return static_cast<int>(::getpid() % 50000); }

class ContractRecovery : public test_support::ContractServiceFixture {
protected:
    ContractRecovery() {
        SetTime(100000);
        const std::time_t now = std::time(nullptr);
        const std::tm today = *std::localtime(&now);
        m_date = static_cast<unsigned int>((today.tm_year + 1900) * 10000 + (today.tm_mon + 1) * 100 + today.tm_mday);
        SetCardTime(100000);
    }
    ~ContractRecovery() override {
        for (const char* half : {"_am", "_pm"}) ::unlink(DayFile(half).c_str());
    }

    void SetTime(int hhmmss) {
        clock.SetLocal(2100, 1, 1 + DayOfThisProcess(), hhmmss / 10000, hhmmss / 100 % 100, hhmmss % 100);
    }
    /// The card has today's date and this time.
    void SetCardTime(unsigned int hhmmss) {
        drv.registers[0x106] = m_date;
        drv.registers[0x104] = hhmmss;
        drv.registers[0x105] = hhmmss;
    }
    std::string DayFile(const std::string& half = "_am") const { return "/tmp/.zce_" + std::to_string(m_date) + half; }
    void WriteDayFile(const std::string& content) const { std::ofstream(DayFile()) << content; }

    unsigned int ExpireTime(int system, unsigned int card) {
        SetTime(system);
        SetCardTime(card);
        return contracts.GetExpireTime();
    }

    unsigned int m_date = 0;
};

constexpr char kTwoInsts[] = "inst_index,inst_id\n7,SR505\n9,SR509\nbin_file_over_tag\n";

// ---- from the day file ----

TEST_F(ContractRecovery, UsableDayFileFillsTheMap) {
    WriteDayFile(kTwoInsts);

    EXPECT_EQ(contracts.RecoverInstsFromBin(), 0u);

    EXPECT_THAT(idToIndex, ElementsAre(Pair("SR505", 7), Pair("SR509", 9)));
    EXPECT_THAT(log.Take(), ElementsAre("INFO Get file end flag is success.", "INFO m_Intrade_AllInstMap size is [2].",
                                        "INFO loading bin file is success", "INFO Get inst from bin success"));
}

TEST_F(ContractRecovery, MissingDayFileIsAFailureWithoutASuccessLine) {
    EXPECT_EQ(contracts.RecoverInstsFromBin(), kFailure);

    EXPECT_THAT(log.Take(), ElementsAre("INFO bin file is not exists , [" + DayFile() + "]."));
}

TEST_F(ContractRecovery, UnfinishedDayFileIsAFailure) {
    WriteDayFile("inst_index,inst_id\n7,SR505\n");

    EXPECT_EQ(contracts.RecoverInstsFromBin(), kFailure);

    EXPECT_THAT(idToIndex, IsEmpty());
    EXPECT_THAT(log.Take(), ElementsAre("INFO m_Intrade_AllInstMap size is [1].", "INFO loading bin file is fail"));
}

// ---- from the card ----

TEST_F(ContractRecovery, RecoveryFromTheCardReadsItsTables) {
    drv.Row(0, 7) = {"SR505", "SR505"};

    EXPECT_EQ(contracts.RecoverInstsFromFpga(), 1u);

    EXPECT_THAT(idToIndex, ElementsAre(Pair("SR505", 7)));
    EXPECT_THAT(log.Take(), ElementsAre("INFO New round, fetch from fpga, inst count:1."));
}

// ---- how long to wait ----

TEST_F(ContractRecovery, NoWaitWhenTheCardHasNotBeenReset) {
    EXPECT_EQ(ExpireTime(102000, 102000), 0u);
    EXPECT_EQ(ExpireTime(140000, 140000), 0u);

    EXPECT_THAT(log.Take(), ElementsAre("INFO [channel:0] Current fpga time:102000. system time:102000.",
                                        "INFO System time:102000.", "INFO Expire time 0 minute.",
                                        "INFO [channel:0] Current fpga time:140000. system time:140000.",
                                        "INFO System time:140000.", "INFO Expire time 0 minute."));
}

TEST_F(ContractRecovery, ResetCardIsGivenFourMinutes) {
    CZceFpgaServ::m_bReseted = true;

    EXPECT_EQ(ExpireTime(140000, 140000), 4u);

    EXPECT_THAT(log.Take(), ElementsAre("INFO [channel:0] Current fpga time:140000. system time:140000.",
                                        "INFO System time:140000.", "INFO Expire time 4 minute."));
}

TEST_F(ContractRecovery, ResetCardInTheMorningBreakIsGivenTwentyMinutes) {
    CZceFpgaServ::m_bReseted = true;

    EXPECT_EQ(ExpireTime(102000, 102000), 20u);

    EXPECT_THAT(log.Take(), ElementsAre("INFO [channel:0] Current fpga time:102000. system time:102000.",
                                        "INFO System time:102000.", "INFO Expire time 20 minute."));
}

TEST_F(ContractRecovery, BreakOfTheCardsTimeIsFrom101450To103000BothInside) {
    CZceFpgaServ::m_bReseted = true;

    for (unsigned int card = 101300; card <= 103160; ++card)
        EXPECT_EQ(ExpireTime(102000, card), card >= 101450 && card <= 103000 ? 20u : 4u) << card;
}

TEST_F(ContractRecovery, SystemTimeThatStandsInForTheCardsHasTheSameBreak) {
    CZceFpgaServ::m_bReseted = true;
    struct Edge {
        int system;
        unsigned int minutes;
    };
    for (const Edge edge : {Edge{101449, 4}, Edge{101450, 20}, Edge{103000, 20}, Edge{103001, 4}}) {
        SetTime(edge.system);
        drv.registers[0x106] = m_date - 1;
        EXPECT_EQ(contracts.GetExpireTime(), edge.minutes) << edge.system;
    }
}

TEST_F(ContractRecovery, CardsTimeInTheBreakCountsWhenTheSystemsIsOutsideIt) {
    CZceFpgaServ::m_bReseted = true;

    EXPECT_EQ(ExpireTime(103500, 103000), 20u);
    EXPECT_EQ(ExpireTime(101200, 101450), 20u);
    EXPECT_EQ(ExpireTime(102959, 103001), 4u);
    EXPECT_EQ(ExpireTime(101500, 101449), 4u);
}

TEST_F(ContractRecovery, RestOfTheDayIsGivenFourMinutes) {
    CZceFpgaServ::m_bReseted = true;

    for (const int system : {0, 1000, 85959, 90000, 90001, 95959, 113000, 115959, 120000, 145959, 150000, 205959,
                             210000, 210001, 221450, 232959, 235959}) {
        // The card stands in the break, but too far from the system's time to be believed.
        EXPECT_EQ(ExpireTime(system, 102000), 4u) << system;
    }
}

TEST_F(ContractRecovery, TimeThatCannotBeReadLeavesTheUsualWait) {
    CZceFpgaServ::m_bReseted = true;
    drv.failingReads = {0x104};

    EXPECT_EQ(ExpireTime(102000, 102000), 4u);

    EXPECT_THAT(log.Take(),
                ElementsAre("ERROR [channel:0] 1 Unable to read time stamp !", "INFO Expire time 4 minute."));
}

// ---- the whole recovery ----

TEST_F(ContractRecovery, WithoutADayFileAnUntouchedCardIsReadAtOnce) {
    drv.Row(0, 7) = {"SR505", "SR505"};

    EXPECT_EQ(contracts.RecoverAllInst(), 0u);

    EXPECT_THAT(clock.Sleeps(), IsEmpty());
    EXPECT_THAT(idToIndex, ElementsAre(Pair("SR505", 7)));
    EXPECT_THAT(
        log.Take(),
        ElementsAre("INFO Now begin recover all inst", "INFO bin file is not exists , [" + DayFile() + "].",
                    "INFO [channel:0] Current fpga time:100000. system time:100000.", "INFO System time:100000.",
                    "INFO Expire time 0 minute.", "INFO New round, fetch from fpga, inst count:1.",
                    "INFO Fetch all inst from fpga over! insts count:1."));
}

TEST_F(ContractRecovery, WithoutADayFileACardResetInTheBreakIsReadAfterTwentyMinutesOfCountdown) {
    CZceFpgaServ::m_bReseted = true;
    SetTime(102000);
    SetCardTime(102000);
    bool readEarly = false;
    clock.OnSleep([&](unsigned int) { readEarly = readEarly || !drv.accesses.empty(); });

    contracts.RecoverAllInst();

    std::vector<std::string> expected = {"INFO Now begin recover all inst",
                                         "INFO bin file is not exists , [" + DayFile() + "].",
                                         "INFO [channel:0] Current fpga time:102000. system time:102000.",
                                         "INFO System time:102000.", "INFO Expire time 20 minute."};
    for (int left = 1200; left >= 10; left -= 10) expected.push_back("INFO Left " + std::to_string(left) + " seconds");
    expected.push_back("INFO New round, fetch from fpga, inst count:0.");
    expected.push_back("INFO Fetch all inst from fpga over! insts count:0.");
    EXPECT_THAT(log.Take(), ElementsAreArray(expected));
    EXPECT_EQ(clock.Sleeps(), std::vector<unsigned int>(120, 10));
    EXPECT_FALSE(readEarly);
    EXPECT_FALSE(drv.accesses.empty());
}

TEST_F(ContractRecovery, CountdownLineComesBeforeItsTenSeconds) {
    CZceFpgaServ::m_bReseted = true;
    SetTime(140000);
    SetCardTime(140000);
    std::vector<std::string> lastLines;
    clock.OnSleep([&](unsigned int) { lastLines.push_back(log.Take().back()); });

    contracts.RecoverAllInst();

    std::vector<std::string> expected;
    for (int left = 240; left >= 10; left -= 10) expected.push_back("INFO Left " + std::to_string(left) + " seconds");
    EXPECT_THAT(lastLines, ElementsAreArray(expected));
}

TEST_F(ContractRecovery, DayFileIsEnoughForAnUntouchedCard) {
    WriteDayFile(kTwoInsts);

    EXPECT_EQ(contracts.RecoverAllInst(), 0u);

    EXPECT_THAT(log.Take(), ElementsAre("INFO Now begin recover all inst", "INFO Get file end flag is success.",
                                        "INFO m_Intrade_AllInstMap size is [2].", "INFO loading bin file is success",
                                        "INFO Get inst from bin success", "INFO Bin inst count:2",
                                        "INFO Fetch all inst from fpga over! insts count:2."));
    EXPECT_THAT(clock.Sleeps(), IsEmpty());
    EXPECT_THAT(drv.accesses, IsEmpty());
    EXPECT_THAT(drv.TakeCalls(), IsEmpty());
}

TEST_F(ContractRecovery, DayFileAndAResetCardWaitTwoMinutesForTheCard) {
    WriteDayFile(kTwoInsts);
    CZceFpgaServ::m_bReseted = true;

    EXPECT_EQ(contracts.RecoverAllInst(), 0u);

    EXPECT_THAT(log.Take(), ElementsAre("INFO Now begin recover all inst", "INFO Get file end flag is success.",
                                        "INFO m_Intrade_AllInstMap size is [2].", "INFO loading bin file is success",
                                        "INFO Get inst from bin success",
                                        "INFO We wait for fpga gather enough inst, please wait 120 second...",
                                        "INFO Bin inst count:2", "INFO Fetch all inst from fpga over! insts count:2."));
    EXPECT_THAT(clock.Sleeps(), ElementsAre(120));
    EXPECT_THAT(drv.accesses, IsEmpty());
}

// ---- ids that the card never announced ----

TEST_F(ContractRecovery, ChannelWhoseIdsAreAllKnownLacksNone) {
    idToIndex = {{"SR505", 7}, {"SR509", 9}};
    rules[3].m_SubsContractId = {"SR509", "SR505"};

    EXPECT_TRUE(contracts.Id_chkPresent(3));
    EXPECT_THAT(contracts.lackIds, IsEmpty());
}

TEST_F(ContractRecovery, ChannelWithoutIdsLacksNone) { EXPECT_TRUE(contracts.Id_chkPresent(0)); }

TEST_F(ContractRecovery, MissingIdsAreKeptInTheOrderOfTheRules) {
    idToIndex = {{"SR505", 7}};
    rules[3].m_SubsContractId = {"ZC999", "SR505", "AP999", "ZC999"};

    EXPECT_FALSE(contracts.Id_chkPresent(3));
    EXPECT_THAT(contracts.lackIds, ElementsAre("ZC999", "AP999", "ZC999"));
}

TEST_F(ContractRecovery, EachCheckStartsWithAnEmptyList) {
    rules[3].m_SubsContractId = {"ZC999"};
    rules[4].m_SubsContractId = {"AP999"};

    contracts.Id_chkPresent(3);
    EXPECT_FALSE(contracts.Id_chkPresent(4));
    EXPECT_THAT(contracts.lackIds, ElementsAre("AP999"));
    EXPECT_TRUE(contracts.Id_chkPresent(5));
    EXPECT_THAT(contracts.lackIds, IsEmpty());
}

TEST_F(ContractRecovery, ClassesAreNoIdsThatCouldBeMissing) {
    idToIndex = {{"SR505", 7}};
    rules[0].m_SubsContractClass = {"ZC"};

    EXPECT_EQ(contracts.DumpLackId(), 1);
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(ContractRecovery, NothingKnownIsReportedInsteadOfEveryMissingId) {
    rules[0].m_SubsContractId = {"SR505"};

    EXPECT_EQ(contracts.DumpLackId(), 0);
    EXPECT_THAT(log.Take(), ElementsAre("WARN All instrument count is zero."));
}

TEST_F(ContractRecovery, ChannelsWithMissingIdsAreReportedInOrderAndTheOthersNot) {
    idToIndex = {{"SR505", 7}};
    rules[0].m_SubsContractId = {"SR505"};
    rules[2].m_SubsContractId = {"SR505", "ZC999", "AP999"};
    rules[15].m_SubsContractId = {"CF999"};

    EXPECT_EQ(contracts.DumpLackId(), 1);
    EXPECT_THAT(log.Take(),
                ElementsAre("WARN [channel:2] Warning!! Hasn't receive these insts:ZC999,AP999! The program continues "
                            "to run",
                            "WARN [channel:15] Warning!! Hasn't receive these insts:CF999! The program continues to "
                            "run"));
}

}  // namespace
