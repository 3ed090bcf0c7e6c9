#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "sim/hw/Cards.h"
#include "sim/hw/Exported.h"

namespace vexo_sim {
namespace {

// FNV-1a. The key names a directory: it must be the same in every run, which std::hash does not promise.
class Fingerprint {
public:
    void add(std::string_view text) {
        for (const char c : text) addByte(static_cast<unsigned char>(c));
        addByte(0);
    }
    void add(std::uint32_t number) {
        for (int shift = 0; shift < 32; shift += 8) addByte(static_cast<unsigned char>(number >> shift));
    }
    std::uint64_t value() const { return m_value; }

private:
    void addByte(unsigned char byte) { m_value = (m_value ^ byte) * 0x100000001B3U; }

    std::uint64_t m_value = 0xCBF29CE484222325U;
};

void addEnvironment(Fingerprint& key, const char* variable) {
    const char* value = ::secure_getenv(variable);
    key.add(value != nullptr ? value : "");
}

bool addCard(Fingerprint& key, HwCard& card) {
    CardAccess access(card, CardAccess::kAsItIs);
    if (!access) return false;
    key.add(card.index);
    key.add(card.backend->hostedScenario());
    const ParserState& parser = access->state().parser;
    const std::uint32_t count = safeCount(parser.count);
    for (std::uint32_t n = 0; n < count; ++n) {
        const Instrument& instrument = parser.instruments[n];
        key.add(instrument.table);
        key.add(instrument.row);
        key.add(std::string_view(instrument.id, ::strnlen(instrument.id, sizeof instrument.id)));
    }
    return access.end();
}

}  // namespace
}  // namespace vexo_sim

int enyx_sim_card_key(uint64_t* key) {
    using namespace vexo_sim;
    if (key == nullptr) {
        errno = EINVAL;
        return -1;
    }
    Fingerprint fingerprint;
    // Of a card of this process. A replay announces what is in its capture, and faults spoil what is announced.
    addEnvironment(fingerprint, "VEXO_SIM_SCENARIO");
    addEnvironment(fingerprint, scenario::kSettingsVariable);
    bool found = false;
    for (std::uint32_t index = 0; index < kMaxCards; ++index) {
        HwCard* card = Cards::instance().find(index);
        if (card != nullptr && card->announced) found = addCard(fingerprint, *card) || found;
    }
    if (!found) {
        errno = ENODEV;
        return -1;
    }
    *key = fingerprint.value();
    return 0;
}
