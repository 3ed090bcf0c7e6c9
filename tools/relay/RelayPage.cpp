#include "tools/relay/RelayPage.h"

#include <algorithm>
#include <cstdio>

namespace relay {

RelayPage::RelayPage(std::uint32_t card, std::uint32_t channel, bool knowsPolls) {
    if (!make()) std::fprintf(stderr, "vexo relay: no statistics page: %s\n", m_file.error().c_str());
    vexo_stats::Stream& counts = *m_stream;
    vexo_stats::describe(counts, card, channel);
    counts.pollsKnown = knowsPolls ? 1 : 0;
    counts.lostByRelay = 0;
    // No callback of an application stands between two polls: what the ring loses, it loses by itself.
    counts.backPressure = counts.backPressureInCallbacks = 0;
    counts.fifoErrors = counts.errors = 0;
    vexo_stats::set(counts.state, vexo_stats::kOpen);
    vexo_stats::set(m_process->steps[vexo_stats::kStreamOpened], vexo_stats::startNow());
}

RelayPage::~RelayPage() {
    vexo_stats::set(m_stream->state, vexo_stats::kClosed);
    m_file.end(*m_process);
}

bool RelayPage::make() {
    if (!m_file.make(vexo_stats::kRelay)) return false;
    void* const blocks = m_file.map(0, 2);
    if (blocks == nullptr) return false;
    auto* const process = static_cast<vexo_stats::Process*>(blocks);
    vexo_stats::describe(*process, vexo_stats::kRelay);
    if (!m_file.publish(*process)) return false;
    m_file.close();
    m_process = process;
    m_stream = reinterpret_cast<vexo_stats::Stream*>(static_cast<unsigned char*>(blocks) + vexo_stats::kBlockBytes);
    return true;
}

void RelayPage::begin(std::uint64_t now) {
    m_isFirst = false;
    const bool isFirstOfAll = m_stream->firstPacket == 0;
    vexo_stats::expectFirst(*m_stream, now);
    if (!isFirstOfAll) return;
    // Beside an application, packets may have come to it before this page was there.
    const std::uint64_t first = std::max(now, m_process->steps[vexo_stats::kStreamOpened]);
    vexo_stats::set(m_stream->firstPacket, first);
    vexo_stats::set(m_process->steps[vexo_stats::kFirstPacket], first);
}

void RelayPage::setCounts(const vexo_sim::wire::Counts& counts) {
    vexo_stats::set(m_stream->backPressure, counts.lostByRing);
    vexo_stats::set(m_stream->fifoErrors, counts.fifoErrors);
    vexo_stats::set(m_stream->errors, counts.streamErrors);
    vexo_stats::set(m_stream->lostByRelay, counts.lostByRelay);
}

}  // namespace relay
