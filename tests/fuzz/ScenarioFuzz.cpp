// The text of a scenario, with a file of instruments and single settings beside it. Either the scenario is refused with
// one line that names a place, or the card that it describes can be switched on and used.
//
// An input: a byte of switches, the length of the settings (two bytes), the length of the instrument file (two bytes),
// settings, instrument file, scenario.

#include <algorithm>
#include <memory>

#include "interface/CardRegisters.h"
#include "sim/card/Card.h"
#include "sim/card/ZeroedMemory.h"
#include "sim/scenario/Scenario.h"
#include "tests/fuzz/Fuzz.h"
#include "tests/support/TempDir.h"

namespace {

enum Switch : std::uint8_t {
    kNoFile = 1,   // the settings alone
    kSwitchOn = 2  // and the card is used for a while, which takes most of the time
};

std::string Text(fuzz::Input& input, std::size_t size) {
    const std::uint8_t* const bytes = input.Bytes(size);
    return size == 0 ? std::string() : std::string(reinterpret_cast<const char*>(bytes), size);
}

class Campaign {
public:
    Campaign() {
        m_dir.Write("instruments.txt", "");
        m_dir.Write("scenario.ini", "");
    }

    void Run(fuzz::Input input) {
        const std::uint8_t switches = input.Byte();
        const std::size_t settingsSize = input.Word();
        const std::size_t instrumentsSize = input.Word();
        const auto settings = vexo_sim::scenario::settingsOfEnvironment(Text(input, settingsSize));
        WriteIfNew(m_instruments, "instruments.txt", Text(input, instrumentsSize));
        WriteIfNew(m_scenario, "scenario.ini", input.Rest());
        const std::string path = (switches & kNoFile) != 0 ? "" : m_dir.Path("scenario.ini");
        std::string error;
        const auto scenario = vexo_sim::scenario::load(path, settings, error);
        if (!scenario) return CheckRefusal(error);
        fuzz::Require(vexo_sim::isValid(vexo_sim::scenario::configAt(*scenario, Noon())),
                      "a scenario describes a card that cannot be");
        if ((switches & kSwitchOn) != 0) Use(*scenario);
    }

private:
    void WriteIfNew(std::string& last, const char* name, const std::string& text) {
        if (text == last) return;
        m_dir.Write(name, text);
        last = text;
    }

    static void CheckRefusal(const std::string& error) {
        fuzz::Require(!error.empty(), "a scenario is refused without a reason");
        fuzz::Require(error.find('\n') == std::string::npos, "a reason is longer than a line");
        fuzz::Require(error.find(": ") != std::string::npos, "a reason names no place");
    }

    static vexo_sim::CardTime Noon() { return {1'000'000'000, 20250303, 120000, 0}; }

    void Use(const vexo_sim::scenario::Scenario& scenario) {
        vexo_sim::CardState& state = *m_memory.get();
        vexo_sim::Card card(state);
        vexo_sim::CardTime now = Noon();
        vexo_sim::scenario::powerOn(card, scenario, now);
        card.openUp(0);
        card.openUp(3);
        for (int step = 0; step < 4; ++step) {
            now.monotonicNs += 40'000'000;
            card.advance(now);
            card.write(card_reg::kMapTransmit * 4, 0, 32, 1);
            card.write(card_reg::kDecodeSwitch * 4, 0, 32, 3);
            for (const std::uint32_t channel : {0U, 3U}) {
                while (card.peek(channel).data != nullptr) card.release(channel);
            }
        }
        card.closeUp(0);
        card.closeUp(3);
    }

    const vexo_sim::ZeroedMemory<vexo_sim::CardState> m_memory;
    const test_support::TempDir m_dir;
    std::string m_instruments;
    std::string m_scenario;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Campaign campaign;
    campaign.Run({data, size});
    return 0;
}
