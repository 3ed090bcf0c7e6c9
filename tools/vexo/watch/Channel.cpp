#include "tools/vexo/watch/Channel.h"

#include <dlfcn.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tools/cardtest/CardUnderTest.h"
#include "tools/vexo/Failure.h"
#include "tools/vexo/check/CardUsers.h"
#include "tools/vexo/check/Quiet.h"
#include "tools/vexo/show/Harmless.h"

namespace vexo::watch {
namespace {

constexpr std::uint32_t kMaster = 0;

// The simulated card's library names the holder, that of a real card may not.
Taken holderFrom(const std::string& said) {
    if (!said.empty()) {
        Taken taken{harmless(said), std::nullopt};
        constexpr char kWord[] = " process ";
        const std::size_t at = said.rfind(kWord);
        const long pid = at != std::string::npos ? std::atol(said.c_str() + at + sizeof kWord - 1) : 0;
        if (pid > 0) taken.pid = static_cast<pid_t>(pid);
        return taken;
    }
    std::string users;
    for (const std::string& user : check::cardUsers()) users += (users.empty() ? "" : ", ") + harmless(user);
    return {users.empty() ? "; this user sees no process that uses a card, root may"
                          : "; these processes use a card: " + users,
            std::nullopt};
}

std::optional<Taken> takenStream(enyx_hw_accelerator* card, std::uint32_t channel) {
    const check::StandardError errors;
    if (cardtest::tryOpenUp(card, channel)) return std::nullopt;
    const int error = errno;
    if (error == EBUSY) return holderFrom(errors.taken());
    throw cardtest::Untestable{"stream " + cardtest::streamName(channel) +
                               " cannot be opened: " + std::strerror(error) + harmless(errors.taken())};
}

// The other channels of a card may be fewer than sixteen.
void requireNoOtherUser(enyx_hw_accelerator* card) {
    for (std::uint32_t channel = 0; channel < cardtest::kChannels; ++channel) {
        if (channel == kMaster) continue;
        try {
            const std::optional<Taken> taken = takenStream(card, channel);
            if (taken)
                throw Failure(kFinding, "the start of a master resets the card, and stream " +
                                            cardtest::streamName(channel) + " is in use" + taken->by +
                                            "\nWatch that process instead: vexo watch --pid PID");
        } catch (const cardtest::Untestable&) {
            continue;
        }
    }
}

}  // namespace

CardState lookAtCard(const check::ConfigFacts& config) {
    std::string error;
    if (!cardtest::loadCardLibrary(error))
        throw Failure(kNoCard,
                      "the card's library cannot be loaded: " + harmless(error.substr(0, error.find(". Name"))) +
                          "\nInstall it, or put its directory into LD_LIBRARY_PATH. For the simulated card: "
                          "vexo sim run -- vexo watch " +
                          harmless(config.file));
    CardState state;
    state.isSimulated = ::dlsym(RTLD_DEFAULT, "enyx_sim_is_simulated") != nullptr;
    enyx_hw_accelerator* card = nullptr;
    const check::StandardError errors;
    try {
        card = cardtest::openCard(config.device.card);
    } catch (const cardtest::Untestable& why) {
        throw Failure(kNoCard, "there is no card " + std::to_string(config.device.card) + ": " + why.reason +
                                   harmless(errors.taken()));
    }
    try {
        state.taken = takenStream(card, config.device.channel);
        if (!state.taken && config.device.channel == kMaster) requireNoOtherUser(card);
    } catch (const cardtest::Untestable& why) {
        throw Failure(kFinding, why.reason + "; check the card with vexo-cardtest");
    }
    return state;
}

}  // namespace vexo::watch
