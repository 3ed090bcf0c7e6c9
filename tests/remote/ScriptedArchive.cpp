#include "tests/remote/ScriptedArchive.h"

#include <algorithm>
#include <chrono>
#include <numeric>
#include <stdexcept>
#include <utility>

#include "tests/unit/sim/remote/Messages.h"

namespace remote_tests {

using namespace vexo_sim;

namespace {

constexpr std::uint64_t kBatch = 1000;

}  // namespace

ScriptedArchive::ScriptedArchive(const std::string& server, std::uint64_t epoch) : m_epoch(epoch) {
    remote::ConnectionSettings settings;
    settings.servers = {server};
    settings.wait = std::chrono::minutes(10);
    std::string error;
    m_connection = remote::Connection::open(settings, {}, error);
    if (m_connection == nullptr) throw std::runtime_error(error);
    m_subscription = m_connection->subscribe(remote::historySubject({"local", 0, 3}),
                                             [this](const remote::MessageIn& message) { Answer(message); });
    if (!m_connection->flush(std::chrono::minutes(10))) throw std::runtime_error("the server does not answer");
}

void ScriptedArchive::SetEnd(std::uint64_t end) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_end = end;
}

void ScriptedArchive::SetEmpty(std::uint64_t next) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_begin = m_end = next;
}

void ScriptedArchive::SpoilNext() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isNextSpoiled = true;
}

std::vector<wire::HistoryRequest> ScriptedArchive::Requests() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
}

std::uint64_t ScriptedArchive::Given() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto add = [](std::uint64_t sum, const auto& given) { return sum + given.second; };
    return std::accumulate(m_given.begin(), m_given.end(), std::uint64_t{0}, add);
}

void ScriptedArchive::Answer(const remote::MessageIn& message) {
    wire::HistoryRequest request;
    if (message.reply == nullptr || !wire::decodeHistoryRequest(message.data, message.size, request)) return;
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_requests.push_back(request);
    wire::HistoryEnd end;
    end.head.epoch = m_epoch;
    end.head.first = m_end;
    end.cursor = m_begin < m_end ? 1 : request.cursor;
    end.messages = std::exchange(m_isNextSpoiled, false) ? 1 : 0;
    wire::Head head;
    head.epoch = m_epoch;
    head.timeNs = request.timeNs;
    head.mtu = 8192;
    head.flags = wire::kSimulated | wire::kHistory;
    std::uint64_t next = request.cursor == 0 ? m_begin : request.next;
    const std::uint64_t begin = std::max(next, request.next);
    for (std::size_t bytes = 0; next < m_end && bytes <= request.mostBytes; ++end.messages) {
        head.first = next;
        next = std::min(next + kBatch, m_end);
        const wire::Packet part = wire::MessageOf(head, static_cast<std::uint32_t>(next - head.first));
        m_connection->publish(message.reply, part.data(), part.size());
        bytes += part.size();
    }
    end.isAll = next >= m_end;
    if (next > begin) m_given[begin] = next - begin;
    const std::vector<unsigned char> last = wire::encodeHistoryEnd(end);
    m_connection->publish(message.reply, last.data(), last.size());
}

}  // namespace remote_tests
