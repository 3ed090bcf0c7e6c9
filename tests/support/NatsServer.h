#pragma once

#include <memory>
#include <string>

#include "tests/hosted/HostProcess.h"

namespace test_support {

/// A message server of the test's own, on a free port of the loopback, with its files in a directory of its own. Both
/// are gone at the end.
class NatsServer {
public:
    /// Whether nats-server is on this machine. A test without it skips.
    static bool isInstalled();

    /// @param more  lines for the server's configuration. tls and authorization want a timeout: the server's own 2 s
    ///              are too short on a busy machine
    explicit NatsServer(const std::string& more = {});
    ~NatsServer();
    NatsServer(const NatsServer&) = delete;
    NatsServer& operator=(const NatsServer&) = delete;

    /// nats://127.0.0.1:PORT
    std::string Url() const { return "nats://127.0.0.1:" + m_port; }
    /// Of the port that other servers of a cluster connect to; needs "cluster { listen: 127.0.0.1:-1 }".
    std::string ClusterUrl() const { return "nats://127.0.0.1:" + m_clusterPort; }
    /// What the server has written so far.
    std::string Log() const;

    /// Ends the server at once, as a crash does.
    void Kill();
    /// Starts it again, on the same port.
    void Start();
    void Start(const std::string& more) {
        m_more = more;
        Start();
    }
    const hosted::Process& Server() const { return *m_process; }

private:
    std::string readPorts(const std::string& kind) const;

    std::string m_directory;
    std::string m_more;
    std::string m_port = "-1";  // any
    std::string m_clusterPort;
    std::unique_ptr<hosted::Process> m_process;
};

/// The users and permissions that a page shows, for a server's configuration. Its time for a client to say who it is
/// does not pass on a busy machine.
std::string AuthorizationOf(const std::string& page);

/// Ends the test as skipped where there is no server.
#define SKIP_WITHOUT_NATS_SERVER() \
    if (!test_support::NatsServer::isInstalled()) GTEST_SKIP() << "skipped: nats-server is not installed"

}  // namespace test_support
