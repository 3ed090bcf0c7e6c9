// libvexo-remote.so: the transport of a remote card.

#include <unistd.h>

#include <array>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "sim/card/CardConfig.h"
#include "sim/remote/Transport.h"
#include "sim/remote/nats/Connection.h"

namespace vexo_sim::remote {
namespace {

constexpr std::chrono::seconds kFarewell{1};

LineState stateOf(ConnectionEvent event) {
    switch (event) {
        case ConnectionEvent::kLost: return LineState::kLost;
        case ConnectionEvent::kBack: return LineState::kBack;
        case ConnectionEvent::kClosed: return LineState::kClosed;
        case ConnectionEvent::kSlow: return LineState::kSlow;
        case ConnectionEvent::kNotPermitted: return LineState::kNotPermitted;
    }
    return LineState::kLost;
}

Answer answerOf(Connection::Answer answer) {
    switch (answer) {
        case Connection::Answer::kTaken: return Answer::kTaken;
        case Connection::Answer::kNobody: return Answer::kNobody;
        case Connection::Answer::kNone: return Answer::kNone;
    }
    return Answer::kNone;
}

class NatsTransport final : public Transport {
public:
    static NatsTransport& instance() {
        static NatsTransport& transport = *new NatsTransport;  // streams may be closed by a program's last destructors
        return transport;
    }

    bool open(const std::vector<std::string>& servers, MessageSink& sink, std::string& error) override;
    bool subscribe(const std::string& subject, std::uint32_t channel, std::uint32_t opening) override;
    void unsubscribe(std::uint32_t channel) override;
    Answer ask(const std::vector<std::string>& subjects, const void* data, std::size_t size,
               std::chrono::milliseconds wait, const TakeAnswer& take) override;

private:
    static void closeAtExit();
    void close();
    // A connection that is used stays until that use ends.
    std::shared_ptr<Connection> connection() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_connection;
    }

    std::mutex m_mutex;
    std::shared_ptr<Connection> m_connection;
    std::array<Subscription, kStreams> m_subscriptions;
    MessageSink* m_sink = nullptr;
    pid_t m_process = 0;
};

std::string nameOfProgram() { return std::string("remote card of ") + program_invocation_short_name; }

bool NatsTransport::open(const std::vector<std::string>& servers, MessageSink& sink, std::string& error) {
    ConnectionSettings settings;
    settings.servers = servers;
    settings.name = nameOfProgram();
    settings.readEnvironment();
    const auto tell = [&sink](ConnectionEvent event, const std::string& words) { sink.tell(stateOf(event), words); };
    std::unique_ptr<Connection> made = Connection::open(settings, tell, error);
    if (made == nullptr) return false;
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_connection = std::move(made);
    m_sink = &sink;
    m_process = getpid();
    std::atexit(closeAtExit);
    return true;
}

// The engine's threads must not run on while the last destructors take away what they use. This was registered after
// those of the engine and of its encryption, so it runs before them.
void NatsTransport::closeAtExit() { instance().close(); }

void NatsTransport::close() {
    if (getpid() != m_process) return;  // a child of fork() has none of those threads
    m_sink->end();
    std::shared_ptr<Connection> connection;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (Subscription& subscription : m_subscriptions) subscription.end();
        connection.swap(m_connection);
    }
    connection.reset();
    Connection::endEngine(kFarewell);
}

bool NatsTransport::subscribe(const std::string& subject, std::uint32_t channel, std::uint32_t opening) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_connection == nullptr) return false;
    m_subscriptions[channel] = m_connection->subscribe(subject,
                                                       [sink = m_sink, channel, opening](const MessageIn& message) {
                                                           sink->receive(channel, opening, message.data, message.size);
                                                       });
    return static_cast<bool>(m_subscriptions[channel]);
}

void NatsTransport::unsubscribe(std::uint32_t channel) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_subscriptions[channel].end();
}

Answer NatsTransport::ask(const std::vector<std::string>& subjects, const void* data, std::size_t size,
                          std::chrono::milliseconds wait, const TakeAnswer& take) {
    const std::shared_ptr<Connection> used = connection();
    return used != nullptr ? answerOf(used->ask(subjects, data, size, wait, take)) : Answer::kNone;
}

}  // namespace
}  // namespace vexo_sim::remote

extern "C" __attribute__((visibility("default"))) vexo_sim::remote::Transport* vexo_remote_transport(
    std::uint32_t version);

vexo_sim::remote::Transport* vexo_remote_transport(std::uint32_t version) {
    using namespace vexo_sim::remote;
    return version == kTransportVersion ? &NatsTransport::instance() : nullptr;
}
