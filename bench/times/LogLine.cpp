// One INFO line to standard output and a file: ours, spdlog's with two sinks, and the two writes of a ready line. All
// write the same bytes: the same time, level and tag in the same places, flushed at once.

#include <fcntl.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <unistd.h>
#include <cstdlib>
#include <memory>
#include <optional>
#include <vector>

#include "bench/support/Host.h"
#include "bench/support/Rounds.h"
#include "src/log/log.h"

namespace {

constexpr char kLogFile[] = "LogLine";
constexpr unsigned int kLines = 500;

std::optional<bench::StdoutToFile> g_stdout;

void PrepareStdout() { g_stdout.emplace(); }
void FinishStdout() { g_stdout.reset(); }

void WriteOurs() {
    for (unsigned int n = 0; n < kLines; ++n) LOG_INFO("Bin inst count:%u", 1234567U);
}

std::shared_ptr<spdlog::logger> MakeSpdlog() {
    const std::vector<spdlog::sink_ptr> sinks{std::make_shared<spdlog::sinks::stdout_sink_mt>(),
                                              std::make_shared<spdlog::sinks::basic_file_sink_mt>("rival.log")};
    auto logger = std::make_shared<spdlog::logger>("fpga", sinks.begin(), sinks.end());
    logger->set_pattern("[%-7l][%Y%m%d-%H:%M:%S][%n]%v");
    logger->flush_on(spdlog::level::info);
    return logger;
}

void WriteWithSpdlog() {
    static const std::shared_ptr<spdlog::logger> logger = MakeSpdlog();
    for (unsigned int n = 0; n < kLines; ++n) logger->info("Bin inst count:{}", 1234567U);
}

void WriteReadyLine() {
    static const int file = ::open("bare.log", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    constexpr char kLine[] = "[INFO   ][20261120-14:12:41][fpga]Bin inst count:1234567\n";
    for (unsigned int n = 0; n < kLines; ++n) {
        if (::write(STDOUT_FILENO, kLine, sizeof kLine - 1) < 0 || ::write(file, kLine, sizeof kLine - 1) < 0)
            std::abort();
    }
}

}  // namespace

std::vector<bench::Case> bench::cases() {
    return {{"log-line", kLines, []() -> std::vector<Role> {
                 if (elog_init("./", "ours") != 0) std::abort();
                 elog_set_output_enabled(true);
                 return {{"ours", PrepareStdout, WriteOurs, FinishStdout},
                         {"spdlog", PrepareStdout, WriteWithSpdlog, FinishStdout},
                         {"writes", PrepareStdout, WriteReadyLine, FinishStdout}};
             }}};
}
