#include "tools/data/CaptureSet.h"

#include <sys/stat.h>
#include <algorithm>
#include <limits>
#include <numeric>
#include <set>
#include <utility>

#include "tools/data/CaptureSource.h"
#include "tools/vexo/show/Harmless.h"

namespace vexo::data {
namespace {

constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();

// Each is opened twice: for its first packet, and to be read.
void checkFiles(const std::vector<std::string>& paths) {
    std::set<std::pair<dev_t, ino_t>> seen;
    for (const std::string& path : paths) {
        struct stat state {};
        const bool isInput = path == "-";
        if (!isInput && ::stat(path.c_str(), &state) != 0) continue;  // opening it says why
        if (isInput || (!S_ISREG(state.st_mode) && !S_ISDIR(state.st_mode))) {
            const std::string name = isInput ? "standard input" : harmless(path);
            throw SourceError(name + ": several captures have to be files, because their times put them in order");
        }
        if (!seen.emplace(state.st_dev, state.st_ino).second)
            throw SourceError(harmless(path) + ": this capture is named twice");
    }
}

}  // namespace

struct CaptureSet::Open {
    Open(std::size_t number, const std::string& path) : file(number), source(path), reader(source.stream()) {}

    std::size_t file;
    CaptureSource source;
    capture::Reader reader;
    capture::Packet packet;
    bool hasEnded = false;
};

CaptureSet::CaptureSet(const std::vector<std::string>& paths) {
    if (paths.size() > 1) {
        checkFiles(paths);
        sortByTime(paths);
        return;
    }
    m_paths = paths;
    m_firstTimes.assign(paths.size(), 0);
    // A wrong name is told before anything else is done.
    for (std::size_t i = 0; i < paths.size(); ++i) {
        m_open.push_back(std::make_unique<Open>(i, paths[i]));
        m_fileBytes = m_open.back()->source.fileBytes();
    }
    m_next = paths.size();
}

CaptureSet::~CaptureSet() = default;

void CaptureSet::sortByTime(const std::vector<std::string>& paths) {
    std::vector<std::uint64_t> times;
    for (std::size_t i = 0; i < paths.size(); ++i) {
        Open open(i, paths[i]);
        times.push_back(open.reader.next(open.packet) ? open.packet.timeNs : 0);
        m_fileBytes += open.source.fileBytes();
    }
    std::vector<std::size_t> order(paths.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return times[a] < times[b]; });
    for (const std::size_t i : order) {
        m_paths.push_back(paths[i]);
        m_firstTimes.push_back(times[i]);
    }
}

// The first packet, or the next one.
void CaptureSet::advance(Open& open, CaptureSink& sink) {
    if (open.reader.next(open.packet)) return;
    open.hasEnded = true;
    sink.end(open.file, open.reader.interfaces(), faultOf(open.reader, open.source));
}

void CaptureSet::openNext(CaptureSink& sink) {
    m_open.push_back(std::make_unique<Open>(m_next, m_paths[m_next]));
    ++m_next;
    advance(*m_open.back(), sink);
}

void CaptureSet::openUntil(std::uint64_t timeNs, CaptureSink& sink) {
    while (m_next < m_paths.size() && m_firstTimes[m_next] <= timeNs) openNext(sink);
}

// The capture with the earliest packet may go on until here.
std::uint64_t CaptureSet::limitOf(std::size_t earliest) const {
    std::uint64_t limit = m_next < m_paths.size() ? m_firstTimes[m_next] : kNever;
    for (std::size_t i = 0; i < m_open.size(); ++i) {
        if (i != earliest) limit = std::min(limit, m_open[i]->packet.timeNs);
    }
    return limit;
}

void CaptureSet::read(CaptureSink& sink) {
    for (const auto& open : m_open) advance(*open, sink);
    for (;;) {
        const auto ended = std::stable_partition(m_open.begin(), m_open.end(),
                                                 [](const auto& open) { return !open->hasEnded; });
        for (auto open = ended; open != m_open.end(); ++open) m_closedBytes += (*open)->source.readBytes();
        m_open.erase(ended, m_open.end());
        if (m_open.empty() && m_next == m_paths.size()) return;
        if (m_open.empty()) {
            openNext(sink);
            continue;
        }
        const auto earliest = std::min_element(m_open.begin(), m_open.end(), [](const auto& a, const auto& b) {
            return a->packet.timeNs < b->packet.timeNs;
        });
        Open& open = **earliest;
        const std::size_t before = m_open.size();
        openUntil(open.packet.timeNs, sink);
        if (m_open.size() != before) continue;
        const std::uint64_t limit = limitOf(static_cast<std::size_t>(earliest - m_open.begin()));
        do {
            sink.take(open.file, open.packet);
            advance(open, sink);
        } while (!open.hasEnded && open.packet.timeNs <= limit);
    }
}

std::uint64_t CaptureSet::readBytes() const {
    return std::accumulate(m_open.begin(), m_open.end(), m_closedBytes,
                           [](std::uint64_t sum, const auto& open) { return sum + open->source.readBytes(); });
}

}  // namespace vexo::data
