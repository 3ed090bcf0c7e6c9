// The connection to the servers, by itself.

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <memory>
#include <string>

#include "sim/remote/nats/Connection.h"
#include "tests/support/NatsServer.h"

namespace vexo_sim::remote {
namespace {

using test_support::NatsServer;

constexpr std::chrono::minutes kLong{10};
// A flush without a connection may wait as long for a server that hangs.
constexpr std::chrono::seconds kToConnect{30};

std::unique_ptr<Connection> ConnectionTo(const std::string& url) {
    ConnectionSettings settings;
    settings.servers = {url};
    settings.wait = kToConnect;
    settings.sendsAtOnce = true;
    std::string error;
    std::unique_ptr<Connection> connection = Connection::open(settings, {}, error);
    EXPECT_NE(connection, nullptr) << error;
    return connection;
}

TEST(Connection, AfterAPublishThatTheServerDidNotTakeNothingIsConfirmedUntilItIsBack) {
    SKIP_WITHOUT_NATS_SERVER();
    const NatsServer server;
    const auto connection = ConnectionTo(server.Url());
    ASSERT_NE(connection, nullptr);
    EXPECT_TRUE(connection->flush(kLong));
    const std::string message(60'000, 'x');
    server.Server().Signal(SIGSTOP);
    while (connection->publish("elsewhere", message.data(), message.size())) {
    }
    EXPECT_FALSE(connection->flush(std::chrono::seconds(1)));
    server.Server().Signal(SIGCONT);
    EXPECT_TRUE(hosted::Eventually([&] { return connection->flush(kLong); }));
}

}  // namespace
}  // namespace vexo_sim::remote
