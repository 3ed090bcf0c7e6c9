#pragma once

#include <VexoZceMdStats.h>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

/// Statistics pages for tests, written by hand.
namespace stats_page {

inline constexpr std::uint64_t kClock = 2'000'000'000;

// A page as this test's own process would have it.
struct Written {
    vexo_stats::Process process{};
    std::vector<vexo_stats::Stream> streams;

    Written() {
        vexo_stats::describe(process, vexo_stats::kTap);
        process.clockPerSecond = kClock;
        std::strcpy(process.program, "quotes");
    }
    vexo_stats::Stream& add(std::uint64_t channel) {
        vexo_stats::Stream stream{};
        vexo_stats::describe(stream, 0, channel);
        stream.state = vexo_stats::kOpen;
        stream.pollsKnown = 1;
        streams.push_back(stream);
        return streams.back();
    }
    std::string name() const {
        return std::to_string(process.pid) + (process.writer == vexo_stats::kTap ? ".tap.page" : ".app.page");
    }
    std::string bytes() const {
        std::string all(vexo_stats::kPageBytes, '\0');
        all.replace(0, sizeof process, reinterpret_cast<const char*>(&process), sizeof process);
        for (std::size_t i = 0; i < streams.size(); ++i) {
            all.replace((i + 1) * vexo_stats::kBlockBytes, sizeof streams[i],
                        reinterpret_cast<const char*>(&streams[i]), sizeof streams[i]);
        }
        return all;
    }
};

inline Written Busy() {
    Written page;
    vexo_stats::Stream& stream = page.add(3);
    stream.packets[2] = 5;
    stream.packets[17] = 1000;
    stream.bytes[17] = 140'000;
    stream.idlePolls = 1'000'000;
    stream.failedPolls = 7;
    stream.firstPacket = page.process.startClock;
    stream.lastPacket = page.process.startClock + 3 * kClock;
    stream.callbacks[9] = 1000;
    stream.callbacks[20] = 5;
    stream.callbackClock = 2 * kClock;
    stream.gaps[20] = 1004;
    stream.gaps[vexo_stats::kFirstBucket] = 1;
    stream.sequenceKnown = 1;
    stream.sequenceGaps = 4;
    stream.sequenceLost = 50;
    stream.sequenceLate = 2;
    stream.backPressure = 30;
    stream.backPressureInCallbacks = 10;
    stream.lostBeforeCard = 20;
    stream.fifoErrors = 17;
    stream.errors = 1;
    return page;
}

}  // namespace stats_page
