#include "tools/relay/Archive.h"

#include <pthread.h>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <utility>

#include "tools/relay/Failure.h"
#include "tools/tap/AllSignalsBlocked.h"
#include "tools/tap/TapClock.h"

namespace relay {
namespace {

namespace remote = vexo_sim::remote;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kRest{1};
constexpr std::chrono::seconds kWriteAtEnd{5};
constexpr std::size_t kAtATime = 256;  // messages, before the look at what is old

void say(const std::string& text) { std::fprintf(stderr, "vexo relay: archive: %s\n", text.c_str()); }

std::uint64_t nowNs() { return tap::clock_ticks::timeOfDay(); }

}  // namespace

/// Sends over the archive's connection: a receiver that is slow there delays no message of the stream.
class Archive::Answers : public Network {
public:
    explicit Answers(remote::Connection& connection) : m_connection(connection) {}
    bool publish(const std::string& subject, const void* data, std::size_t size) override {
        return m_connection.publish(subject, data, size);
    }

private:
    remote::Connection& m_connection;
};

std::unique_ptr<remote::Connection> Archive::connect(const Surroundings& around) {
    remote::ConnectionSettings settings = around.connection;
    settings.readEnvironment();
    settings.name = "vexo relay archive " + subjectOf(around.place);
    settings.sendsAtOnce = true;
    std::string error;
    std::unique_ptr<remote::Connection> connection = remote::Connection::open(settings, around.tell, error);
    if (connection == nullptr) throw Failure(Failure::kFinding, error);
    return connection;
}

Archive::Archive(const ArchiveSettings& settings, const Surroundings& around, const wire::Head& stream, Network& next)
    : m_around(around),
      m_subject(streamSubject(around.place)),
      m_next(next),
      m_queue(around.queueBytes),
      m_store(settings, around.place, stream, say),
      m_connection(connect(around)),
      m_answers(std::make_unique<Answers>(*m_connection)),
      m_history(std::make_shared<ArchiveHistory>(m_store, *m_answers, around.messageBytes)) {
    if (!m_queue.isUsable())
        throw Failure(Failure::kFinding,
                      "there is no memory for a second queue, of the archive; give a smaller --queue");
    const std::string subject = historySubject(around.place);
    m_subscription = m_connection->subscribe(subject, [history = m_history](const remote::MessageIn& request) {
        history->ask(request.data, request.size, request.reply);
    });
    if (!m_subscription) throw Failure(Failure::kFinding, "cannot subscribe to " + subject);
    start();
}

void Archive::start() {
    const tap::AllSignalsBlocked blocked;
    m_writer = std::thread([this] {
        begin("vexo-archive");
        write();
    });
    m_server = std::thread([this] {
        begin("vexo-history");
        while (m_history->answer()) {
        }
    });
}

void Archive::begin(const char* name) const {
    ::pthread_setaffinity_np(::pthread_self(), sizeof m_around.cpus, &m_around.cpus);
    ::pthread_setname_np(::pthread_self(), name);
}

Archive::~Archive() { end(); }

bool Archive::publish(const std::string& subject, const void* data, std::size_t size) {
    if (subject == m_subject && !m_queue.put(0, data, static_cast<std::uint32_t>(size))) {
        wire::HeadBytes head;
        std::memcpy(&head, data, sizeof head);
        m_lost.fetch_add(head.packets, std::memory_order_relaxed);
    }
    return m_next.publish(subject, data, size);
}

bool Archive::drain() {
    const std::uint64_t limit = m_queue.published();
    tap::PacketRing::Record record{};
    std::size_t taken = 0;
    for (; taken < kAtATime && m_queue.front(limit, record); ++taken) {
        m_store.add(wire::decode(record.data, record.size), m_lost.load(std::memory_order_relaxed), nowNs());
        m_queue.pop(record);
    }
    return taken > 0;
}

void Archive::write() {
    Clock::time_point until = Clock::time_point::max();
    for (;;) {
        const bool isEnding = m_isEnding.load(std::memory_order_acquire);
        if (isEnding && until == Clock::time_point::max()) until = Clock::now() + kWriteAtEnd;
        const bool any = drain();
        m_store.tick(nowNs());
        if (isEnding && (!any || Clock::now() >= until)) break;
        if (!any) std::this_thread::sleep_for(kRest);
    }
    m_store.close(nowNs());
}

Archive::Totals Archive::end() {
    m_subscription.end();
    m_history->close();
    if (m_server.joinable()) m_server.join();
    m_isEnding.store(true, std::memory_order_release);
    if (m_writer.joinable()) m_writer.join();
    std::uint64_t lost = m_lost.load(std::memory_order_relaxed) + m_store.totals().lost;
    // What there was no time for.
    tap::PacketRing::Record record{};
    while (m_queue.front(m_queue.published(), record)) {
        lost += wire::decode(record.data, record.size).head.packets;
        m_queue.pop(record);
    }
    return {m_store.totals().packets, lost, m_store.totals().files, m_history->answers()};
}

}  // namespace relay
