#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <thread>

#include "interface/CardRegisters.h"
#include "tools/cardtest/CardUnderTest.h"
#include "tools/cardtest/Helper.h"

namespace cardtest {
namespace {

// Pairs of registers that can be read without an effect on the card. 0x103 must not be among them: its first read after
// a version check is the verdict that a starting program waits for. Each pair begins where a 64-bit field may begin.
constexpr std::uint32_t kPairs[] = {0x200C, 0x210C, card_reg::kExchangeTimeA, card_reg::kTradingDate};

std::uint64_t lowBits(unsigned count) { return count >= 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << count) - 1; }

std::uint64_t readPair(const RegisterCore& registers, std::uint32_t word) {
    return registers.read(word) | std::uint64_t{registers.read(word + 1)} << 32;
}

// Reads a field, and the whole pair before and after it. Clocks and counters move, so it tries again until both reads
// of the pair agree.
void compareField(const RegisterCore& registers, std::uint32_t word, unsigned offset, unsigned width) {
    constexpr int kTries = 1000;
    for (int attempt = 0; attempt < kTries; ++attempt) {
        const std::uint64_t before = readPair(registers, word);
        const std::uint64_t seen = registers.readField(word, offset, width);
        if (readPair(registers, word) != before) continue;
        const std::uint64_t expected = before >> offset & lowBits(width);
        expect(seen == expected,
               hex(expected) + " for " + std::to_string(width) + " bits at bit " + std::to_string(offset) +
                   " of register " + hex(word),
               hex(seen));
        return;
    }
    throw Untestable{"register " + hex(word) + " never stood still"};
}

void widthsAgree(const TestPlan& plan) {
    const RegisterCore registers(plan.bus);
    for (const std::uint32_t word : kPairs)
        for (unsigned width = 8; width <= 64; width += 8) compareField(registers, word, 0, width);
}

void offsetsAgree(const TestPlan& plan) {
    const RegisterCore registers(plan.bus);
    for (const std::uint32_t word : kPairs)
        for (unsigned offset = 8; offset < 32; offset += 8)
            for (unsigned width = 8; offset + width <= 32; width += 8) compareField(registers, word, offset, width);
}

void readsRepeat(const TestPlan& plan) {
    const RegisterCore registers(plan.bus);
    const std::uint64_t version = registers.readField(card_reg::kHardwareVersion, 0, 32);
    for (int n = 0; n < 1000; ++n) {
        const std::uint64_t again = registers.readField(card_reg::kHardwareVersion, 0, 32);
        expect(again == version, "hardware version " + hex(version) + " each time", hex(again));
    }
}

void readsFromThreads(const TestPlan& plan) {
    constexpr int kThreads = 4;
    constexpr int kReads = 2000;
    const RegisterCore registers(plan.bus);
    const std::uint64_t version = registers.read(card_reg::kHardwareVersion);
    std::atomic<int> failed{0}, differing{0};
    const auto work = [&] {
        const enyx_hw_register_description whole{std::uint64_t{card_reg::kHardwareVersion} * 4, 0, 32};
        for (int n = 0; n < kReads; ++n) {
            std::uint64_t value = 0;
            if (enyx_hw_read(registers.core(), &whole, &value) < 0)
                ++failed;
            else if (value != version)
                ++differing;
        }
    };
    std::vector<std::thread> threads;
    for (int n = 0; n < kThreads; ++n) threads.emplace_back(work);
    for (std::thread& thread : threads) thread.join();
    expect(failed == 0 && differing == 0, "hardware version " + hex(version) + " in each of 4 threads",
           std::to_string(failed) + " failed reads and " + std::to_string(differing) + " other values");
}

bool isTime(std::uint32_t time) { return time / 10000 < 24 && time / 100 % 100 < 60 && time % 100 < 60; }

bool isDate(std::uint32_t date) {
    const std::uint32_t month = date / 100 % 100;
    const std::uint32_t day = date % 100;
    const std::uint32_t year = date / 10000;
    return date == 0 || (year >= 1990 && year < 2200 && month >= 1 && month <= 12 && day >= 1 && day <= 31);
}

void timesAreDecimal(const TestPlan& plan) {
    const RegisterCore registers(plan.bus);
    for (const std::uint32_t word : {card_reg::kExchangeTimeA, card_reg::kExchangeTimeB}) {
        const std::uint32_t time = registers.read(word);
        expect(isTime(time), "a time HHMMSS in register " + hex(word), std::to_string(time));
    }
}

void dateIsDecimal(const TestPlan& plan) {
    const std::uint32_t date = RegisterCore(plan.bus).read(card_reg::kTradingDate);
    expect(isDate(date), "0 or a date YYYYMMDD in register 0x106", std::to_string(date));
}

void dateIsKept(const TestPlan& plan) {
    const RegisterCore registers(plan.bus);
    const std::uint32_t found = registers.read(card_reg::kTradingDate);
    std::uint32_t seen[2];
    const std::uint32_t dates[] = {20310305, 20320917};
    for (int n = 0; n < 2; ++n) {
        registers.write(card_reg::kTradingDate, dates[n]);
        seen[n] = registers.read(card_reg::kTradingDate);
    }
    registers.write(card_reg::kTradingDate, found);
    for (int n = 0; n < 2; ++n)
        expect(seen[n] == dates[n], "register 0x106 keeps " + std::to_string(dates[n]), std::to_string(seen[n]));
}

// Reads until two reads in a row are equal: by then a pending verdict has been read.
std::uint32_t fibreStatus(const RegisterCore& registers) {
    std::uint32_t status = registers.read(card_reg::kVerdictOrFibre);
    const bool steady = within(kPatienceMs, [&] {
        const std::uint32_t before = status;
        status = registers.read(card_reg::kVerdictOrFibre);
        return status == before;
    });
    if (!steady) throw Untestable{"the fibre status in register 0x103 never stands still"};
    return status;
}

void verdictComesOnce(const TestPlan& plan) {
    constexpr std::uint32_t kVersion = 0x01010213;
    const RegisterCore registers(plan.bus);
    const std::uint32_t fibres = fibreStatus(registers);
    std::uint32_t verdicts[2], after[2];
    for (int n = 0; n < 2; ++n) {
        registers.write(card_reg::kSoftwareVersion, kVersion);
        verdicts[n] = registers.read(card_reg::kVerdictOrFibre);
        after[n] = registers.read(card_reg::kVerdictOrFibre);
    }
    for (int n = 0; n < 2; ++n) {
        expect(verdicts[n] <= card_reg::kVerdictTooOld, "a verdict of 0, 1 or 2 at the first read of 0x103",
               hex(verdicts[n]));
        expect(after[n] == fibres, "the fibre status " + hex(fibres) + " at the second read of 0x103", hex(after[n]));
    }
    expect(verdicts[0] == verdicts[1], "the same verdict on the same version",
           hex(verdicts[0]) + ", then " + hex(verdicts[1]));
    if (verdicts[0] == fibres) throw Untestable{"verdict and fibre status are the same number, " + hex(fibres)};
}

}  // namespace

std::vector<Check> registerChecks() {
    constexpr const char* g = "registers";
    return {
        {g, "read-widths",
         "Reads of 8, 16, 24 ... 64 bits agree with the 32-bit reads and have nothing above their width.", widthsAgree},
        {g, "read-offsets", "Reads that begin at bit 8, 16 or 24 of a register agree with the 32-bit read.",
         offsetsAgree},
        {g, "read-again", "A register that does not change reads the same each time.", readsRepeat},
        {g, "read-threads", "Registers may be read from any thread.", readsFromThreads},
        {g, "register-time", "The exchange times in 0x104 and 0x105 are decimal HHMMSS.", timesAreDecimal},
        {g, "register-date", "The trading date in 0x106 is 0 or a decimal YYYYMMDD.", dateIsDecimal},
        {g, "date-kept", "The trading date in 0x106 is kept as it was written.", dateIsKept, true, nullptr},
        {g, "version-verdict",
         "The first read of 0x103 after a write to 0x102 is the verdict on the version, every other the fibre status.",
         verdictComesOnce, true, "0x102 holds version 1.1.2.13"},
    };
}

}  // namespace cardtest
