#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sim/hw/LocalCard.h"
#include "sim/hw/RemoteSettings.h"
#include "sim/remote/Handover.h"
#include "sim/remote/Receiver.h"
#include "sim/remote/Refusals.h"
#include "sim/remote/Transport.h"
#include "sim/scenario/Scenario.h"

namespace vexo_sim {

/// A card whose packets come over the network, from a relay beside the card of another machine. A stream receives from
/// when it is opened. Everything else is a card of this process that sends nothing by itself: registers, if the user
/// asked for them, and versions, time and counters.
///
/// A thread of the transport fills the rings. It holds the state's lock for the packets of one message, as whoever else
/// writes into a ring does. The reader of a stream needs no lock. A full ring holds back the messages of its channel;
/// the transport keeps some tens of megabytes of them.
///
/// A stream that begins in the past has a thread of its own until it has come up to the present (RemoteHistory.cpp):
/// it asks the relay's archive for one piece after the other, and live messages wait meanwhile.
class RemoteCard final : public LocalCard, private remote::MessageSink {
public:
    /// Connects, and switches the card on as the scenario says. The card is never destroyed: the transport knows it.
    /// @param error  one line when that is not possible
    static std::unique_ptr<RemoteCard> make(const RemoteSettings& settings, std::uint32_t bus,
                                            remote::Transport& transport, const scenario::Scenario& scenario,
                                            std::string& error);

    std::string hostedScenario() const override;
    std::string banner(std::uint32_t bus) override;
    bool offersRegisters() override;
    void bringUpToDate() override;
    PacketView advanceAndPeek(RingState& ring) override;
    int take(CardPart stream) override;
    void giveBack(CardPart stream) override;

private:
    // How a relay answered, at the start of this card.
    struct Relay {
        bool isThere = false;
        bool isSimulated = false;
        bool isRefused = false;  // the servers did not let this card ask all that it asked
        std::string user;
        std::string host;
        std::uint64_t roundTripNs = 0;
    };
    struct Channel {
        explicit Channel(std::uint32_t number) : receiver(number) {}
        remote::Receiver receiver;
        std::uint32_t opening = 0;
        std::unique_ptr<remote::Handover> handover;  // while the stream is in the past
    };
    // The part of the past that one opening of a channel has received.
    struct Past {
        std::uint32_t channel = 0;
        std::uint32_t opening = 0;
        bool isRelayThere = false;
        wire::HistoryRequest request;
        wire::HistoryEnd end;  // of the last answer
        bool hasAnswer = false;
        std::uint64_t askedNs = 0;  // when the first question was asked that has no answer yet; 0: all have one
        std::uint64_t beginNs = 0;  // time of the first packet
        std::uint64_t packets = 0;
    };

    RemoteCard(std::unique_ptr<Memory> memory, const RemoteSettings& settings, std::uint32_t bus,
               remote::Transport& transport);

    void receive(std::uint32_t channel, std::uint32_t opening, const void* data, std::size_t size) override;
    void tell(remote::LineState state, const std::string& words) override;
    void end() override;

    void powerOn(const scenario::Scenario& scenario);
    void greetRelays();
    void join(std::uint32_t channel, std::uint32_t opening);
    /// Work on one opening of a channel. False when the stream was closed meanwhile.
    template <typename Work>
    bool onChannel(std::uint32_t channel, std::uint32_t opening, Work work) {
        const StateLock lock(locks(), state());
        if (!lock.owns() || m_channels[channel].opening != opening) return false;
        work(m_channels[channel], Card(state()));
        return true;
    }
    static std::uint64_t steadyNs();
    void welcome(std::uint32_t channel, std::uint32_t opening, const wire::Head& hello);
    bool put(std::uint32_t channel, std::uint32_t opening, const void* data, std::size_t size);
    bool keepForLater(std::uint32_t channel, std::uint32_t opening, const void* data, std::size_t size);
    void tellNotice(std::uint32_t channel, const remote::Notice& notice) const;
    void tellOfChannel(std::uint32_t channel, const std::string& text) const;

    void tellRefusal(const std::string& words);
    bool isOfGreetingAlone(const std::string& words) const;

    void startHistory(const Past& past);
    void followHistory(Past past);
    enum class Pulled { kAnswer, kNothing, kOver };
    Pulled pull(Past& past);
    static void count(Past& past, const wire::Message& message);
    bool isWorthAsking(const Past& past, remote::Answer answer) const;
    bool goLive(const Past& past, bool isGivenUp);
    void tellLive(const Past& past) const;
    bool isOfThisProcess() const;
    bool isAdvanceDue();
    remote::Place place(std::uint32_t channel) const { return {m_settings.site, m_bus, channel}; }

    const RemoteSettings m_settings;
    const std::uint32_t m_bus;
    remote::Transport& m_transport;
    const std::uint32_t m_forks;      // generation of the process that connected
    std::vector<Channel> m_channels;  // used with the state's lock held
    Relay m_relay;                    // before the transport is used, then left alone
    std::uint32_t m_mtu = 0;          // as the relay said; 0 = no relay did
    std::atomic<std::uint64_t> m_nextAdvanceNs{0};
    std::atomic<bool> m_isRefusalTold{false};
    std::atomic<bool> m_isSlowTold{false};
    std::atomic<bool> m_isGreeting{true};
    std::array<std::atomic<bool>, kStreams> m_hasJoined{};
    std::atomic<std::uint32_t> m_refused{0};  // times; of the greeting's hellos those that were told while it lasted
    remote::Refusals m_refusals;              // used where the transport tells its events, one at a time
    std::atomic<bool> m_isEnding{false};
    std::mutex m_historyMutex;
    std::condition_variable m_historyEnded;
    std::uint32_t m_histories = 0;  // threads that receive the past
};

}  // namespace vexo_sim
