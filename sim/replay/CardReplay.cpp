#include "sim/replay/CardReplay.h"

namespace vexo_sim {

std::unique_ptr<CardReplay> CardReplay::start(const scenario::Scenario& scenario, Card& card, std::string& problem) {
    auto self = std::make_unique<CardReplay>();
    const CardConfig& config = card.state().config;
    const Replay::Pace pace = config.pace == kPaceOfReaders ? Replay::Pace::kAsTaken : Replay::Pace::kOriginal;
    const bool opened = self->m_replay.open(scenario.replayFile, config.mtu, scenario.bus, pace, scenario.replayMap);
    problem = self->m_replay.problem();
    if (!opened) return nullptr;
    // A capture without a map: the card sends its own, without quotes. Otherwise a master would wait for ever.
    const bool mapOfCapture = scenario.replayMap && self->m_replay.hasContractMap();
    mapOfCapture ? card.pauseFeed(true) : card.stopQuotes();
    return self;
}

void CardReplay::advance(Card& card) {
    if (card.state().faults.stopped) return;
    for (std::uint32_t channel = 0; channel < kStreams; ++channel) {
        const std::uint32_t opened = card.state().up[channel].opened;
        if (m_opened[channel] == opened) continue;
        m_opened[channel] = opened;
        m_replay.restart(channel);
    }
    m_replay.advance(card, card.state().clockNs);
}

}  // namespace vexo_sim
