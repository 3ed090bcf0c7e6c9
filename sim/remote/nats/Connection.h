#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct __natsConnection;
struct __natsSubscription;

/// The message engine, for relay and remote card. Only this folder includes the engine's own headers.
namespace vexo_sim::remote {

/// How to reach the servers. Whatever is secret is in files, which are only named here.
struct ConnectionSettings {
    std::vector<std::string> servers;      // as serversOf() returns them
    std::string name;                      // shown by the server's monitoring
    std::string credsFile;                 // the engine's own file of a user: token and key
    std::string userFile;                  // first line user, second line password; a single line is a token
    std::string tlsCaFile;                 // PEM; whom to trust instead of the machine's own list
    std::string tlsCertFile;               // PEM; this program's certificate and
    std::string tlsKeyFile;                // its key
    std::chrono::milliseconds wait{5000};  // for the first connection, all servers together
    int reconnectBytes = 8 << 20;          // kept while there is no connection; what is published beyond is refused
    bool sendsAtOnce = false;              // publish() writes to the socket itself, not a thread a little later

    /// Files that are not named yet, from VEXO_NATS_CREDS, _USER_FILE, _TLS_CA, _TLS_CERT and _TLS_KEY.
    void readEnvironment();
};

enum class ConnectionEvent {
    kLost,          // it comes back by itself
    kBack,          // subscriptions are there again
    kClosed,        // for good: the servers refuse this user
    kSlow,          // a subscription lost messages because its handler did not take them in time
    kNotPermitted,  // a message or a subscription, and each further time
};
/// @p words is the server; with kNotPermitted its words, which name the subject, made printable.
using TellEvent = std::function<void(ConnectionEvent, const std::string& words)>;

struct MessageIn {
    const void* data;
    std::size_t size;
    const char* reply;  // null when no answer is wanted, or where relays alone send
};
using TakeMessage = std::function<void(const MessageIn&)>;

class Connection;

/// Ends the subscription when it is destroyed. A message that is just being handled goes on to its end.
class Subscription {
public:
    Subscription() = default;
    ~Subscription() { end(); }
    Subscription(Subscription&& from) noexcept : m_subscription(from.m_subscription) { from.m_subscription = nullptr; }
    Subscription& operator=(Subscription&& from) noexcept;
    void end();
    explicit operator bool() const { return m_subscription != nullptr; }

private:
    friend class Connection;
    explicit Subscription(__natsSubscription* subscription) : m_subscription(subscription) {}
    __natsSubscription* m_subscription = nullptr;
};

/// A connection that keeps itself up: it reconnects without a limit. Any thread may call it. Its own threads block all
/// signals. Of no use in a child of fork().
class Connection {
public:
    /// @param tell   called on a thread of the engine, until the connection is destroyed; it must not destroy it
    /// @param error  one line when there is no connection within settings.wait
    /// @return null on failure
    static std::unique_ptr<Connection> open(const ConnectionSettings& settings, TellEvent tell, std::string& error);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// False when the engine does not take it: it is reconnecting and its buffer is full, or the message is too large.
    bool publish(const std::string& subject, const void* data, std::size_t size);
    /// Waits until the server has seen all that was published and subscribed. What it did not permit of that has been
    /// told then; a refusal in the same words as the last one may be told a little later. False also when the
    /// connection is lost meanwhile, or when the last publish() failed because of it.
    bool flush(std::chrono::milliseconds wait);
    /// Messages go to @p take on a thread of their own.
    Subscription subscribe(const std::string& subject, TakeMessage take);

    enum class Answer { kTaken, kNobody, kNone };
    /// Sends a request to each subject and passes the answers to take(data, size) until it returns true.
    /// @return kNobody when the server knows no one who would answer; kNone when no answer was taken in time
    Answer ask(const std::vector<std::string>& subjects, const void* data, std::size_t size,
               std::chrono::milliseconds wait, const std::function<bool(const void*, std::size_t)>& take);

    bool isConnected() const;
    /// The server in use, without user and password.
    std::string server() const;
    /// The largest message that the server takes, in bytes.
    std::size_t largestMessage() const;
    /// Bytes that wait to be sent.
    std::size_t waitingBytes() const;

    /// Ends the engine's threads: for the end of the process, when all connections are destroyed.
    static void endEngine(std::chrono::milliseconds wait);

private:
    Connection(__natsConnection* connection, std::uint64_t number) : m_connection(connection), m_number(number) {}
    void awaitRefusals(std::chrono::steady_clock::time_point end) const;

    __natsConnection* m_connection;
    std::uint64_t m_number;                   // under which its events are told
    std::atomic<bool> m_isLastUnsent{false};  // the last publish() failed because of the connection
};

}  // namespace vexo_sim::remote
