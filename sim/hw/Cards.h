#pragma once

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sim/hw/HwCard.h"
#include "sim/scenario/Scenario.h"

namespace vexo_sim {

inline constexpr std::uint32_t kMaxCards = 5;

class OwnCard;

/// The cards that the process sees. The first use decides which: the cards that hosts offer, or, without a host, a card
/// of the process's own. VEXO_SIM_SCENARIO and VEXO_SIM_SET describe the process's own card; if either is set, hosts
/// are ignored. VEXO_SIM_CARD=hosted or =embedded allows only one of the two. Only hosts of the process's own user
/// count, unless `hosted:USER` names another user. VEXO_SIM_CARD=remote is neither: see RemoteCard.
class Cards {
public:
    static Cards& instance();

    /// Makes the decision, unless that has been done.
    void decideOnce();
    /// Looks for hosts that are new since the last look, also in the place of a dead one.
    void refresh();
    /// Null, with errno ENODEV, when there is none at that bus.
    HwCard* find(std::uint32_t index);
    /// Cards of the process's own, like new. 0, or -1 with errno set: EINVAL for a bad configuration or count, EPERM
    /// when the cards are hosted or remote, both with nothing changed; ENOMEM.
    int powerCycle(const CardConfig& config, std::uint32_t count);
    /// The same with one card, at the scenario's bus.
    int powerCycle(const scenario::Scenario& scenario);

private:
    enum class Kind { kNone, kEmbedded, kHosted, kRemote };

    void decide();
    void attachHosted();
    bool makeOwn();
    bool makeRemote();
    bool connectRemote(std::string& error);
    int claimOwn();
    OwnCard* own(HwCard& card);
    /// Makes a card at each bus whose bit is set in @p buses. switchOn(Card&, now, bus) switches one on.
    template <typename SwitchOn>
    int powerOn(std::uint32_t buses, SwitchOn switchOn);
    int powerOn(const scenario::Scenario& scenario);
    int startReplay(const scenario::Scenario& scenario);

    std::once_flag m_firstUse;
    std::mutex m_mutex;  // held while the cards change
    Kind m_kind = Kind::kNone;
    uid_t m_hostUser = 0;  // whose hosted cards are used
    std::atomic<HwCard*> m_cards[kMaxCards] = {};
    HwCard m_own[kMaxCards];                          // each with an OwnCard, from its first power-on
    std::vector<std::unique_ptr<HwCard>> m_attached;  // of dead hosts too: handles may point at them; remote ones
};

}  // namespace vexo_sim
