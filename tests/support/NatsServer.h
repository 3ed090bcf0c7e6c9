#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace test_support {

/// A message server of the test's own, on a free port of this machine's loopback, with its files in a directory of its
/// own. It ends with this object, or with the test.
class NatsServer {
public:
    /// Whether nats-server is installed. A test without it skips itself.
    static bool IsInstalled();

    /// Starts a server and waits until it takes connections. Throws std::runtime_error when it ends instead.
    /// @param config  lines for the server's configuration file
    /// @param port    0 = a free one
    explicit NatsServer(std::string config = {}, int port = 0);
    ~NatsServer();
    NatsServer(const NatsServer&) = delete;
    NatsServer& operator=(const NatsServer&) = delete;

    /// "nats://127.0.0.1:PORT"
    std::string Url() const;
    int Port() const { return m_port; }
    pid_t Id() const { return m_pid; }

    /// Ends it at once, without a word to its clients.
    void Kill();
    /// Starts it again at the same port.
    void Start();
    /// Stops the process, and lets it go on.
    void Freeze() const;
    void Thaw() const;
    /// What it has written.
    std::string Log() const;

private:
    std::string FindPort() const;
    void End(int signal);

    std::string m_directory;
    std::string m_config;
    int m_port = 0;
    pid_t m_pid = 0;
};

}  // namespace test_support

/// Ends the test as skipped where there is no server to start.
#define SKIP_WITHOUT_NATS_SERVER() \
    if (!test_support::NatsServer::IsInstalled()) GTEST_SKIP() << "nats-server is not installed"
