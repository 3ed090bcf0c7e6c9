#include "sim/hw/RemoteCard.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <thread>

#include "capture/StandardStreams.h"
#include "sim/remote/Wire.h"

namespace vexo_sim {
namespace {

constexpr std::chrono::milliseconds kHelloWait{1000};
// Live messages that wait while a stream is in the past.
constexpr std::size_t kMostWaitingBytes = 16 << 20;
// How often a polling thread looks after the model's contract map.
constexpr std::uint64_t kAdvanceEveryNs = 100'000;
// Between two looks at a full ring.
constexpr std::chrono::microseconds kFirstPause{100};
constexpr std::chrono::microseconds kLongestPause{2000};

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : ",") + word;
    return text;
}

std::string inMilliseconds(std::uint64_t ns) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f ms", static_cast<double>(ns) / 1e6);
    return text;
}

}  // namespace

std::uint64_t RemoteCard::steadyNs() {
    std::timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

RemoteCard::RemoteCard(std::unique_ptr<Memory> memory, const RemoteSettings& settings, std::uint32_t bus,
                       remote::Transport& transport)
    : LocalCard(std::move(memory)),
      m_settings(settings),
      m_bus(bus),
      m_transport(transport),
      m_forks(forkGeneration()) {
    for (std::uint32_t channel = 0; channel < kStreams; ++channel) m_channels.emplace_back(channel);
}

std::unique_ptr<RemoteCard> RemoteCard::make(const RemoteSettings& settings, std::uint32_t bus,
                                             remote::Transport& transport, const scenario::Scenario& scenario,
                                             std::string& error) {
    std::unique_ptr<Memory> memory = makeMemory();
    if (memory == nullptr) {
        error = "no memory for a card";
        return nullptr;
    }
    std::unique_ptr<RemoteCard> card(new RemoteCard(std::move(memory), settings, bus, transport));
    remote::MessageSink& sink = *card;
    if (!transport.open(settings.servers, sink, error)) return nullptr;
    card->greetRelays();
    card->powerOn(scenario);
    return card;
}

// The banner names the relay before the program has said which channel it wants. So all channels are asked at once, and
// the first relay that answers is the one that is named.
void RemoteCard::greetRelays() {
    std::vector<std::string> subjects;
    for (std::uint32_t channel = 0; channel < kStreams; ++channel)
        subjects.push_back(remote::helloSubject(place(channel)));
    const std::vector<unsigned char> request = wire::encodeHelloRequest();
    const std::uint64_t start = steadyNs();
    m_transport.ask(subjects, request.data(), request.size(), kHelloWait, [&](const void* data, std::size_t size) {
        const wire::Hello hello = wire::decodeHello(data, size);
        if (hello.message.problem != wire::Problem::kNone) return false;
        const bool isSimulated = (hello.message.head.flags & wire::kSimulated) != 0;
        m_relay = {true, isSimulated, false, hello.user, hello.host, steadyNs() - start};
        m_mtu = hello.message.head.mtu;
        return true;
    });
    m_relay.isRefused = m_refused > 0;
    m_isGreeting = false;
}

void RemoteCard::powerOn(const scenario::Scenario& scenario) {
    const StateLock lock(locks(), state());
    Card card(state());
    scenario::powerOn(card, scenario, clock().now());
    CardConfig& config = state().config;
    config.ringBytes = kMaxRingBytes;  // a message brings a batch, and the reader may have been away for a while
    for (UpStreamState& stream : state().up) ring::init(stream.ring, config.ringBytes);
    if (m_mtu != 0) config.mtu = safeMtu(m_mtu);
    // A master needs a contract map, and the relay's card sends one only while it learns.
    m_settings.ownRegisters ? card.stopQuotes() : card.pauseFeed(true);
}

std::string RemoteCard::hostedScenario() const {
    return "remote " + m_settings.site + " " + std::to_string(m_bus) + " " + joined(m_settings.servers);
}

std::string RemoteCard::banner(std::uint32_t bus) {
    const std::string start = "SIMULATED CARD at bus " + std::to_string(bus) + ", a remote card";
    const std::string where = "(site " + m_settings.site + ", bus " + std::to_string(m_bus) + ")";
    if (!m_relay.isThere)
        return start + " " + where + ": no relay " + (m_relay.isRefused ? "that its user may ask " : "") +
               "answers at " + joined(m_settings.servers) + " yet. Streams are idle until a relay sends their channel.";
    return start + " of " + m_relay.user + "@" + m_relay.host + " " + where + ", round trip " +
           inMilliseconds(m_relay.roundTripNs) + ": its packets come over the network" +
           (m_relay.isSimulated ? ", from a simulated card: every quote is made up." : ".");
}

bool RemoteCard::offersRegisters() {
    if (m_settings.ownRegisters) return true;
    if (!m_isRefusalTold.exchange(true))
        capture::printError(
            "libenyx-hw-c: the remote card at bus %u has no registers, so a master (channel 0) cannot use it: run the "
            "master beside the real card. To let this process answer registers by a model: "
            "VEXO_SIM_REMOTE_REGISTERS=own, or vexo remote run --own-registers\n",
            m_bus);
    return false;
}

void RemoteCard::bringUpToDate() { Card(state()).advance(clock().now()); }

// Each poll of an empty ring comes here. The lock is needed to advance the model, and the transport waits for it.
bool RemoteCard::isAdvanceDue() {
    const std::uint64_t now = steadyNs();
    if (now < m_nextAdvanceNs.load(std::memory_order_relaxed)) return false;
    m_nextAdvanceNs.store(now + kAdvanceEveryNs, std::memory_order_relaxed);
    return true;
}

PacketView RemoteCard::advanceAndPeek(RingState& ring) {
    if (!m_settings.ownRegisters || !isAdvanceDue()) return {};
    {
        const StateLock lock(locks(), state(), std::try_to_lock);
        if (!lock.owns()) return {};
        bringUpToDate();
    }
    return ring::peek(ring);
}

bool RemoteCard::isOfThisProcess() const { return forkGeneration() == m_forks; }

int RemoteCard::take(CardPart stream) {
    if (!isOfThisProcess()) {
        capture::printError(
            "libenyx-hw-c: the remote card at bus %u was opened before fork(), and its connection stayed with the "
            "parent: open the card in the child first.\n",
            m_bus);
        return ENODEV;
    }
    std::uint32_t opening = 0;
    {
        const StateLock lock(locks(), state());
        if (!open(Card(state()), stream)) return EBUSY;
        if (stream.kind != CardPart::kUp) return 0;
        Channel& channel = m_channels[stream.channel];
        channel.receiver.restart();
        if (m_settings.sinceNs) channel.handover = std::make_unique<remote::Handover>(kMostWaitingBytes);
        opening = ++channel.opening;
    }
    join(stream.channel, opening);
    return 0;
}

// The subscription comes first: what the relay sends after its answer to the hello then arrives, or is missed.
void RemoteCard::join(std::uint32_t channel, std::uint32_t opening) {
    m_hasJoined[channel] = true;
    if (!m_transport.subscribe(remote::streamSubject(place(channel)), channel, opening)) {
        capture::printError(
            "libenyx-hw-c: the remote card at bus %u cannot subscribe to channel %u: its stream stays "
            "idle.\n",
            m_bus, channel);
        return;
    }
    const std::vector<unsigned char> request = wire::encodeHelloRequest();
    const std::uint32_t refused = m_refused;
    remote::Notice notice;
    const remote::Answer answer = m_transport.ask(
        {remote::helloSubject(place(channel))}, request.data(), request.size(), kHelloWait,
        [&](const void* data, std::size_t size) {
            const wire::Hello hello = wire::decodeHello(data, size);
            const bool isOther = hello.message.problem == wire::Problem::kOtherVersion;
            if (isOther) notice = {remote::Notice::kOtherVersion, hello.message.version};
            if (hello.message.problem == wire::Problem::kNone) welcome(channel, opening, hello.message.head);
            return isOther || hello.message.problem == wire::Problem::kNone;
        });
    tellNotice(channel, notice);
    const bool isRelayThere = answer == remote::Answer::kTaken;
    if (m_settings.sinceNs) startHistory({channel, opening, isRelayThere, {}, {}, false, 0, 0, 0});
    const bool mayAsk = answer == remote::Answer::kNobody || m_refused == refused;
    if (isRelayThere || !mayAsk) return;
    capture::printError(
        "libenyx-hw-c: no relay answers for channel %u of site %s, bus %u%s: the stream is idle until "
        "one sends.\n",
        channel, m_settings.site.c_str(), m_bus, answer == remote::Answer::kNone ? " within a second" : "");
}

void RemoteCard::welcome(std::uint32_t channel, std::uint32_t opening, const wire::Head& hello) {
    onChannel(channel, opening, [&](Channel& joined, Card card) {
        if (joined.handover == nullptr) joined.receiver.greet(hello);
        if (hello.mtu != 0) card.state().config.mtu = safeMtu(hello.mtu);
    });
}

void RemoteCard::giveBack(CardPart stream) {
    std::uint64_t ignored = 0;
    {
        const StateLock lock(locks(), state());
        close(Card(state()), stream);
        if (stream.kind != CardPart::kUp) return;
        Channel& channel = m_channels[stream.channel];
        ++channel.opening;  // nothing more is put into the ring
        ignored = channel.receiver.ignored();
        channel.handover.reset();
    }
    if (!isOfThisProcess()) return;
    m_transport.unsubscribe(stream.channel);
    if (ignored > 0) tellOfChannel(stream.channel, std::to_string(ignored) + " messages were ignored in all.");
}

void RemoteCard::receive(std::uint32_t channel, std::uint32_t opening, const void* data, std::size_t size) {
    if (!keepForLater(channel, opening, data, size)) put(channel, opening, data, size);
}

// A full ring makes this thread wait, and further messages wait in the transport's memory. So a reader that was away
// for a moment loses nothing. @return false when the stream was closed
bool RemoteCard::put(std::uint32_t channel, std::uint32_t opening, const void* data, std::size_t size) {
    remote::Notice notice;
    bool isHeld = false;
    bool isOpen = onChannel(channel, opening, [&](Channel& joined, Card card) {
        notice = joined.receiver.receive(card, data, size, steadyNs());
        isHeld = joined.receiver.isHoldingBack();
    });
    tellNotice(channel, notice);
    for (auto pause = kFirstPause; isOpen && isHeld && !m_isEnding; pause = std::min(2 * pause, kLongestPause)) {
        std::this_thread::sleep_for(pause);
        isOpen = onChannel(channel, opening, [&](Channel& joined, Card card) {
            joined.receiver.resume(card);
            isHeld = joined.receiver.isHoldingBack();
        });
    }
    return isOpen && !isHeld;
}

void RemoteCard::tellOfChannel(std::uint32_t channel, const std::string& text) const {
    capture::printError("libenyx-hw-c: channel %u of the remote card at bus %u: %s\n", channel, m_bus, text.c_str());
}

void RemoteCard::tellNotice(std::uint32_t channel, const remote::Notice& notice) const {
    const auto tell = [&](const std::string& text) { tellOfChannel(channel, text); };
    switch (notice.kind) {
        case remote::Notice::kNotARelays:
            return tell("a message that is not a relay's was ignored; further ones are ignored without a line.");
        case remote::Notice::kOtherVersion:
            return tell("the relay sends version " + std::to_string(notice.version) +
                        " of the format, this card reads version " + std::to_string(wire::kVersion) +
                        ": its packets are ignored. Install the same release at both ends.");
        case remote::Notice::kSecondRelay:
            return tell("two relays send it. One of them is used, the other is ignored.");
        case remote::Notice::kRestarted:
            return tell("the relay started anew; " + std::to_string(notice.lost) +
                        " packets are counted as lost, as back-pressure. What the card sent while no relay ran is not "
                        "counted.");
        case remote::Notice::kNothing:
        case remote::Notice::kEnd: return;
    }
}

// When the card greets all relays, its user may be allowed to ask some of them alone. The refusals of the others may
// come long after the answer that ends the greeting.
bool RemoteCard::isOfGreetingAlone(const std::string& words) const {
    for (std::uint32_t channel = 0; channel < kStreams; ++channel) {
        const std::string hello = '"' + remote::helloSubject(place(channel)) + '"';
        if (!m_hasJoined[channel] && words.find(hello) != std::string::npos) return true;
    }
    return false;
}

// An opened stream asks for what it needs itself.
void RemoteCard::tellRefusal(const std::string& words) {
    const bool isNeeded = !isOfGreetingAlone(words);
    if (m_isGreeting || isNeeded) ++m_refused;
    if (m_isGreeting || !isNeeded || !m_refusals.isWorthTelling(words)) return;
    capture::printError("libenyx-hw-c: the servers refuse what the remote card at bus %u needs: %s\n", m_bus,
                        words.c_str());
}

void RemoteCard::tell(remote::LineState line, const std::string& words) {
    switch (line) {
        case remote::LineState::kLost:
            return capture::printError(
                "libenyx-hw-c: the remote card at bus %u lost its connection: streams are idle until it is back.\n",
                m_bus);
        case remote::LineState::kBack:
            return capture::printError("libenyx-hw-c: the remote card at bus %u is connected again, to %s.\n", m_bus,
                                       words.c_str());
        case remote::LineState::kClosed:
            return capture::printError(
                "libenyx-hw-c: the remote card at bus %u lost its connection for good, because the servers refuse its "
                "user: streams stay idle.\n",
                m_bus);
        case remote::LineState::kNotPermitted: return tellRefusal(words);
        case remote::LineState::kSlow:
            if (m_isSlowTold.exchange(true)) return;
            return capture::printError(
                "libenyx-hw-c: the remote card at bus %u does not take messages fast enough: some are lost, and their "
                "packets are counted as back-pressure.\n",
                m_bus);
    }
}

}  // namespace vexo_sim
