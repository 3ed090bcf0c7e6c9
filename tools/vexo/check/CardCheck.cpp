#include "tools/vexo/check/CardCheck.h"

#include <dlfcn.h>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <set>

#include "interface/CardRegisters.h"
#include "tools/cardtest/CardUnderTest.h"
#include "tools/vexo/check/CardUsers.h"
#include "tools/vexo/check/Quiet.h"

namespace vexo::check {
namespace {

// What a read of the bus gives when no card answers any more.
constexpr std::uint32_t kNobodyAnswers = 0xFFFFFFFF;

constexpr char kRevive[] = "restart the card or its host, and start no master before: it would log two million errors";

std::uint32_t today() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    return static_cast<std::uint32_t>((local.tm_year + 1900) * 10000 + (local.tm_mon + 1) * 100 + local.tm_mday);
}

std::string listed(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : ", ") + word;
    return text;
}

class CardCheck {
public:
    CardCheck(std::uint32_t bus, Report& report)
        : m_bus(bus), m_place("card " + std::to_string(bus)), m_report(report) {}

    /// @return whether there is a card
    bool run(const std::vector<const ConfigFacts*>& programs);

private:
    void add(Level level, const std::string& what, const std::string& todo = "") {
        m_report.add({level, m_place, 0, what, todo});
    }
    void checkRegisters(const std::vector<const ConfigFacts*>& programs);
    void checkVersion(std::uint32_t version, const std::vector<const ConfigFacts*>& programs);
    void checkFibres(std::uint32_t fibres);
    void checkDate(std::uint32_t date);
    void checkSwitch(std::uint32_t value);
    void checkStream(enyx_hw_accelerator* card, const ConfigFacts& program);

    std::uint32_t m_bus;
    std::string m_place;
    Report& m_report;
};

bool CardCheck::run(const std::vector<const ConfigFacts*>& programs) {
    StandardError errors;
    enyx_hw_accelerator* card = nullptr;
    try {
        card = cardtest::openCard(m_bus);
    } catch (const cardtest::Untestable& why) {
        add(Level::kFatal, "there is no card with this number: " + why.reason + errors.taken(),
            "correct device, load the driver, or start vexo-simcard --bus " + std::to_string(m_bus));
        return false;
    }
    checkRegisters(programs);
    for (const ConfigFacts* const program : programs) checkStream(card, *program);
    return true;
}

void CardCheck::checkRegisters(const std::vector<const ConfigFacts*>& programs) {
    try {
        const cardtest::RegisterCore core(m_bus);
        const std::uint32_t version = core.read(card_reg::kHardwareVersion);
        const std::uint32_t date = core.read(card_reg::kTradingDate);
        if (version == kNobodyAnswers && date == kNobodyAnswers)
            return add(Level::kFatal, "every register reads 0xFFFFFFFF: the card has dropped off the bus", kRevive);
        if (version == 0) return add(Level::kFatal, "the hardware version reads 0: the card does not answer", kRevive);
        checkVersion(version, programs);
        // The first read may give the card's verdict on a start-up that was cut off.
        core.read(card_reg::kVerdictOrFibre);
        checkFibres(core.read(card_reg::kVerdictOrFibre));
        checkDate(date);
        checkSwitch(core.read(card_reg::kDecodeSwitch));
    } catch (const cardtest::Untestable& why) {
        add(Level::kFatal, "the card is there, but " + why.reason + ": it is dead", kRevive);
    }
}

void CardCheck::checkVersion(std::uint32_t version, const std::vector<const ConfigFacts*>& programs) {
    add(Level::kNote, "hardware version " + std::to_string(version));
    for (const ConfigFacts* const program : programs) {
        if (program->device.channel != 0 || program->hardware < 0 ||
            static_cast<std::uint32_t>(program->hardware) <= version)
            continue;
        m_report.add({Level::kFatal, program->file, program->hardwareLine,
                      "[version] asks for hardware " + std::to_string(program->hardware) + ", card " +
                          std::to_string(m_bus) + " has " + std::to_string(version),
                      "update the card, or correct the number"});
    }
}

