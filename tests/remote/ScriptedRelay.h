#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "sim/remote/Subjects.h"
#include "sim/remote/Wire.h"
#include "sim/remote/nats/Connection.h"

namespace remote_tests {

/// A relay whose stream is what the test says. Its packets are those of Messages.h.
class ScriptedRelay {
public:
    /// Answers the hello unless @p isSilent.
    ScriptedRelay(const std::string& server, std::uint64_t epoch, std::uint32_t channel = 3, bool isSilent = false,
                  const vexo_sim::remote::ConnectionSettings& settings = {});

    /// The packets @p first and following in one message, sent when this returns.
    void Send(std::uint64_t first, std::uint32_t packets);
    /// Packets @p first to before @p end, @p batch a message.
    void SendAll(std::uint64_t first, std::uint64_t end, std::uint32_t batch = 100);
    /// One packet. @return false when the server does not confirm it: it may be on its way nevertheless
    bool TrySend(std::uint64_t number);
    bool IsConnected() const { return m_connection->isConnected(); }
    /// Any bytes.
    void SendRaw(const void* data, std::size_t size);
    /// The same, but it only comes before what is sent next.
    void Publish(const void* data, std::size_t size);
    /// A message without packets; @p next is the number of the next one.
    void Heartbeat(std::uint64_t next) { Send(next, 0); }

    /// For the heads of the following messages.
    void SetCounts(const vexo_sim::wire::Counts& counts);
    /// For the following hellos.
    void SetNext(std::uint64_t next) { m_next = next; }
    void SetVersion(std::uint16_t version) { m_version = version; }

private:
    vexo_sim::wire::Head HeadFor(std::uint64_t first);
    void AnswerHello(const vexo_sim::remote::MessageIn& request);
    void PublishAll(std::uint64_t first, std::uint64_t end, std::uint32_t batch);
    void Flush();

    vexo_sim::remote::Place m_place;
    std::uint64_t m_epoch;
    std::mutex m_mutex;
    vexo_sim::wire::Counts m_counts;
    std::atomic<std::uint64_t> m_next{0};
    std::atomic<std::uint16_t> m_version{vexo_sim::wire::kVersion};
    std::unique_ptr<vexo_sim::remote::Connection> m_connection;
    vexo_sim::remote::Subscription m_hello;
};

}  // namespace remote_tests
