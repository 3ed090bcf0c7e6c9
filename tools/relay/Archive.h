#pragma once

#include <sched.h>
#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "sim/remote/nats/Connection.h"
#include "tools/relay/ArchiveHistory.h"
#include "tools/relay/ArchiveStore.h"
#include "tools/relay/Network.h"
#include "tools/tap/PacketRing.h"

namespace relay {

/// Keeps a copy of each message of the stream, and answers who asks for it. It has a bounded queue, two threads and a
/// connection of its own: whatever becomes of the disk and of those who ask, the stream's messages go on. What does not
/// fit into the queue is lost to the archive alone, and counted.
class Archive : public Network {
public:
    struct Surroundings {
        vexo_sim::remote::Place place;
        vexo_sim::remote::ConnectionSettings connection;
        std::size_t queueBytes = 0;
        std::size_t messageBytes = 0;
        cpu_set_t cpus;  // for its threads
        vexo_sim::remote::TellEvent tell;
    };
    /// @param stream  the head of a message of the stream
    /// @param next    where the stream's messages go
    /// Throws Failure.
    Archive(const ArchiveSettings& settings, const Surroundings& around, const wire::Head& stream, Network& next);
    ~Archive() override;

    /// The sending thread's. The archive gets a message before the network does: so who has got it from there finds in
    /// the archive what came before it.
    bool publish(const std::string& subject, const void* data, std::size_t size) override;

    struct Totals {
        std::uint64_t packets = 0;
        std::uint64_t lost = 0;
        unsigned files = 0;
        std::uint64_t answers = 0;
    };
    /// Writes what is in the queue, for a bounded time, and completes the file.
    Totals end();

private:
    class Answers;

    static std::unique_ptr<vexo_sim::remote::Connection> connect(const Surroundings& around);
    void start();
    void begin(const char* name) const;
    void write();
    bool drain();

    const Surroundings m_around;
    const std::string m_subject;
    Network& m_next;
    tap::PacketRing m_queue;
    std::atomic<std::uint64_t> m_lost{0};  // packets that did not fit into the queue
    ArchiveStore m_store;
    std::unique_ptr<vexo_sim::remote::Connection> m_connection;
    const std::unique_ptr<Answers> m_answers;
    const std::shared_ptr<ArchiveHistory> m_history;  // a question may come when the subscription has ended
    vexo_sim::remote::Subscription m_subscription;
    std::atomic<bool> m_isEnding{false};
    std::thread m_writer;
    std::thread m_server;
};

}  // namespace relay
