#include "tests/relay/Listener.h"

#include <algorithm>
#include <stdexcept>

#include "sim/remote/Subjects.h"
#include "tests/hosted/HostProcess.h"

namespace wire = vexo_sim::wire;

Listener::Listener(const std::string& servers, const std::string& subject, bool keep) : m_keep(keep) {
    vexo_sim::remote::ConnectionSettings settings;
    std::string error;
    settings.servers = vexo_sim::remote::serversOf(servers, error);
    settings.readEnvironment();
    m_connection = vexo_sim::remote::Connection::open(settings, nullptr, error);
    if (m_connection == nullptr) throw std::runtime_error(error);
    m_subscription = m_connection->subscribe(subject, [this](const vexo_sim::remote::MessageIn& in) { take(in); });
    if (!m_subscription || !m_connection->flush(std::chrono::minutes(5))) throw std::runtime_error("not subscribed");
}

void Listener::take(const vexo_sim::remote::MessageIn& in) {
    const wire::Message message = wire::decode(in.data, in.size);
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (message.problem != wire::Problem::kNone) {
        ++m_account.notOurs;
        return;
    }
    const wire::Head& head = message.head;
    if (m_account.epochs == 0 || head.epoch != m_account.head.epoch) {
        const Account before = m_account;
        m_account = {};
        m_account.epochs = before.epochs + 1;
        m_account.largestMessage = before.largestMessage;
        m_next = 0;
    }
    m_account.head = head;
    m_account.largestMessage = std::max<std::uint64_t>(m_account.largestMessage, in.size);
    if (head.first < m_next) {
        ++m_account.backwards;
        return;
    }
    m_account.missing += head.first - m_next;
    m_account.packets += head.packets;
    m_next = head.first + head.packets;
    if (!m_keep) return;
    wire::forEachPacket(message, [&](const wire::PacketIn& packet) {
        m_packets.emplace_back(reinterpret_cast<const char*>(packet.data), packet.size);
    });
}

Listener::Account Listener::Now() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_account;
}

std::vector<std::string> Listener::Packets() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_packets;
}

bool Listener::Until(const std::function<bool(const Account&)>& wanted) const {
    return hosted::Eventually([&] { return wanted(Now()); });
}
