#include "tools/vexo/watch/Scene.h"

#include <algorithm>
#include <unordered_map>

namespace vexo::watch {
namespace {

template <std::size_t n>
void addTo(std::uint64_t (&sum)[n], const std::uint64_t (&words)[n]) {
    for (std::size_t i = 0; i < n; ++i) sum[i] += words[i];
}

std::uint64_t less(std::uint64_t now, std::uint64_t before) { return now > before ? now - before : 0; }

template <std::size_t n>
void subtractFrom(std::uint64_t (&now)[n], const std::uint64_t (&before)[n]) {
    for (std::size_t i = 0; i < n; ++i) now[i] = less(now[i], before[i]);
}

std::vector<BusyInstrument> byRate(const Instruments& now, const Instruments* before) {
    std::unordered_map<std::string, std::uint64_t> earlier;
    if (before != nullptr)
        for (const Instrument& one : before->all) earlier.emplace(one.id, one.packets);
    std::vector<BusyInstrument> busy;
    busy.reserve(now.all.size());
    for (const Instrument& one : now.all) {
        const auto known = earlier.find(one.id);
        busy.push_back({one.id, one.packets, less(one.packets, known != earlier.end() ? known->second : 0)});
    }
    std::sort(busy.begin(), busy.end(), [](const BusyInstrument& a, const BusyInstrument& b) {
        return a.more != b.more ? a.more > b.more : a.packets != b.packets ? a.packets > b.packets : a.id < b.id;
    });
    return busy;
}

std::vector<std::uint64_t> moreOfStreams(const stat::Page& now, const stat::Page& before) {
    std::vector<std::uint64_t> more;
    for (std::size_t i = 0; i < now.streams.size(); ++i) {
        const vexo_stats::Stream* const same = stat::sameStream(now, i, before);
        more.push_back(less(stat::packetsOf(now.streams[i]), same != nullptr ? stat::packetsOf(*same) : 0));
    }
    return more;
}

}  // namespace

Totals totalsOf(const stat::Page& page) {
    Totals totals;
    for (const vexo_stats::Stream& stream : page.streams) {
        addTo(totals.packets, stream.packets);
        addTo(totals.bytes, stream.bytes);
        addTo(totals.gaps, stream.gaps);
        addTo(totals.callbacks, stream.callbacks);
        totals.losses = totals.losses + stat::lossOf(stream);
        totals.allPackets += stat::packetsOf(stream);
        totals.allBytes += stat::bytesOf(stream);
        if (stream.pollsKnown == 0) continue;
        totals.pollsKnown = true;
        totals.idlePolls += stream.idlePolls;
        totals.failedPolls += stream.failedPolls;
    }
    return totals;
}

Totals difference(const Totals& now, const Totals& before) {
    Totals more = now;
    subtractFrom(more.packets, before.packets);
    subtractFrom(more.bytes, before.bytes);
    subtractFrom(more.gaps, before.gaps);
    subtractFrom(more.callbacks, before.callbacks);
    more.idlePolls = less(now.idlePolls, before.idlePolls);
    more.failedPolls = less(now.failedPolls, before.failedPolls);
    more.allPackets = less(now.allPackets, before.allPackets);
    more.allBytes = less(now.allBytes, before.allBytes);
    return more;
}

void compare(const Look& now, const Look* before, Scene& scene) {
    scene.page = now.page;
    scene.now = now.totals;
    scene.seconds = 0;
    scene.more = Totals();
    scene.streamMore.clear();
    const bool isSecond = before != nullptr && before->page && now.page;
    if (isSecond && now.page->readClock > before->page->readClock) {
        scene.seconds = now.page->seconds(now.page->readClock - before->page->readClock);
        scene.more = difference(now.totals, before->totals);
        scene.streamMore = moreOfStreams(*now.page, *before->page);
    }
    scene.instruments = byRate(now.instruments, isSecond ? &before->instruments : nullptr);
    scene.unknown = now.instruments.unknown;
    scene.crowded = now.instruments.crowded;
}

}  // namespace vexo::watch
