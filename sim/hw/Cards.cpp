#include "sim/hw/Cards.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "capture/StandardStreams.h"
#include "sim/hw/Hooks.h"
#include "sim/hw/HostedCard.h"
#include "sim/hw/OwnCard.h"
#include "sim/hw/RemoteCard.h"
#include "sim/hw/TransportLibrary.h"
#include "sim/shm/CardPlaces.h"

namespace vexo_sim {
namespace {

constexpr char kScenarioVariable[] = "VEXO_SIM_SCENARIO";

std::string environment(const char* variable) {
    const char* value = ::secure_getenv(variable);
    return value != nullptr ? value : "";
}

// Whether the environment describes a card of the process's own: by a scenario file, by settings, or by both.
bool hasScenario() {
    return !environment(kScenarioVariable).empty() || !environment(scenario::kSettingsVariable).empty();
}

void addFailures(const HwCard& card, const HostInfo& info) {
    const std::uint32_t count = std::min(info.failureCount, kMaxSharedFailures);
    for (std::uint32_t n = 0; n < count; ++n) {
        const CallFailure failure = info.failures[n];
        hooks::addScript(failure, &card);  // rejects a script that is not a failure
    }
}

std::unique_ptr<HwCard> makeHosted(std::uint32_t index, uid_t user) {
    std::unique_ptr<HostedCard> hosted = HostedCard::attach(index, user);
    if (hosted == nullptr) return nullptr;
    auto card = std::make_unique<HwCard>();
    card->index = index;
    card->accelerator.card = card.get();
    card->accelerator.alive = true;
    addFailures(*card, hosted->info());
    card->backend = std::move(hosted);
    return card;
}

// What VEXO_SIM_CARD asks for.
struct Wish {
    bool own = true;     // a card of the process's own is welcome
    bool hosted = true;  // a hosted one is
    uid_t user = geteuid();
    bool remote = false;  // a remote one, and no other
};

// Nothing, with a line on standard error, when the variable cannot be understood.
std::optional<Wish> readWish() {
    constexpr std::string_view kHostedBy = "hosted:";
    const char* variable = ::secure_getenv("VEXO_SIM_CARD");
    const std::string_view text = variable != nullptr ? variable : "";
    if (text == "" || text == "auto") return Wish{true, !hasScenario()};
    if (text == "embedded") return Wish{true, false};
    if (text == "hosted") return Wish{false, true};
    if (text == "remote") return Wish{false, false, geteuid(), true};
    if (text.substr(0, kHostedBy.size()) != kHostedBy) {
        capture::printError(
            "libenyx-hw-c: VEXO_SIM_CARD is \"%s\", it must be auto, embedded, hosted, hosted:USER or remote: "
            "no simulated card.\n",
            variable);
        return std::nullopt;
    }
    const std::string name(text.substr(kHostedBy.size()));
    const std::optional<uid_t> user = findUser(name);
    if (user) return Wish{false, true, *user};
    capture::printError("libenyx-hw-c: VEXO_SIM_CARD is \"%s\", there is no user %s: no simulated card.\n", variable,
                        name.c_str());
    return std::nullopt;
}

bool isUsable(const HwCard* card) { return card != nullptr && card->backend->isCurrent(); }

}  // namespace

Cards& Cards::instance() {
    static Cards& cards = *new Cards;  // never destroyed: handles may be used by a program's last destructors
    return cards;
}

void Cards::decide() {
    const std::optional<Wish> wish = readWish();
    if (!wish) return;
    if (wish->remote) {
        if (makeRemote()) m_kind = Kind::kRemote;
        return;
    }
    m_hostUser = wish->user;
    if (wish->hosted) attachHosted();
    const bool found = std::any_of(std::begin(m_cards), std::end(m_cards),
                                   [](HwCard* card) { return card != nullptr; });
    if (!wish->own && !found)
        capture::printError("libenyx-hw-c: no card is hosted that this user may use. Start one: vexo-simcard\n");
    if (!wish->own || found)
        m_kind = Kind::kHosted;
    else if (makeOwn())
        m_kind = Kind::kEmbedded;
}

bool Cards::makeOwn() {
    if (!hasScenario())
        return powerOn(1, [](Card& card, const CardTime& now, std::uint32_t) { card.powerOn(CardConfig{}, now); }) == 0;
    std::string error;
    const std::optional<scenario::Scenario> scenario = scenario::load(
        environment(kScenarioVariable), scenario::settingsOfEnvironment(environment(scenario::kSettingsVariable)),
        error);
    if (!scenario) capture::printError("libenyx-hw-c: %s\nlibenyx-hw-c: no simulated card.\n", error.c_str());
    return scenario && powerOn(*scenario) == 0;
}

bool Cards::makeRemote() {
    std::string error;
    if (connectRemote(error)) return true;
    capture::printError("libenyx-hw-c: %s\nlibenyx-hw-c: no simulated card.\n", error.c_str());
    return false;
}

// A scenario describes the model that answers registers, and faults.
bool Cards::connectRemote(std::string& error) {
    const std::optional<RemoteSettings> settings = readRemoteSettings(error);
    if (!settings) return false;
    const std::optional<scenario::Scenario> scenario = scenario::load(
        environment(kScenarioVariable), scenario::settingsOfEnvironment(environment(scenario::kSettingsVariable)),
        error);
    if (!scenario) return false;
    if (!scenario->replayFile.empty()) {
        error = "a remote card cannot replay a capture too: leave out VEXO_SIM_CARD=remote or the scenario's replay";
        return false;
    }
    remote::Transport* const transport = loadTransport(error);
    if (transport == nullptr) return false;
    const std::uint32_t bus = settings->bus.value_or(scenario->bus);
    std::unique_ptr<RemoteCard> remote = RemoteCard::make(*settings, bus, *transport, *scenario, error);
    if (remote == nullptr) return false;
    for (const CallFailure& failure : scenario->callFailures) hooks::addScript(failure);
    auto card = std::make_unique<HwCard>();
    card->index = bus;
    card->accelerator.card = card.get();
    card->accelerator.alive = true;
    card->backend = std::move(remote);
    m_cards[bus] = card.get();
    m_attached.push_back(std::move(card));
    return true;
}

void Cards::attachHosted() {
    for (std::uint32_t index = 0; index < kMaxCards; ++index) {
        if (isUsable(m_cards[index])) continue;
        if (m_cards[index] != nullptr) hooks::removeScripts(m_cards[index]);
        std::unique_ptr<HwCard> card = makeHosted(index, m_hostUser);
        if (card == nullptr) continue;
        m_cards[index] = card.get();
        m_attached.push_back(std::move(card));
    }
}

void Cards::decideOnce() {
    std::call_once(m_firstUse, [this] { decide(); });
}

void Cards::refresh() {
    decideOnce();
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_kind == Kind::kHosted) attachHosted();
}

