#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sim/remote/Subjects.h"
#include "sim/remote/Wire.h"
#include "sim/remote/nats/Connection.h"

namespace remote_tests {

/// The archive of a relay, with as many packets as the test says: those of Messages.h, from the first one of the epoch
/// on, or from where it was empty. Each answer has as much as the request wants. All packets are later than its moment.
class ScriptedArchive {
public:
    ScriptedArchive(const std::string& server, std::uint64_t epoch);

    /// It has the packets up to the one before @p end from now on.
    void SetEnd(std::uint64_t end);
    /// It has nothing, and waits for packet @p next.
    void SetEmpty(std::uint64_t next);
    /// Of the next answer a part is lost on its way.
    void SpoilNext();
    /// All that has come so far.
    std::vector<vexo_sim::wire::HistoryRequest> Requests() const;

    /// Packets that it has answered with, but for those that the questioner had. A question that came again because its
    /// answer was late counts once.
    std::uint64_t Given() const;

private:
    void Answer(const vexo_sim::remote::MessageIn& message);

    const std::uint64_t m_epoch;
    mutable std::mutex m_mutex;
    std::uint64_t m_begin = 0;
    std::uint64_t m_end = 0;
    bool m_isNextSpoiled = false;
    std::vector<vexo_sim::wire::HistoryRequest> m_requests;
    std::map<std::uint64_t, std::uint64_t> m_given;  // packets, by the number from which on they were asked for
    std::unique_ptr<vexo_sim::remote::Connection> m_connection;
    vexo_sim::remote::Subscription m_subscription;
};

}  // namespace remote_tests
