// Figure 4: one INFO line to standard output and a file, ours and spdlog's. Both write the same line: the same time,
// level and tag in the same places, flushed at once.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <unistd.h>
#include <memory>
#include <vector>

#include "src/log/log.h"

namespace {

constexpr char kLogFile[] = "LogLine";

bool StartLog() {
    static const bool started = elog_init("./", "ours") == 0;
    elog_set_output_enabled(true);
    return started;
}

void Elog(benchmark::State& state) {
    if (!StartLog()) state.SkipWithError("the log could not be opened");
    unsigned int count = 0;
    for (auto _ : state) LOG_INFO("Bin inst count:%u", ++count);
}

std::shared_ptr<spdlog::logger> MakeSpdlog() {
    const std::vector<spdlog::sink_ptr> sinks{std::make_shared<spdlog::sinks::stdout_sink_mt>(),
                                              std::make_shared<spdlog::sinks::basic_file_sink_mt>("rival.log")};
    auto logger = std::make_shared<spdlog::logger>("fpga", sinks.begin(), sinks.end());
    logger->set_pattern("[%-7l][%Y%m%d-%H:%M:%S][%n]%v");
    logger->flush_on(spdlog::level::info);
    return logger;
}

void Spdlog(benchmark::State& state) {
    static const std::shared_ptr<spdlog::logger> logger = MakeSpdlog();
    unsigned int count = 0;
    for (auto _ : state) logger->info("Bin inst count:{}", ++count);
}

// What no log of two writes can beat: the writes alone.
void BareWrites(benchmark::State& state) {
    static const int file = ::open("bare.log", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    constexpr char kLine[] = "[INFO   ][20261120-14:12:41][fpga]Bin inst count:1234567\n";
    for (auto _ : state) {
        if (::write(STDOUT_FILENO, kLine, sizeof kLine - 1) < 0 || ::write(file, kLine, sizeof kLine - 1) < 0)
            state.SkipWithError("a write failed");
    }
}

BENCHMARK(Elog)->Name("fig4/ours");
BENCHMARK(Spdlog)->Name("fig4/floor");
BENCHMARK(BareWrites)->Name("fig4/bare-writes");

}  // namespace
