#include <algorithm>
#include <cerrno>
#include <iterator>

#include "interface/CardRegisters.h"
#include "tools/cardtest/CardUnderTest.h"
#include "tools/cardtest/Helper.h"
#include "tools/cardtest/SavedState.h"

namespace cardtest {
namespace {

constexpr std::uint32_t kTable = card_reg::kSingleLegTable;

std::vector<std::uint32_t> counters(const RegisterCore& registers) {
    std::vector<std::uint32_t> values;
    for (const std::uint32_t word : card_reg::kParserCounters) values.push_back(registers.read(word));
    return values;
}

void resetRoot(const RegisterCore& registers) {
    errno = 0;
    const int result = enyx_hw_core_reset(registers.root());
    expect(result == 0, "result 0 of the root core's reset", resultText(result, errno));
}

// The pulse has the length that the card's users give it.
void pulseRegister(const RegisterCore& registers) {
    registers.write(card_reg::kReset, 1);
    restMs(1000);
    registers.write(card_reg::kReset, 0);
}

template <typename Reset>
void resetForgets(const TestPlan& plan, Reset reset) {
    const RegisterCore registers(plan.bus);
    const TableAccess tables(registers);
    const CardSaved saved(registers);
    const std::uint32_t row = tables.freeRow(kTable);
    tables.write(kTable, row, card_reg::kMaskWord, 1);
    registers.write(card_reg::kDecodeSwitch, card_reg::kSwitchLevel1);
    if (tables.read(kTable, row, card_reg::kMaskWord) != 1 || registers.read(card_reg::kDecodeSwitch) == 0)
        throw Untestable{"the card took no mask or no switch that it could forget"};
    reset(registers);
    std::uint32_t mask = 0, decode = 0;
    const bool forgotten = within(kPatienceMs, [&] {
        mask = tables.read(kTable, row, card_reg::kMaskWord);
        decode = registers.read(card_reg::kDecodeSwitch);
        return mask == 0 && decode == 0;
    });
    tables.write(kTable, row, card_reg::kMaskWord, 0);
    expect(forgotten, "mask 0 and decode switch 0 after the reset",
           "mask " + hex(mask) + ", decode switch " + hex(decode));
}

void rootResetForgets(const TestPlan& plan) { resetForgets(plan, resetRoot); }

void registerResetForgets(const TestPlan& plan) { resetForgets(plan, pulseRegister); }

void countersSettle(const TestPlan& plan) {
    constexpr int kStillMs = 1000;
    const RegisterCore registers(plan.bus);
    const CardSaved saved(registers);
    const std::vector<std::uint32_t> before = counters(registers);
    resetRoot(registers);
    std::vector<std::uint32_t> last = counters(registers);
    bool moved = last != before;
    std::int64_t since = nowMs();
    const bool still = within(static_cast<int>(plan.seconds) * 1000 + 2 * kPatienceMs, [&] {
        const std::vector<std::uint32_t> now = counters(registers);
        if (now != last) {
            moved = true;
            since = nowMs();
            last = now;
        }
        return moved && nowMs() - since >= kStillMs;
    });
    if (!moved) throw Untestable{"the counters did not move: no static data seems to reach the card"};
    expect(still, "parser counters that stand still once the instruments are learned", "counters that go on moving");
}

}  // namespace

std::vector<Check> resetChecks() {
    constexpr const char* g = "reset";
    constexpr const char* leaves =
        "the instruments were learned anew, 0x12 is 0, and the network registers hold what a reset leaves in them";
    return {
        {g, "reset-root", "A reset of the root core forgets the masks and the decode switch.", rootResetForgets, true,
         leaves},
        {g, "reset-register", "1 and then 0 in register 0x10 does the same.", registerResetForgets, true, leaves},
        {g, "reset-counters", "After a reset the eight parser counters move, and then stand still.", countersSettle,
         true, leaves},
    };
}

}  // namespace cardtest
