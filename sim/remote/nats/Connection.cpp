#include "sim/remote/nats/Connection.h"

#include <nats/nats.h>
#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>

#include "sim/remote/SignalsBlocked.h"
#include "sim/remote/Subjects.h"
#include "sim/remote/nats/ConnectionOptions.h"

namespace vexo_sim::remote {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kMaxPendingMessages = 1 << 20;
constexpr int kMaxPendingBytes = 64 << 20;

// Who is told of a connection's events. The engine calls back at any time, also after a connection was destroyed, so
// it gets a number and no pointer.
class Listeners {
public:
    static Listeners& instance() {
        static Listeners& listeners = *new Listeners;  // never destroyed: the engine's threads may outlive main()
        return listeners;
    }
    std::uint64_t add(TellEvent tell) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_listeners[++m_last].tell = std::move(tell);
        return m_last;
    }
    void remove(std::uint64_t number) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_listeners.erase(number);
    }
    void tell(std::uint64_t number, ConnectionEvent event, const std::string& words) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_listeners.find(number);
        if (found == m_listeners.end()) return;
        if (found->second.tell) found->second.tell(event, words);
        if (event == ConnectionEvent::kNotPermitted) found->second.lastRefusal = words;
    }
    std::string lastRefusal(std::uint64_t number) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_listeners.at(number).lastRefusal;
    }

private:
    struct Listener {
        TellEvent tell;
        std::string lastRefusal;  // that was told
    };
    std::mutex m_mutex;  // held while an event is told: after remove() nobody is told any more
    std::map<std::uint64_t, Listener> m_listeners;
    std::uint64_t m_last = 0;
};

void* closureOf(std::uint64_t number) { return reinterpret_cast<void*>(static_cast<std::uintptr_t>(number)); }
std::uint64_t numberOf(void* closure) { return reinterpret_cast<std::uintptr_t>(closure); }

std::string serverOf(natsConnection* connection) {
    char url[256] = {};
    natsConnection_GetConnectedUrl(connection, url, sizeof url);
    return url;
}

template <ConnectionEvent event>
void onEvent(natsConnection* connection, void* closure) {
    Listeners::instance().tell(numberOf(closure), event, serverOf(connection));
}

// The servers' words are a stranger's, and may go to a terminal.
std::string printable(std::string words) {
    std::replace_if(
        words.begin(), words.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return words;
}

// In the callback that tells of it.
std::string wordsOfRefusal() {
    natsStatus last = NATS_OK;
    const char* const said = nats_GetLastError(&last);
    const bool isOfThis = said != nullptr && last == NATS_NOT_PERMITTED;
    return printable(isOfThis ? said : natsStatus_GetText(NATS_NOT_PERMITTED));
}

void onError(natsConnection* connection, natsSubscription*, natsStatus status, void* closure) {
    Listeners& listeners = Listeners::instance();
    if (status == NATS_SLOW_CONSUMER)
        listeners.tell(numberOf(closure), ConnectionEvent::kSlow, serverOf(connection));
    else if (status == NATS_NOT_PERMITTED)
        listeners.tell(numberOf(closure), ConnectionEvent::kNotPermitted, wordsOfRefusal());
}

// Once a process. The engine's threads inherit the blocked signals of the caller, and its change of the process's
// SIGPIPE is taken back: the application decides about that.
void openEngine() {
    static std::once_flag once;
    std::call_once(once, [] {
        struct sigaction before {};
        sigaction(SIGPIPE, nullptr, &before);
        nats_Open(-1);
        sigaction(SIGPIPE, &before, nullptr);
    });
}

std::string joined(const std::vector<std::string>& servers) {
    std::string text;
    for (const std::string& server : servers) text += (text.empty() ? "" : ",") + server;
    return text;
}

// A server that does not accept a client's certificate, or finds none, closes the encrypted connection without a word.
std::string hintOf(const ConnectionSettings& settings, natsStatus status) {
    const bool isClosed = status == NATS_PROTOCOL_ERROR || status == NATS_IO_ERROR || status == NATS_CONNECTION_CLOSED;
    if (settings.tlsCaFile.empty() || !isClosed) return {};
    return settings.tlsCertFile.empty() ? "; the server may want a certificate of this program"
                                        : "; the server may not accept this program's certificate";
}

// What the thread that connects and the one that waits for it share.
struct Attempt {
    std::mutex mutex;
    std::condition_variable done;
    bool isDone = false;
    bool isGivenUp = false;
    natsConnection* connection = nullptr;
    std::string error;
};

void connect(const ConnectionSettings& settings, std::uint64_t number, Attempt& attempt) {
    openEngine();
    std::string error;
    natsConnection* connection = nullptr;
    OptionsPointer options = makeOptions(settings, error);
    if (options != nullptr) {
        natsOptions* const o = options.get();
        natsOptions_SetDisconnectedCB(o, onEvent<ConnectionEvent::kLost>, closureOf(number));
        natsOptions_SetReconnectedCB(o, onEvent<ConnectionEvent::kBack>, closureOf(number));
        natsOptions_SetClosedCB(o, onEvent<ConnectionEvent::kClosed>, closureOf(number));
        natsOptions_SetErrorHandler(o, onError, closureOf(number));
        const natsStatus status = natsConnection_Connect(&connection, o);
        if (status != NATS_OK)
            error = "cannot connect to " + joined(settings.servers) + ": " + reasonOf(status) +
                    hintOf(settings, status);
    }
    const std::lock_guard<std::mutex> lock(attempt.mutex);
    attempt.isDone = true;
    attempt.error = std::move(error);
    if (attempt.isGivenUp)
        natsConnection_Destroy(connection);
    else
        attempt.connection = connection;
    attempt.done.notify_one();
}

std::string inMilliseconds(std::chrono::milliseconds wait) { return std::to_string(wait.count()) + " ms"; }

void takeMessage(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
    const auto& take = *static_cast<TakeMessage*>(closure);
    const int size = natsMsg_GetDataLength(message);
    // Who asks chooses where the answer goes. That must not be where others expect a relay's own messages.
    const char* const reply = natsMsg_GetReply(message);
    const bool isOpenToAll = reply != nullptr && !isOfRelays(reply);
    take({natsMsg_GetData(message), size > 0 ? static_cast<std::size_t>(size) : 0, isOpenToAll ? reply : nullptr});
    natsMsg_Destroy(message);
}

void forgetTaker(void* closure) { delete static_cast<TakeMessage*>(closure); }

std::int64_t millisecondsUntil(Clock::time_point end) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
}