HwCard* Cards::find(std::uint32_t index) {
    decideOnce();
    HwCard* card = index < kMaxCards ? m_cards[index].load() : nullptr;
    return card != nullptr && isPresent(*card) ? card : (errno = ENODEV, nullptr);
}

int Cards::powerCycle(const CardConfig& config, std::uint32_t count) {
    if (count < 1 || count > kMaxCards || !isValid(config)) {
        errno = EINVAL;
        return -1;
    }
    if (claimOwn() != 0) return -1;
    return powerOn((1U << count) - 1, [&](Card& card, const CardTime& now, std::uint32_t index) {
        CardConfig own = config;
        own.seed += index;
        card.powerOn(own, now);
    });
}

int Cards::powerCycle(const scenario::Scenario& scenario) {
    if (claimOwn() != 0) return -1;
    hooks::clearScripts();
    return powerOn(scenario);
}

// A process whose first call is a power cycle gets a card of its own, unless VEXO_SIM_CARD insists on another.
int Cards::claimOwn() {
    std::call_once(m_firstUse, [this] {
        const char* wish = ::secure_getenv("VEXO_SIM_CARD");
        const std::string_view text = wish != nullptr ? wish : "";
        const bool isHosted = text.substr(0, 6) == "hosted";
        m_kind = isHosted ? Kind::kHosted : text == "remote" ? Kind::kRemote : Kind::kEmbedded;
    });
    if (m_kind == Kind::kHosted || m_kind == Kind::kRemote) {
        errno = EPERM;
        return -1;
    }
    m_kind = Kind::kEmbedded;
    pool<enyx_hw_a2c_stream>().killIf([](const enyx_hw_a2c_stream&) { return true; });
    pool<enyx_hw_c2a_stream>().killIf([](const enyx_hw_c2a_stream&) { return true; });
    return 0;
}

// Null when there is no memory for it.
OwnCard* Cards::own(HwCard& card) {
    if (card.backend == nullptr) card.backend = OwnCard::make();
    return static_cast<OwnCard*>(card.backend.get());
}

template <typename SwitchOn>
int Cards::powerOn(std::uint32_t buses, SwitchOn switchOn) {
    for (std::uint32_t index = 0; index < kMaxCards; ++index) {
        HwCard& card = m_own[index];
        m_cards[index] = nullptr;
        card.index = index;
        card.accelerator.card = &card;
        card.accelerator.alive = (buses >> index & 1) != 0;
        if (!card.accelerator.alive) {
            pool<enyx_hw_mmio>().killIf([&card](const enyx_hw_mmio& mmio) { return mmio.card == &card; });
            continue;
        }
        OwnCard* memory = own(card);
        if (memory == nullptr) {
            errno = ENOMEM;
            return -1;
        }
        memory->powerOn([&](Card& state, const CardTime& now) { switchOn(state, now, index); });
        m_cards[index] = &card;
    }
    return 0;
}

int Cards::powerOn(const scenario::Scenario& scenario) {
    for (const CallFailure& failure : scenario.callFailures) hooks::addScript(failure);
    const int result = powerOn(1U << scenario.bus, [&](Card& card, const CardTime& now, std::uint32_t) {
        scenario::powerOn(card, scenario, now);
    });
    return result == 0 && !scenario.replayFile.empty() ? startReplay(scenario) : result;
}

// Nothing to replay: remove the card. Generated quotes would pass for those of the capture.
int Cards::startReplay(const scenario::Scenario& scenario) {
    HwCard& card = m_own[scenario.bus];
    std::string problem;
    const bool replays = own(card)->replay(scenario, problem);
    if (!problem.empty()) capture::printError("libenyx-hw-c: %s\n", problem.c_str());
    if (replays) return 0;
    m_cards[scenario.bus] = nullptr;
    card.accelerator.alive = false;
    errno = EINVAL;
    return -1;
}

}  // namespace vexo_sim
