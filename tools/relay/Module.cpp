// libvexo-relay.so: what `vexo relay` does once its command line is understood.

#include <unistd.h>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <nlohmann/json.hpp>

#include "tools/relay/Failure.h"
#include "tools/relay/Relay.h"
#include "tools/relay/Settings.h"

namespace relay {
namespace {

std::atomic<bool> g_stop{false};

void stop(int) { g_stop.store(true, std::memory_order_relaxed); }

void catchSignals() {
    struct sigaction action {};
    action.sa_handler = stop;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

// The library's log goes to standard output. With --json it goes to standard error, and the result alone is there.
class OwnOutput {
public:
    explicit OwnOutput(bool isOwn) : m_file(isOwn ? separate() : stdout) {}
    std::FILE* file() const { return m_file; }

private:
    static std::FILE* separate() {
        std::FILE* file = ::fdopen(::dup(STDOUT_FILENO), "w");
        if (file == nullptr || ::dup2(STDERR_FILENO, STDOUT_FILENO) < 0)
            throw Failure(Failure::kFinding, std::string("standard output: ") + std::strerror(errno));
        return file;
    }
    std::FILE* m_file;
};

void showText(std::FILE* out, const Result& result) {
    std::fprintf(out, "%" PRIu64 " packets of the stream: %" PRIu64 " sent in %" PRIu64 " messages of %.1f MB\n",
                 result.delivered, result.sent.packets, result.sent.messages,
                 static_cast<double>(result.sent.bytes) / 1e6);
    std::fprintf(out,
                 "lost: %" PRIu64 " by the ring (back-pressure), %" PRIu64 " by the card (FIFO %" PRIu64
                 ", errors %" PRIu64 "), %" PRIu64 " by the relay\n",
                 result.counts.lostByRing, result.counts.fifoErrors + result.counts.streamErrors,
                 result.counts.fifoErrors, result.counts.streamErrors, result.counts.lostByRelay);
    if (result.contracts > 0)
        std::fprintf(out, "%zu subjects, one for each contract and packet type\n", result.contracts);
    if (result.archive)
        std::fprintf(out,
                     "archive: %" PRIu64 " packets in %u files, %" PRIu64 " packets lost to it, %" PRIu64
                     " requests answered\n",
                     result.archive->packets, result.archive->files, result.archive->lost, result.archive->answers);
    if (result.timesLost > 0) std::fprintf(out, "the connection was lost %u times\n", result.timesLost);
    if (!result.isFlushed) std::fprintf(out, "the server has not confirmed the last messages\n");
}

void showJson(std::FILE* out, const Settings& settings, const Result& result) {
    nlohmann::ordered_json json = {{"subject", streamSubject(settings.place)},
                                   {"packets", result.delivered},
                                   {"sent", result.sent.packets},
                                   {"messages", result.sent.messages},
                                   {"bytes", result.sent.bytes},
                                   {"lost",
                                    {{"ring", result.counts.lostByRing},
                                     {"fifo", result.counts.fifoErrors},
                                     {"errors", result.counts.streamErrors},
                                     {"relay", result.counts.lostByRelay}}},
                                   {"contracts", result.contracts},
                                   {"connection_lost", result.timesLost},
                                   {"confirmed", result.isFlushed}};
    json["archive"] = nullptr;
    if (result.archive)
        json["archive"] = {{"packets", result.archive->packets},
                           {"lost", result.archive->lost},
                           {"files", result.archive->files},
                           {"answers", result.archive->answers}};
    std::fprintf(out, "%s\n", json.dump(2).c_str());
}

int relayIt(const Settings& settings) {
    const OwnOutput output(settings.json);
    Result result;
    {
        Relay relay(settings);
        catchSignals();  // until here a signal ends a hanging start-up at once
        result = relay.run(g_stop);
    }
    settings.json ? showJson(output.file(), settings, result) : showText(output.file(), result);
    if (std::fflush(output.file()) != 0)
        throw Failure(Failure::kFinding, std::string("standard output: ") + std::strerror(errno));
    return result.isFlushed ? 0 : Failure::kFinding;
}

}  // namespace
}  // namespace relay

extern "C" [[gnu::visibility("default")]] int vexo_relay_run(const relay::Settings& settings) {
    int status = 0;
    try {
        status = relay::relayIt(settings);
    } catch (const relay::Failure& failure) {
        std::fprintf(stderr, "vexo relay: %s\n", failure.what());
        status = failure.status;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vexo relay: %s\n", error.what());
        status = relay::Failure::kFinding;
    }
    vexo_sim::remote::Connection::endEngine(std::chrono::seconds(1));
    return status;
}
