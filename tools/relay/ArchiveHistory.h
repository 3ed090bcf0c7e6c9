#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "tools/relay/ArchiveStore.h"
#include "tools/relay/Network.h"

namespace relay {

/// Answers requests for the past, each with some messages of the stream's form and an end. A receiver asks again when
/// it has room for more, so nothing waits here but requests: one of each receiver, and not many. They are answered in
/// turn.
class ArchiveHistory {
public:
    static constexpr std::size_t kMostRequests = 64;
    static constexpr std::size_t kMostBlocks = 256;  // of an answer
    static constexpr std::uint32_t kMostBytes = 4 << 20;

    /// @param messageBytes  of a message; a longer packet goes alone
    ArchiveHistory(ArchiveStore& store, Network& network, std::size_t messageBytes);

    /// Any thread. What is no request is left out. A request of a receiver that already has one here replaces that: it
    /// has given up waiting for it.
    void ask(const void* data, std::size_t size, const char* reply);
    /// Answers the oldest request. Waits for one until close(). @return false after that
    bool answer();
    /// Any thread.
    void close();

    std::uint64_t answers() const { return m_answers; }

private:
    struct Waiting {
        std::string reply;
        wire::HistoryRequest request;
    };
    bool sendBegin(const std::string& reply, const ArchiveStore::Found& found, const wire::HistoryRequest& request,
                   wire::HistoryEnd& end);
    bool send(const std::string& reply, const ArchiveBlock& block, const wire::HistoryRequest& request,
              wire::HistoryEnd& end);
    bool flush(const std::string& reply, wire::Head head, wire::HistoryEnd& end);
    void answer(const Waiting& waiting);

    ArchiveStore& m_store;
    Network& m_network;
    wire::MessageWriter m_message;
    std::uint64_t m_bytes = 0;  // of the present answer
    std::uint64_t m_answers = 0;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Waiting> m_waiting;
    bool m_isClosed = false;
};

}  // namespace relay
