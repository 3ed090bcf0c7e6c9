#include "tools/tap/TapPage.h"

#include <sys/mman.h>
#include <string>

#include "capture/StreamPlace.h"
#include "tools/stats/Settings.h"
#include "tools/tap/KnownLayouts.h"
#include "tools/tap/Report.h"

namespace tap {
namespace {

constexpr std::uint64_t kMicroseconds = 1'000'000;

}  // namespace

TapPage::TapPage() : m_layouts(knownLayouts()) {
    if (!make()) {
        report("no statistics page: " + m_file.error());
        m_blocks = nullptr;
        m_process = &m_ownProcess;
        vexo_stats::describe(*m_process, vexo_stats::kTap);
    }
    m_ringLasts = m_process->clockPerSecond / kMicroseconds * stats::ringLastsMicroseconds();
}

bool TapPage::make() {
    if (!m_file.make(vexo_stats::kTap)) return false;
    m_blocks = static_cast<unsigned char*>(m_file.map(0, 1 + vexo_stats::kStreams));
    if (m_blocks == nullptr) return false;
    m_process = reinterpret_cast<vexo_stats::Process*>(m_blocks);
    vexo_stats::describe(*m_process, vexo_stats::kTap);
    const bool isPublished = m_file.publish(*m_process);
    m_file.close();
    return isPublished;
}

void TapPage::leaveToParent() {
    if (m_blocks == nullptr) return;
    static_cast<void>(::mmap(m_blocks, vexo_stats::kPageBytes, PROT_READ | PROT_WRITE,
                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0));
}

vexo_stats::Stream& TapPage::newBlock(const std::string& name) {
    if (m_blocks != nullptr && m_used < vexo_stats::kStreams) {
        return *reinterpret_cast<vexo_stats::Stream*>(m_blocks + ++m_used * vexo_stats::kBlockBytes);
    }
    if (m_blocks != nullptr) report("no room for " + name + " in the statistics page: vexo stat does not show it");
    return m_ownStreams.emplace_back();
}

std::unique_ptr<StreamStats> TapPage::newStats(const capture::InterfaceInfo& info) {
    vexo_stats::Stream& counts = newBlock(info.name);
    const std::optional<capture::StreamPlace> place = capture::placeOf(info.name);
    counts.longCallback = m_ringLasts;
    vexo_stats::describe(counts, place ? place->card : vexo_stats::kUnknown,
                         place ? place->channel : vexo_stats::kUnknown);
    counts.lostByTap = 0;
    vexo_stats::set(counts.state, vexo_stats::kOpen);
    std::uint64_t& opened = m_process->steps[vexo_stats::kStreamOpened];
    if (opened == 0) vexo_stats::set(opened, vexo_stats::startNow());
    return std::make_unique<StreamStats>(*m_process, counts, m_layouts.get());
}

}  // namespace tap
