#include "hw/ScenarioPower.h"

#include <cstdio>
#include <cstdlib>

#include "hw/Cards.h"
#include "hw/Hooks.h"

namespace vexo_sim {
namespace {

constexpr char kVariable[] = "VEXO_SIM_SCENARIO";

}  // namespace

bool scenarioOfEnvironment(std::optional<scenario::Scenario>& wanted) {
    const char* path = ::secure_getenv(kVariable);
    if (path == nullptr || *path == '\0') return true;
    std::string error;
    wanted = scenario::load(path, error);
    if (!wanted)
        std::fprintf(stderr, "libenyx-hw-c: %s: %s. There is no simulated card.\n", kVariable, error.c_str());
    return wanted.has_value();
}

void powerOnAs(const scenario::Scenario& scenario, EmbeddedCard& card) {
    const std::lock_guard<std::mutex> lock(card.mutex);
    card.clock.forget();
    Card embedded = card.card();
    scenario::powerOn(embedded, scenario, card.clock.now(), card.index);
}

void addCallFailures(const scenario::Scenario& scenario) {
    for (const scenario::CallFailure& failure : scenario.callFailures)
        hooks::addScript({failure.call.c_str(), failure.nth, failure.times, failure.error,
                          failure.result ? 1 : 0, failure.result.value_or(0)});
}

int powerCycleAs(const char* path, std::string& error) {
    const std::optional<scenario::Scenario> wanted = scenario::load(path, error);
    if (!wanted) {
        errno = EINVAL;
        return -1;
    }
    Cards& cards = Cards::instance();
    if (cards.powerCycle(wanted->config, wanted->bus + 1) != 0) return -1;
    for (std::uint32_t index = 0; index <= wanted->bus; ++index) powerOnAs(*wanted, *cards.find(index));
    hooks::clearScripts();
    addCallFailures(*wanted);
    return 0;
}

}  // namespace vexo_sim
