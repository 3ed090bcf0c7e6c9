// The connection to the servers, by itself.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sim/remote/nats/Connection.h"
#include "tests/support/NatsServer.h"

namespace vexo_sim::remote {
namespace {

using test_support::NatsServer;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr std::chrono::minutes kLong{10};
// A flush without a connection may wait as long for a server that hangs.
constexpr std::chrono::seconds kToConnect{30};

/// What has been told of a connection.
class Events {
public:
    TellEvent Teller() {
        return [this](ConnectionEvent event, const std::string& words) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (event == ConnectionEvent::kNotPermitted) m_refusals.push_back(words);
            if (event == ConnectionEvent::kBack) m_isBack = true;
        };
    }
    /// What the servers have refused, in their words.
    std::vector<std::string> Refusals() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_refusals;
    }
    /// Whether the connection was lost and is there again.
    bool IsBack() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_isBack;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_refusals;
    bool m_isBack = false;
};

std::unique_ptr<Connection> ConnectionTo(const std::string& url, const TellEvent& tell = {}) {
    ConnectionSettings settings;
    settings.servers = {url};
    settings.wait = kToConnect;
    settings.sendsAtOnce = true;
    std::string error;
    std::unique_ptr<Connection> connection = Connection::open(settings, tell, error);
    EXPECT_NE(connection, nullptr) << error;
    return connection;
}

/// A server that lets in whom it likes, and says to each of them that something is not permitted.
class RefusingServer {
public:
    explicit RefusingServer(std::string subject) : m_subject(std::move(subject)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        EXPECT_EQ(::bind(m_listening, reinterpret_cast<const sockaddr*>(&address), size), 0);
        EXPECT_EQ(::listen(m_listening, 1), 0);
        ::getsockname(m_listening, reinterpret_cast<sockaddr*>(&address), &size);
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this] { Serve(); });
    }
    ~RefusingServer() {
        ::shutdown(m_listening, SHUT_RDWR);  // in case that no client has come
        m_thread.join();
        ::close(m_listening);
    }
    std::string Url() const { return "nats://127.0.0.1:" + std::to_string(m_port); }

private:
    static void Say(int client, const std::string& text) {
        EXPECT_EQ(::send(client, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
    }
    // One client, until it closes the connection.
    void Serve() const {
        const int client = ::accept(m_listening, nullptr, nullptr);
        if (client < 0) return;
        Say(client,
            "INFO {\"server_id\":\"X\",\"version\":\"2.9.0\",\"proto\":1,\"max_payload\":1048576,\"headers\":true}\r\n");
        std::string line;
        bool isRefused = false;
        for (char byte = 0; ::read(client, &byte, 1) == 1;) {
            line += byte;
            if (byte != '\n') continue;
            if (line == "PING\r\n") {
                if (isRefused) Say(client, "-ERR 'Permissions Violation for Publish to \"" + m_subject + "\"'\r\n");
                isRefused = true;  // not at the first one, which belongs to the connecting
                Say(client, "PONG\r\n");
            }
            line.clear();
        }
        ::close(client);
    }

    const std::string m_subject;
    const int m_listening = ::socket(AF_INET, SOCK_STREAM, 0);
    int m_port = 0;
    std::thread m_thread;
};

std::string RefusalOf(const std::string& subject) { return "Permissions Violation for Publish to \"" + subject + "\""; }

TEST(Connection, WhatTheServerDoesNotPermitIsToldBeforeAFlushHasEnded) {
    SKIP_WITHOUT_NATS_SERVER();
    const NatsServer server(
        "authorization { timeout: 300, default_permissions: { publish: [\"elsewhere.>\"] }, "
        "users: [ { user: desk, password: desk } ] }\nno_auth_user: desk");
    const std::string longSubject = "vexo.local.0.3.q.21." + std::string(400, 'A');  // the engine cuts the words
    const std::string cutRefusal = RefusalOf(longSubject).substr(0, 200);
    for (int round = 0; round < 50; ++round) {
        Events events;
        const auto connection = ConnectionTo(server.Url(), events.Teller());
        ASSERT_NE(connection, nullptr);
        EXPECT_TRUE(connection->publish("elsewhere.at.all", "hello", 5));
        EXPECT_TRUE(connection->flush(kLong));
        EXPECT_THAT(events.Refusals(), IsEmpty());
        EXPECT_TRUE(connection->publish("vexo.local.0.3.stream", "hello", 5));
        EXPECT_TRUE(connection->flush(kLong));
        EXPECT_THAT(events.Refusals(), ElementsAre(RefusalOf("vexo.local.0.3.stream")));
        EXPECT_TRUE(connection->publish(longSubject, "hello", 5));
        EXPECT_TRUE(connection->flush(kLong));
        EXPECT_THAT(events.Refusals(), ElementsAre(RefusalOf("vexo.local.0.3.stream"), StartsWith(cutRefusal)));
    }
}

TEST(Connection, TheServersWordsCannotCommandATerminal) {
    RefusingServer server("a\x1b[2J\tb\xC3\xA9");
    Events events;
    const auto connection = ConnectionTo(server.Url(), events.Teller());
    ASSERT_NE(connection, nullptr);
    EXPECT_TRUE(connection->flush(kLong));
    EXPECT_THAT(events.Refusals(), ElementsAre(RefusalOf("a?[2J?b??")));
}

TEST(Connection, AfterAPublishThatTheServerDidNotTakeNothingIsConfirmedUntilItTakesAnother) {
    SKIP_WITHOUT_NATS_SERVER();
    const NatsServer server;
    Events events;
    const auto connection = ConnectionTo(server.Url(), events.Teller());
    ASSERT_NE(connection, nullptr);
    EXPECT_TRUE(connection->flush(kLong));
    const std::string message(60'000, 'x');
    server.Server().Signal(SIGSTOP);
    while (connection->publish("elsewhere", message.data(), message.size())) {
    }
    EXPECT_FALSE(connection->flush(std::chrono::seconds(1)));
    server.Server().Signal(SIGCONT);
    EXPECT_TRUE(hosted::Eventually([&] {
        const bool isBack = events.IsBack() && connection->isConnected();
        EXPECT_FALSE(connection->flush(std::chrono::seconds(1))) << "the message that was not taken has not been sent";
        return isBack;
    }));
    EXPECT_TRUE(connection->publish("elsewhere", message.data(), message.size()));
    EXPECT_TRUE(connection->flush(kLong));
}

}  // namespace
}  // namespace vexo_sim::remote
