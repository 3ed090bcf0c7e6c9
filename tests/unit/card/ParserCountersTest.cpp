#include <cstdint>
#include <string>
#include <vector>

#include "tests/unit/card/CardServiceFixture.h"
#include "tests/unit/card/MutexProbe.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using Vexo2_U50::CZceFpgaServ;

constexpr unsigned long kCounters[] = {0x200B, 0x200C, 0x200D, 0x200E, 0x210B, 0x210C, 0x210D, 0x210E};

class ParserCounters : public test_support::CardServiceFixture {
protected:
    ParserCounters() {
        drv.registers[0x11] = 3;
        for (const unsigned long counter : kCounters) drv.registers[counter] = static_cast<unsigned int>(counter) * 3;
    }

    /// The counter reads @p first, @p second and @p third in the reference and the two passes.
    void Script(unsigned long counter, unsigned int first, unsigned int second, unsigned int third) {
        drv.scripted[counter] = {first, second, third};
    }
};

TEST_F(ParserCounters, SwitchedOffDecodingIsReportedAtOnce) {
    drv.registers[0x11] = 0;

    EXPECT_FALSE(serv.FpgaCounterEqual());

    EXPECT_THAT(drv.TakeCalls(), ElementsAre("R 0x11"));
    EXPECT_THAT(clock.Sleeps(), IsEmpty());
    EXPECT_THAT(log.Take(), ElementsAre("INFO 0x11 register value:0x0"));
}

TEST_F(ParserCounters, SwitchThatCannotBeReadCountsAsOff) {
    drv.failingReads = {0x11};

    EXPECT_FALSE(serv.FpgaCounterEqual());
    EXPECT_THAT(clock.Sleeps(), IsEmpty());
    EXPECT_THAT(log.Take(), ElementsAre("INFO 0x11 register value:0x0"));
}

TEST_F(ParserCounters, CountersThatStandStillForTwoSecondsAreSettled) {
    EXPECT_TRUE(serv.FpgaCounterEqual());

    EXPECT_THAT(clock.Sleeps(), ElementsAre(1, 1));
    EXPECT_THAT(log.Take(),
                ElementsAre("INFO 0x11 register value:0x3", "INFO Fpga parse static count doesn't change!"));
}

TEST_F(ParserCounters, AnyNonZeroSwitchCountsAsOn) {
    for (const unsigned int value : {1U, 2U, 0x80000000U}) {
        drv.registers[0x11] = value;
        EXPECT_TRUE(serv.FpgaCounterEqual()) << value;
    }
    EXPECT_THAT(log.Take(),
                ElementsAre("INFO 0x11 register value:0x1", "INFO Fpga parse static count doesn't change!",
                            "INFO 0x11 register value:0x2", "INFO Fpga parse static count doesn't change!",
                            "INFO 0x11 register value:0x80000000", "INFO Fpga parse static count doesn't change!"));
}

TEST_F(ParserCounters, EightCountersAreReadInOrderBeforeAndAfterEachSecond) {
    std::vector<std::string> steps;
    drv.onRead = [&](unsigned long addr) { steps.push_back(std::to_string(addr)); };
    clock.OnSleep([&](unsigned int seconds) { steps.push_back("sleep " + std::to_string(seconds)); });

    serv.FpgaCounterEqual();

    std::vector<std::string> expected = {std::to_string(0x11)};
    for (int round = 0; round < 3; ++round) {
        if (round > 0) expected.push_back("sleep 1");
        for (const unsigned long counter : kCounters) expected.push_back(std::to_string(counter));
    }
    EXPECT_THAT(steps, ElementsAreArray(expected));
}

TEST_F(ParserCounters, AnySingleCounterThatMovesInTheFirstSecondUnsettles) {
    for (const unsigned long counter : kCounters) {
        Script(counter, 5, 6, 5);
        EXPECT_FALSE(serv.FpgaCounterEqual()) << counter;
    }
}

TEST_F(ParserCounters, AnySingleCounterThatMovesInTheSecondSecondUnsettles) {
    for (const unsigned long counter : kCounters) {
        Script(counter, 5, 5, 6);
        EXPECT_FALSE(serv.FpgaCounterEqual()) << counter;
    }
}

TEST_F(ParserCounters, EachPassIsComparedWithTheReferenceAndNotWithThePassBefore) {
    Script(0x200B, 5, 6, 6);

    EXPECT_FALSE(serv.FpgaCounterEqual());
}

TEST_F(ParserCounters, SecondPassRunsAlsoWhenTheFirstHasFoundADifference) {
    Script(0x200B, 5, 6, 7);

    EXPECT_FALSE(serv.FpgaCounterEqual());

    EXPECT_THAT(clock.Sleeps(), ElementsAre(1, 1));
    EXPECT_EQ(drv.TakeCalls().size(), 1u + 3 * 8);
    EXPECT_THAT(log.Take(), ElementsAre("INFO 0x11 register value:0x3"));
}

TEST_F(ParserCounters, LookingAtTheCountersTakesNoLock) {
    bool everHeld = false;
    drv.onAccess = [&] { everHeld = everHeld || test_support::IsHeld(CZceFpgaServ::subscribe_mutex); };

    serv.FpgaCounterEqual();

    EXPECT_FALSE(everHeld);
}

}  // namespace
