#pragma once

#include <VexoZceMdStatsFile.h>
#include <cstddef>
#include <deque>
#include <memory>

#include "capture/Blocks.h"
#include "tools/data/LayoutFile.h"
#include "tools/tap/StreamStats.h"

namespace tap {

/// The statistics page of a process that records. The writer's thread counts in it.
class TapPage {
public:
    /// Reports on standard error why there is no page. The counts then go into memory of this process, for the capture.
    TapPage();
    TapPage(const TapPage&) = delete;
    TapPage& operator=(const TapPage&) = delete;

    /// For one thread at a time.
    std::unique_ptr<StreamStats> newStats(const capture::InterfaceInfo& info);
    void end() { m_file.end(*m_process); }
    /// In a child of fork(): the page is the parent's, and so is its lock.
    void leaveToParent();

private:
    bool make();
    vexo_stats::Stream& newBlock(const std::string& name);

    vexo_stats::PageFile m_file;
    vexo_stats::Process m_ownProcess{};
    std::deque<vexo_stats::Stream> m_ownStreams;
    vexo_stats::Process* m_process = &m_ownProcess;
    unsigned char* m_blocks = nullptr;  // null: there is no page
    std::size_t m_used = 0;
    std::uint64_t m_ringLasts = 0;  // on the page's clock
    std::unique_ptr<vexo::data::Layouts> m_layouts;
};

}  // namespace tap
