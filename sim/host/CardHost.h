#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "sim/host/CardRecorder.h"
#include "sim/replay/CardReplay.h"
#include "sim/scenario/Scenario.h"
#include "sim/shm/HostClock.h"
#include "sim/shm/SharedCard.h"

namespace vexo_sim {

/// A card that this process keeps in shared memory and advances. One thread drives it.
class CardHost {
public:
    struct Plan {
        scenario::Scenario scenario;
        std::optional<gid_t> group;  // may use the card, besides the host's own user
        std::string record;          // capture file of all that the card sends; empty for none
    };

    /// Switches a card on and offers it. Removes files of this user's dead hosts first.
    /// @return null, with the reason in @p error, when the bus has a host already or there is no memory
    static std::unique_ptr<CardHost> start(Plan plan, std::string& error);
    /// Removes the card. Its readers then see idle streams.
    ~CardHost();

    /// Does what is due.
    /// @return nanoseconds that the caller may rest before the next turn
    std::uint64_t turn();

    SharedCard& card() { return m_card; }

private:
    CardHost(CardFile file, CardBlock& block) : m_card(std::move(file), block, "vexo-simcard") {}

    void describe(const Plan& plan);
    bool powerOn(const Plan& plan, std::string& error);
    void closeOrphans(std::uint64_t nowNs);
    std::uint64_t rest(bool again);

    SharedCard m_card;
    HostClock m_clock;
    std::uint64_t m_nextOrphanCheckNs = 0;
    std::uint64_t m_contended = 0;
    std::unique_ptr<CardRecorder> m_recorder;
    std::unique_ptr<CardReplay> m_replay;
};

}  // namespace vexo_sim