std::uint64_t timesReconnected(natsConnection* connection) {
    natsStatistics* made = nullptr;
    if (natsStatistics_Create(&made) != NATS_OK) return 0;
    const std::unique_ptr<natsStatistics, decltype(&natsStatistics_Destroy)> statistics(made, natsStatistics_Destroy);
    std::uint64_t times = 0;
    natsConnection_GetStats(connection, made);
    natsStatistics_GetCounts(made, nullptr, nullptr, nullptr, nullptr, &times);
    return times;
}

bool isOfMessageAlone(natsStatus status) {
    return status == NATS_INSUFFICIENT_BUFFER || status == NATS_MAX_PAYLOAD || status == NATS_INVALID_SUBJECT;
}

// The subscription that answers come to.
class AnswerBox {
public:
    explicit AnswerBox(natsConnection* connection) {
        if (natsInbox_Create(&m_subject) != NATS_OK) return;
        natsConnection_SubscribeSync(&m_subscription, connection, m_subject);
    }
    ~AnswerBox() {
        natsSubscription_Destroy(m_subscription);
        natsInbox_Destroy(m_subject);
    }
    AnswerBox(const AnswerBox&) = delete;
    AnswerBox& operator=(const AnswerBox&) = delete;

    bool isOpen() const { return m_subscription != nullptr; }
    const char* subject() const { return m_subject; }

    struct Free {
        void operator()(natsMsg* message) const { natsMsg_Destroy(message); }
    };
    using Message = std::unique_ptr<natsMsg, Free>;
    /// NATS_NO_RESPONDERS: the server knows nobody who answers one of the requests.
    natsStatus next(Clock::time_point end, Message& message) {
        natsMsg* next = nullptr;
        const std::int64_t left = millisecondsUntil(end);
        const natsStatus status = left > 0 ? natsSubscription_NextMsg(&next, m_subscription, left) : NATS_TIMEOUT;
        message.reset(next);
        return status;
    }

private:
    natsInbox* m_subject = nullptr;
    natsSubscription* m_subscription = nullptr;
};

}  // namespace

Subscription& Subscription::operator=(Subscription&& from) noexcept {
    std::swap(m_subscription, from.m_subscription);
    return *this;
}

void Subscription::end() {
    if (m_subscription == nullptr) return;
    const SignalsBlocked blocked;
    natsSubscription_Destroy(m_subscription);
    m_subscription = nullptr;
}