void CardCheck::checkFibres(std::uint32_t fibres) {
    std::vector<std::string> dark;
    for (std::uint32_t fibre = 0; (1U << fibre) <= card_reg::kAllFibres; ++fibre)
        if ((fibres >> fibre & 1) == 0) dark.push_back(std::to_string(fibre));
    if (dark.empty()) return add(Level::kNote, "all four fibres have light");
    add((fibres & 1) == 0 ? Level::kError : Level::kWarning,
        (dark.size() == 1 ? "no light on fibre " : "no light on fibres ") + listed(dark),
        "check the fibre and its port");
}

void CardCheck::checkDate(std::uint32_t date) {
    add(Level::kNote, date == today() ? "trading date " + std::to_string(date) + ", today"
                                      : "trading date " + std::to_string(date) +
                                            ", not today: the start of a master resets the card");
}

void CardCheck::checkSwitch(std::uint32_t value) {
    const bool level1 = (value & card_reg::kSwitchLevel1) != 0;
    const bool level5 = (value & card_reg::kSwitchLevel5) != 0;
    if (!level1 && !level5) return add(Level::kNote, "decoding is off: no quotes leave the card until a master starts");
    add(Level::kNote, std::string("decoding is on for ") +
                          (level1 ? level5 ? "Level-1 and Level-5" : "Level-1" : "Level-5") + ": a master has started");
}

// Only the streams that the configurations name are opened: a program that starts in this moment must find its own
// free.
void CardCheck::checkStream(enyx_hw_accelerator* card, const ConfigFacts& program) {
    const std::string name = cardtest::streamName(program.device.channel);
    const auto found = [&](Level level, const std::string& what, const std::string& todo) {
        m_report.add({level, program.file, program.deviceLine, what, todo});
    };
    StandardError errors;
    try {
        if (cardtest::tryOpenUp(card, program.device.channel))
            return found(Level::kNote, "stream " + name + " is free", "");
        const int error = errno;
        const std::string said = errors.taken();
        if (error != EBUSY)
            return found(Level::kFatal, "stream " + name + " cannot be opened: " + std::strerror(error) + said,
                         "check the card with vexo-cardtest");
        const std::vector<std::string> users = cardUsers();
        const std::string who = !said.empty()   ? said
                                : users.empty() ? "; this user sees no process that uses a card, root may"
                                                : "; these processes use a card: " + listed(users);
        found(Level::kFatal, "stream " + name + " is taken" + who,
              "stop the program that has it; none of this, if it is the program of this configuration");
    } catch (const cardtest::Untestable& why) {
        found(Level::kFatal, why.reason, "check the card with vexo-cardtest");
    }
}

}  // namespace

bool checkCards(const std::vector<ConfigFacts>& programs, Report& report) {
    std::string error;
    if (!cardtest::loadCardLibrary(error)) {
        std::string files;
        for (const ConfigFacts& program : programs) files += " " + program.file;
        report.add(
            {Level::kFatal, "host", 0, "the card's library cannot be loaded: " + error.substr(0, error.find(". Name")),
             "install it, or put its directory into LD_LIBRARY_PATH; for the simulated card: vexo sim run -- vexo "
             "check --card" +
                 files});
        return false;
    }
    report.add({Level::kNote, "host", 0,
                "the card's library is " + cardtest::libraryInUse() +
                    (::dlsym(RTLD_DEFAULT, "enyx_sim_is_simulated") != nullptr ? ", a SIMULATED card" : ""),
                ""});
    std::map<std::uint32_t, std::vector<const ConfigFacts*>> cards;
    for (const ConfigFacts& program : programs)
        if (program.device.valid) cards[program.device.card].push_back(&program);
    bool all = true;
    for (const auto& [bus, users] : cards) all = CardCheck(bus, report).run(users) && all;
    return all;
}

}  // namespace vexo::check
