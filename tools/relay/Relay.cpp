#include "tools/relay/Relay.h"

#include <pthread.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/random.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <utility>

#include "tools/relay/Failure.h"
#include "tools/tap/TapClock.h"

namespace relay {
namespace {

namespace remote = vexo_sim::remote;
using Clock = std::chrono::steady_clock;

constexpr auto kAskOthers = std::chrono::milliseconds(300);
constexpr auto kSendAtEnd = std::chrono::seconds(3);
constexpr auto kConfirmAtEnd = std::chrono::seconds(2);
constexpr auto kForever = Clock::duration::max() / 2;  // from now on is a moment that the clock has

void say(const std::string& text) { std::fprintf(stderr, "vexo relay: %s\n", text.c_str()); }

Clock::duration durationOf(double seconds) {
    if (seconds == 0) return kForever;
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

std::uint64_t randomEpoch() {
    std::uint64_t epoch = 0;
    while (epoch == 0)
        if (::getrandom(&epoch, sizeof epoch, 0) != sizeof epoch) epoch = tap::clock_ticks::timeOfDay();
    return epoch;
}

std::string hostName() {
    char name[65] = {};
    return ::gethostname(name, sizeof name - 1) == 0 ? name : "unknown";
}

std::string userName() {
    const passwd* const user = ::getpwuid(::geteuid());
    return user != nullptr ? user->pw_name : std::to_string(::geteuid());
}

/// While it lives, a signal ends the process at once, as in the start-up before the signals are caught: an archive may
/// need long to read its files.
class SignalsEndAtOnce {
public:
    SignalsEndAtOnce() {
        struct sigaction action {};
        action.sa_handler = SIG_DFL;
        for (Caught& one : m_caught) ::sigaction(one.signal, &action, &one.before);
    }
    ~SignalsEndAtOnce() {
        for (const Caught& one : m_caught) ::sigaction(one.signal, &one.before, nullptr);
    }
    SignalsEndAtOnce(const SignalsEndAtOnce&) = delete;
    SignalsEndAtOnce& operator=(const SignalsEndAtOnce&) = delete;

private:
    struct Caught {
        int signal;
        struct sigaction before;
    };
    Caught m_caught[2] = {{SIGINT, {}}, {SIGTERM, {}}};
};

remote::ConnectionSettings withName(remote::ConnectionSettings settings, const remote::Place& place) {
    settings.readEnvironment();
    settings.name = "vexo relay " + subjectOf(place);
    settings.sendsAtOnce = true;  // the batcher has put together what goes in one write
    return settings;
}

}  // namespace

// ---- the servers ----

// A subject has no blank in it. So nobody can put this into a subject of his own.
Servers::Servers(const remote::ConnectionSettings& settings, const remote::Place& place)
    : m_ownSubjects(" \"" + subjectOf(place) + ".") {
    std::string error;
    const auto tellEvent = [this](remote::ConnectionEvent event, const std::string& words) { tell(event, words); };
    m_connection = remote::Connection::open(settings, tellEvent, error);
    if (m_connection == nullptr) throw Failure(Failure::kFinding, error);
}

// Any other subject may be one that somebody wants an answer at.
void Servers::refuse(const std::string& words) {
    const bool isOwn = words.find(m_ownSubjects) != std::string::npos;
    if (isOwn && !m_isRefused.exchange(true)) say("the servers refuse what this relay needs: " + words);
    if (!isOwn && m_refusals.isWorthTelling(words)) say("the servers refuse: " + words);
}

void Servers::tell(remote::ConnectionEvent event, const std::string& words) {
    switch (event) {
        case remote::ConnectionEvent::kLost:
            ++m_timesLost;
            say("the connection is lost; trying again");
            break;
        case remote::ConnectionEvent::kBack: say("connected again, to " + words); break;
        case remote::ConnectionEvent::kClosed:
            m_isRefused.store(true);
            say("the servers refuse this user");
            break;
        case remote::ConnectionEvent::kNotPermitted: refuse(words); break;
        case remote::ConnectionEvent::kSlow: break;  // of subscriptions; who says hello too often gets no answer
    }
}

// ---- hello ----

void Hello::setHead(const wire::Head& head) {
    const std::lock_guard<std::mutex> lock(m_headMutex);
    m_head = head;
}

void Hello::answer(const remote::MessageIn& request) {
    if (request.reply == nullptr || wire::versionOfHelloRequest(request.data, request.size) == 0) return;
    static const std::string user = userName();
    static const std::string host = hostName();
    wire::Head head;
    {
        const std::lock_guard<std::mutex> lock(m_headMutex);
        head = m_head;
    }
    const std::vector<unsigned char> bytes = wire::encodeHello(head, user, host);
    const std::lock_guard<std::mutex> lock(m_openMutex);
    if (m_servers != nullptr) m_servers->publish(request.reply, bytes.data(), bytes.size());
}

void Hello::close() {
    const std::lock_guard<std::mutex> lock(m_openMutex);
    m_servers = nullptr;
}

// ---- the relay ----

Relay::Relay(const Settings& settings)
    : m_settings(settings),
      m_servers(withName(settings.connection, settings.place), settings.place),
      m_queue(settings.queueBytes),
      m_hello(std::make_shared<Hello>(m_servers)),
      m_left(durationOf(settings.seconds)) {
    CPU_ZERO(&m_cpus);
    ::sched_getaffinity(0, sizeof m_cpus, &m_cpus);
    if (!m_queue.isUsable())
        throw Failure(Failure::kFinding, "there is no memory for a queue of this size; give a smaller --queue");
    refuseSecond();
    tap::clock_ticks::choose();
    m_stream = openSource(settings);
    if (!settings.beside) begin();
}

// What is told to others of the stream is known now.
void Relay::begin() {
    const Settings& settings = m_settings;
    m_page = std::make_unique<RelayPage>(settings.place.bus, settings.place.channel, m_stream->knowsPolls());
    m_facts = {randomEpoch(), m_stream->mtu(), m_stream->isSimulated() ? wire::kSimulated : 0};
    makeBatcher();
    const auto answer = [hello = m_hello](const remote::MessageIn& request) { hello->answer(request); };
    m_helloSubscription = m_servers.connection().subscribe(helloSubject(settings.place), answer);
    if (!m_helloSubscription) throw Failure(Failure::kFinding, "cannot subscribe to " + helloSubject(settings.place));
}

Relay::~Relay() {
    m_helloSubscription.end();
    m_hello->close();
    endSender();
}

// On one card the stream itself refuses a second program. Two relays on two hosts would mix their packets.
void Relay::refuseSecond() {
    wire::Hello other;
    const std::vector<unsigned char> request = wire::encodeHelloRequest();
    const auto take = [&](const void* data, std::size_t size) {
        other = wire::decodeHello(data, size);
        return true;
    };
    if (m_servers.connection().ask({helloSubject(m_settings.place)}, request.data(), request.size(), kAskOthers,
                                   take) != remote::Connection::Answer::kTaken)
        return;
    const bool isKnown = other.message.problem == wire::Problem::kNone;
    throw Failure(Failure::kFinding, subjectOf(m_settings.place) + " is taken: " +
                                         (isKnown ? "the relay of " + other.user + "@" + other.host
                                                  : "somebody (" + toText(other.message) + ")") +
                                         " publishes it; stop that one, or name this site with --site");
}

void Relay::makeBatcher() {
    const std::size_t largest = m_servers.connection().largestMessage();
    const std::size_t needed = wire::kHeadBytes + wire::footprint(m_facts.mtu);
    if (largest < needed)
        throw Failure(Failure::kFinding, "the server takes messages of " + std::to_string(largest) +
                                             " bytes; the longest packet of this card needs " + std::to_string(needed) +
                                             ": raise max_payload of the server");
    BatchLimits limits = m_settings.limits;
    limits.bytes = std::min(limits.bytes, largest);
    Network* network = &m_servers;
    if (!m_settings.archive.directory.empty()) network = &makeArchive(limits.bytes);
    m_batcher = std::make_unique<Batcher>(*network, streamSubject(m_settings.place), m_facts, limits);
    if (m_settings.byContract) {
        m_layouts = std::make_unique<vexo::data::Layouts>(std::vector<std::string>{});
        m_contracts = std::make_unique<Contracts>(*m_layouts, m_settings.place);
        m_batcher->addContracts(*m_contracts);
    }
    m_hello->setHead(m_batcher->head(tap::clock_ticks::timeOfDay()));
}

Network& Relay::makeArchive(std::size_t messageBytes) {
    wire::Head stream;
    stream.epoch = m_facts.epoch;
    stream.mtu = m_facts.mtu;
    stream.flags = m_facts.flags;
    const auto tell = [this](remote::ConnectionEvent event, const std::string& words) {
        if (event == remote::ConnectionEvent::kNotPermitted) m_servers.refuse(words);
    };
    const Archive::Surroundings around{
        m_settings.place, m_settings.connection, m_settings.queueBytes, messageBytes, m_cpus, tell};
    m_archive = std::make_unique<Archive>(m_settings.archive, around, stream, m_servers);
    return *m_archive;
}

std::string Relay::describe() const {
    const remote::Place& place = m_settings.place;
    return "channel " + std::to_string(place.channel) + " of card " + std::to_string(place.bus) + " to " +
           m_servers.connection().server() + ", subject " + streamSubject(place);
}

// ---- the sending thread ----

// All signals are blocked in it: the handlers must run in the polling thread.
void Relay::startSender() {
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    m_sender = std::thread([this] { send(); });
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void Relay::endSender() {
    if (!m_sender.joinable()) return;
    m_sendUntil = Clock::now() + kSendAtEnd;
    m_isPolled.store(false, std::memory_order_release);
    m_sender.join();
}

void Relay::send() {
    ::pthread_setaffinity_np(::pthread_self(), sizeof m_cpus, &m_cpus);
    ::pthread_setname_np(::pthread_self(), "vexo-relay");
    ::prctl(PR_SET_TIMERSLACK, 1);  // a rest of 50 microseconds would take twice as long
    const auto end = Clock::now() + m_left;
    Sender sender(m_queue, *m_batcher, [this] { return m_stream->counts(); });
    while (m_isPolled.load(std::memory_order_acquire)) {
        if (!sender.step()) sender.rest();
        watch(sender, end);
    }
    sender.finish([this] { return Clock::now() >= m_sendUntil; });
}

void Relay::watch(const Sender& sender, Clock::time_point end) {
    const wire::Head head = m_batcher->head(sender.nowNs());
    m_hello->setHead(head);
    m_page->setCounts(head.counts);
    if (Clock::now() >= end || m_servers.isRefused()) m_isEnding.store(true);
    if (sender.isCardSilent() == m_wasSilent) return;
    m_wasSilent = sender.isCardSilent();
    say(m_wasSilent ? "the card does not answer; waiting for it" : "the card answers again");
}

// ---- the polling thread ----

// Nobody delivered packets.
Result Relay::nothing() const {
    Result result;
    result.isFlushed = m_servers.connection().flush(kConfirmAtEnd) && !m_servers.isRefused();
    result.timesLost = m_servers.timesLost();
    return result;
}

// This relay may have waited for an application while another one did not. @return false: it is over
bool Relay::beginBeside(const std::function<bool()>& isOver) {
    refuseSecond();
    const SignalsEndAtOnce meanwhile;
    if (isOver()) return false;
    begin();
    return true;
}

Result Relay::run(const std::atomic<bool>& stop) {
    const Clock::time_point end = Clock::now() + m_left;
    const auto isOver = [&] { return stop.load() || m_servers.isRefused() || Clock::now() >= end; };
    if (!m_stream->wait(isOver) || (m_settings.beside && !beginBeside(isOver))) return nothing();
    m_left = end - Clock::now();
    say(describe());
    startSender();
    const timespec rest{static_cast<std::time_t>(m_settings.pollRestUs / 1'000'000),
                        static_cast<long>(m_settings.pollRestUs % 1'000'000 * 1000)};
    Intake intake(m_queue, *m_page);
    while (!stop.load(std::memory_order_relaxed) && !m_isEnding.load(std::memory_order_relaxed)) {
        if (!m_stream->poll(intake) && m_settings.pollRestUs != 0) ::nanosleep(&rest, nullptr);
    }
    endSender();
    Result result;
    result.isFlushed = m_servers.connection().flush(kConfirmAtEnd) && !m_servers.isRefused();
    if (m_archive != nullptr) result.archive = m_archive->end();
    result.delivered = m_queue.delivered();
    result.sent = m_batcher->sent();
    result.counts = m_batcher->head(0).counts;
    m_page->setCounts(result.counts);
    result.contracts = m_contracts != nullptr ? m_contracts->count() : 0;
    result.timesLost = m_servers.timesLost();
    return result;
}

}  // namespace relay
