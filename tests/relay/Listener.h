#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sim/remote/Wire.h"
#include "sim/remote/nats/Connection.h"

/// Receives what a relay publishes under one subject, and accounts for it.
class Listener {
public:
    struct Account {
        std::uint64_t epochs = 0;     // that came by
        std::uint64_t packets = 0;    // of the last epoch, as the rest
        std::uint64_t missing = 0;    // numbers that were left out
        std::uint64_t backwards = 0;  // messages that began below the number that was due
        std::uint64_t notOurs = 0;    // messages that do not decode
        std::uint64_t largestMessage = 0;
        vexo_sim::wire::Head head;  // of the last message

        /// What the last head says of packets: each is here, or missing.
        bool isComplete() const { return packets + missing == head.first + head.packets; }
    };

    /// @param servers  with commas between them
    /// @param keep     the packets' bytes
    Listener(const std::string& servers, const std::string& subject, bool keep = false);
    ~Listener() { m_subscription.end(); }

    Account Now() const;
    std::vector<std::string> Packets() const;
    /// Waits until the account is as wanted. @return whether it ever was
    bool Until(const std::function<bool(const Account&)>& wanted) const;

private:
    void take(const vexo_sim::remote::MessageIn& in);

    const bool m_keep;
    mutable std::mutex m_mutex;
    Account m_account;
    std::uint64_t m_next = 0;
    std::vector<std::string> m_packets;
    std::unique_ptr<vexo_sim::remote::Connection> m_connection;
    vexo_sim::remote::Subscription m_subscription;
};
