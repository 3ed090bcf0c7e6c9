#pragma once

#include <sched.h>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "sim/remote/Refusals.h"
#include "tools/relay/Archive.h"
#include "tools/relay/Batcher.h"
#include "tools/relay/Contracts.h"
#include "tools/relay/Network.h"
#include "tools/relay/PacketQueue.h"
#include "tools/relay/PacketSource.h"
#include "tools/relay/RelayPage.h"
#include "tools/relay/Sender.h"
#include "tools/relay/Settings.h"

namespace relay {

/// The servers, as the batcher sees them. Tells on standard error when the connection is lost, and when it is back.
class Servers : public Network {
public:
    /// Throws Failure when no server can be reached.
    Servers(const vexo_sim::remote::ConnectionSettings& settings, const vexo_sim::remote::Place& place);

    bool publish(const std::string& subject, const void* data, std::size_t size) override {
        return m_connection->publish(subject, data, size);
    }
    vexo_sim::remote::Connection& connection() const { return *m_connection; }
    unsigned timesLost() const { return m_timesLost.load(); }
    /// The servers have refused this user, or something that the relay needs.
    bool isRefused() const { return m_isRefused.load(); }
    /// The servers have refused something, in these words. For who tells a connection's events.
    void refuse(const std::string& words);

private:
    void tell(vexo_sim::remote::ConnectionEvent event, const std::string& words);

    std::atomic<unsigned> m_timesLost{0};
    std::atomic<bool> m_isRefused{false};
    const std::string m_ownSubjects;        // how a server's words name one of them, up to its last part
    vexo_sim::remote::Refusals m_refusals;  // used in events alone, which come one at a time
    std::unique_ptr<vexo_sim::remote::Connection> m_connection;
};

/// Answers who asks on the hello subject, on a thread of the engine. Such an answer may still be under way when the
/// subscription has ended, so the subscription shares this object.
class Hello {
public:
    explicit Hello(Servers& servers) : m_servers(&servers) {}
    void setHead(const wire::Head& head);
    void answer(const vexo_sim::remote::MessageIn& request);
    /// Waits for an answer that is under way; no other follows.
    void close();

private:
    std::mutex m_openMutex;
    Servers* m_servers;  // null when closed
    std::mutex m_headMutex;
    wire::Head m_head;
};

/// What was relayed and lost, at the end.
struct Result {
    std::uint64_t delivered = 0;
    Sent sent;
    wire::Counts counts;
    std::size_t contracts = 0;
    unsigned timesLost = 0;
    std::optional<Archive::Totals> archive;
    bool isFlushed = false;  // the server has confirmed everything
};

/// One channel on its way to the network. The thread that runs it polls; a thread of its own sends.
class Relay {
public:
    /// Connects, sees that no other relay publishes the same, opens the source. Begins, unless it must wait for an
    /// application first. Throws Failure.
    explicit Relay(const Settings& settings);
    ~Relay();
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    /// Waits for packets, and polls until @p stop is set, the time is over, or the servers refuse. Throws Failure.
    Result run(const std::atomic<bool>& stop);

private:
    void refuseSecond();
    void makeBatcher();
    Network& makeArchive(std::size_t messageBytes);
    /// "channel 3 of card 0 to nats://..., subject vexo.local.0.3.stream"
    std::string describe() const;
    void begin();
    bool beginBeside(const std::function<bool()>& isOver);
    Result nothing() const;
    void startSender();
    void endSender();
    void send();
    void watch(const Sender& sender, std::chrono::steady_clock::time_point end);

    const Settings m_settings;
    Servers m_servers;
    PacketQueue m_queue;
    std::unique_ptr<PacketSource> m_stream;
    std::unique_ptr<RelayPage> m_page;
    StreamFacts m_facts;
    std::unique_ptr<vexo::data::Layouts> m_layouts;
    std::unique_ptr<Contracts> m_contracts;
    std::unique_ptr<Archive> m_archive;  // null: none is wanted
    std::unique_ptr<Batcher> m_batcher;
    const std::shared_ptr<Hello> m_hello;
    vexo_sim::remote::Subscription m_helloSubscription;
    cpu_set_t m_cpus;  // before the library pinned the polling thread
    std::thread m_sender;
    std::chrono::steady_clock::duration m_left;         // until the relay ends by itself
    std::chrono::steady_clock::time_point m_sendUntil;  // written before m_isPolled is cleared
    std::atomic<bool> m_isEnding{false};                // the polling thread is to stop
    std::atomic<bool> m_isPolled{true};                 // it has not stopped yet
    bool m_wasSilent = false;
};

}  // namespace relay