// The engine's own time limits do not cover the look-up of a host's name. So a thread connects, and the caller waits
// for it no longer than it wants.
std::unique_ptr<Connection> Connection::open(const ConnectionSettings& settings, TellEvent tell, std::string& error) {
    const auto attempt = std::make_shared<Attempt>();
    const std::uint64_t number = Listeners::instance().add(std::move(tell));
    try {
        const SignalsBlocked blocked;
        std::thread([settings, number, attempt] { connect(settings, number, *attempt); }).detach();
    } catch (const std::system_error& failure) {
        Listeners::instance().remove(number);
        error = std::string("cannot start a thread: ") + failure.what();
        return nullptr;
    }
    std::unique_lock<std::mutex> lock(attempt->mutex);
    attempt->done.wait_for(lock, settings.wait, [&] { return attempt->isDone; });
    attempt->isGivenUp = !attempt->isDone;
    if (attempt->connection != nullptr) return std::unique_ptr<Connection>(new Connection(attempt->connection, number));
    lock.unlock();
    Listeners::instance().remove(number);
    error = attempt->isGivenUp
                ? "cannot connect to " + joined(settings.servers) + " within " + inMilliseconds(settings.wait)
                : attempt->error;
    return nullptr;
}

Connection::~Connection() {
    const SignalsBlocked blocked;
    Listeners::instance().remove(m_number);
    natsConnection_Destroy(m_connection);
}

bool Connection::publish(const std::string& subject, const void* data, std::size_t size) {
    const natsStatus status = natsConnection_Publish(m_connection, subject.c_str(), data, static_cast<int>(size));
    if (!isOfMessageAlone(status)) m_isLastUnsent = status != NATS_OK;
    return status == NATS_OK;
}

// When a connection breaks, the engine calls it good for a moment, and the flushes that wait for it done.
bool Connection::flush(std::chrono::milliseconds wait) {
    const SignalsBlocked blocked;
    const Clock::time_point end = Clock::now() + wait;
    const std::uint64_t before = timesReconnected(m_connection);
    if (natsConnection_FlushTimeout(m_connection, wait.count()) != NATS_OK) return false;
    if (!isConnected() || timesReconnected(m_connection) != before || m_isLastUnsent) return false;
    awaitRefusals(end);
    return true;
}

// They come before the server's answer to a flush, but another thread tells of them. The engine knows the words of the
// last one. Should it write new ones just now, they are looked at once more.
void Connection::awaitRefusals(Clock::time_point end) const {
    const char* words = nullptr;
    while (natsConnection_GetLastError(m_connection, &words) == NATS_NOT_PERMITTED &&
           Listeners::instance().lastRefusal(m_number) != printable(words) && Clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

Subscription Connection::subscribe(const std::string& subject, TakeMessage take) {
    const SignalsBlocked blocked;
    auto* const taker = new TakeMessage(std::move(take));
    natsSubscription* subscription = nullptr;
    if (natsConnection_Subscribe(&subscription, m_connection, subject.c_str(), takeMessage, taker) != NATS_OK) {
        delete taker;
        return {};
    }
    natsSubscription_SetPendingLimits(subscription, kMaxPendingMessages, kMaxPendingBytes);
    natsSubscription_SetOnCompleteCB(subscription, forgetTaker, taker);
    return Subscription(subscription);
}

Connection::Answer Connection::ask(const std::vector<std::string>& subjects, const void* data, std::size_t size,
                                   std::chrono::milliseconds wait,
                                   const std::function<bool(const void*, std::size_t)>& take) {
    const SignalsBlocked blocked;
    AnswerBox answers(m_connection);
    if (!answers.isOpen()) return Answer::kNone;
    for (const std::string& subject : subjects)
        natsConnection_PublishRequest(m_connection, subject.c_str(), answers.subject(), data, static_cast<int>(size));
    const Clock::time_point end = Clock::now() + wait;
    for (std::size_t refused = 0; refused < subjects.size();) {
        AnswerBox::Message message;
        const natsStatus status = answers.next(end, message);
        if (status == NATS_NO_RESPONDERS) {
            ++refused;
        } else if (status != NATS_OK) {
            return Answer::kNone;
        } else if (take(natsMsg_GetData(message.get()),
                        static_cast<std::size_t>(natsMsg_GetDataLength(message.get())))) {
            return Answer::kTaken;
        }
    }
    return Answer::kNobody;
}

bool Connection::isConnected() const { return natsConnection_Status(m_connection) == NATS_CONN_STATUS_CONNECTED; }

std::string Connection::server() const { return serverOf(m_connection); }

std::size_t Connection::largestMessage() const {
    return static_cast<std::size_t>(natsConnection_GetMaxPayload(m_connection));
}

std::size_t Connection::waitingBytes() const {
    const int bytes = natsConnection_Buffered(m_connection);
    return bytes > 0 ? static_cast<std::size_t>(bytes) : 0;
}

void Connection::endEngine(std::chrono::milliseconds wait) {
    const SignalsBlocked blocked;
    nats_CloseAndWait(wait.count());
}

}  // namespace vexo_sim::remote
