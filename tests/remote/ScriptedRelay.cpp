#include "tests/remote/ScriptedRelay.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "tests/unit/sim/remote/Messages.h"

namespace remote_tests {

using namespace vexo_sim;

ScriptedRelay::ScriptedRelay(const std::string& server, std::uint64_t epoch, std::uint32_t channel, bool isSilent,
                             const remote::ConnectionSettings& settings)
    : m_place{"local", 0, channel}, m_epoch(epoch) {
    remote::ConnectionSettings own = settings;
    own.servers = {server};
    own.wait = std::chrono::minutes(10);
    std::string error;
    m_connection = remote::Connection::open(own, {}, error);
    if (m_connection == nullptr) throw std::runtime_error(error);
    if (!isSilent)
        m_hello = m_connection->subscribe(remote::helloSubject(m_place),
                                          [this](const remote::MessageIn& request) { AnswerHello(request); });
    Flush();
}

void ScriptedRelay::Flush() {
    if (!m_connection->flush(std::chrono::minutes(10))) throw std::runtime_error("the server does not answer");
}

wire::Head ScriptedRelay::HeadFor(std::uint64_t first) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    wire::Head head;
    head.epoch = m_epoch;
    head.first = first;
    head.counts = m_counts;
    head.mtu = 8192;
    head.flags = wire::kSimulated;
    return head;
}

void ScriptedRelay::AnswerHello(const remote::MessageIn& request) {
    if (request.reply == nullptr || wire::versionOfHelloRequest(request.data, request.size) != wire::kVersion) return;
    std::vector<unsigned char> hello = wire::encodeHello(HeadFor(m_next), "alice", "colo-1");
    const std::uint16_t version = m_version;
    std::memcpy(hello.data() + offsetof(wire::HeadBytes, version), &version, sizeof version);
    m_connection->publish(request.reply, hello.data(), hello.size());
}

void ScriptedRelay::SetCounts(const wire::Counts& counts) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_counts = counts;
}

void ScriptedRelay::Send(std::uint64_t first, std::uint32_t packets) {
    SendAll(first, first + packets, std::max(1U, packets));
    if (packets > 0) return;
    const wire::Packet message = wire::MessageOf(HeadFor(first), 0);
    SendRaw(message.data(), message.size());
}

void ScriptedRelay::SendAll(std::uint64_t first, std::uint64_t end, std::uint32_t batch) {
    PublishAll(first, end, batch);
    Flush();
}

bool ScriptedRelay::TrySend(std::uint64_t number) {
    PublishAll(number, number + 1, 1);
    return m_connection->flush(std::chrono::seconds(1));  // a flush without a connection takes all the time it gets
}

void ScriptedRelay::PublishAll(std::uint64_t first, std::uint64_t end, std::uint32_t batch) {
    for (std::uint64_t next = first; next < end; next += batch) {
        const auto packets = static_cast<std::uint32_t>(std::min<std::uint64_t>(batch, end - next));
        wire::Packet message = wire::MessageOf(HeadFor(next), packets);
        const std::uint16_t version = m_version;
        std::memcpy(message.data() + offsetof(wire::HeadBytes, version), &version, sizeof version);
        m_connection->publish(remote::streamSubject(m_place), message.data(), message.size());
    }
}

void ScriptedRelay::SendRaw(const void* data, std::size_t size) {
    Publish(data, size);
    Flush();
}

void ScriptedRelay::Publish(const void* data, std::size_t size) {
    m_connection->publish(remote::streamSubject(m_place), data, size);
}

}  // namespace remote_tests
