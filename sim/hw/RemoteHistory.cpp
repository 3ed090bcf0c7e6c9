// How a stream of a remote card receives what its relay has in the archive, and goes over to the live messages.

#include <pthread.h>

#include <chrono>
#include <system_error>
#include <thread>
#include <utility>

#include "sim/hw/RemoteCard.h"
#include "sim/remote/HistoryAnswer.h"
#include "sim/remote/Moment.h"
#include "sim/remote/SignalsBlocked.h"

namespace vexo_sim {
namespace {

constexpr std::chrono::milliseconds kAnswerWait{2000};
constexpr std::uint64_t kSilentNs = 10'000'000'000;  // so long an archive may be away: its relay starts anew
constexpr std::chrono::milliseconds kAskAgain{100};
constexpr std::chrono::milliseconds kAskForMore{10};  // an archive stores what comes within milliseconds
constexpr std::uint32_t kPullBytes = 2 << 20;

}  // namespace

// A stranger's message is left to the receiver, which ignores and tells of it.
bool RemoteCard::keepForLater(std::uint32_t channel, std::uint32_t opening, const void* data, std::size_t size) {
    bool isKept = false;
    onChannel(channel, opening, [&](Channel& joined, Card) { isKept = joined.handover != nullptr; });
    if (!isKept) return false;
    const wire::Message message = wire::decode(data, size);
    isKept = false;
    if (message.problem != wire::Problem::kNone || (message.head.flags & wire::kSelection) != 0) return false;
    onChannel(channel, opening, [&](Channel& joined, Card) {
        if (joined.handover == nullptr) return;
        joined.handover->keep(message, data, size);
        isKept = true;
    });
    return isKept;
}

void RemoteCard::startHistory(const Past& past) {
    {
        const std::lock_guard<std::mutex> lock(m_historyMutex);
        ++m_histories;
    }
    const auto follow = [this, past] {
        pthread_setname_np(pthread_self(), "vexo-history");
        followHistory(past);
        const std::lock_guard<std::mutex> lock(m_historyMutex);
        --m_histories;
        m_historyEnded.notify_all();
    };
    try {
        const remote::SignalsBlocked blocked;  // the application's handlers must not run on the new thread
        std::thread(follow).detach();
    } catch (const std::system_error&) {
        tellOfChannel(past.channel, "no thread for the history can be started: the stream begins with live packets.");
        goLive(past, true);
        const std::lock_guard<std::mutex> lock(m_historyMutex);
        --m_histories;
    }
}

// The process ends. What these threads use is taken away after this.
void RemoteCard::end() {
    m_isEnding = true;
    std::unique_lock<std::mutex> lock(m_historyMutex);
    m_historyEnded.wait(lock, [this] { return m_histories == 0; });
}

void RemoteCard::followHistory(Past past) {
    past.request.timeNs = *m_settings.sinceNs;
    past.request.mostBytes = kPullBytes;
    while (!m_isEnding) {
        const Pulled pulled = pull(past);
        if (pulled == Pulled::kOver) {
            goLive(past, true);
            return;
        }
        auto next = remote::Handover::Next::kPull;
        const bool isOpen = onChannel(past.channel, past.opening, [&](Channel& joined, Card) {
            if (pulled == Pulled::kAnswer) next = joined.handover->judge(joined.receiver.position(), past.end);
        });
        if (!isOpen) return;
        if (next == remote::Handover::Next::kLive && goLive(past, false)) return tellLive(past);
        if (next == remote::Handover::Next::kWait) std::this_thread::sleep_for(kAskForMore);
    }
}

// One question to the archive, for what follows the last packet, be it of the archive or live. An answer is put into
// the stream when all of it is there.
RemoteCard::Pulled RemoteCard::pull(Past& past) {
    const bool isOpen = onChannel(past.channel, past.opening, [&](Channel& joined, Card) {
        const std::optional<remote::Position> position = joined.receiver.position();
        if (!position) return;
        past.request.epoch = position->epoch;
        past.request.next = position->next;
    });
    if (!isOpen) return Pulled::kNothing;
    if (past.askedNs == 0) past.askedNs = steadyNs();
    remote::HistoryAnswer got;
    const std::vector<unsigned char> request = wire::encodeHistoryRequest(past.request);
    const remote::Answer answer = m_transport.ask(
        {remote::historySubject(place(past.channel))}, request.data(), request.size(), kAnswerWait,
        [&](const void* data, std::size_t size) { return got.take(data, size); });
    if (answer != remote::Answer::kTaken || !got.isWhole()) {
        if (!isWorthAsking(past, answer)) return Pulled::kOver;
        std::this_thread::sleep_for(kAskAgain);
        return Pulled::kNothing;
    }
    past.askedNs = 0;
    past.hasAnswer = true;
    past.end = got.end();
    past.request.cursor = past.end.cursor;
    for (const std::vector<unsigned char>& message : got.messages()) {
        count(past, wire::decode(message.data(), message.size()));
        if (!put(past.channel, past.opening, message.data(), message.size())) return Pulled::kNothing;
    }
    return Pulled::kAnswer;
}

// The answer of an empty archive names no place to go on from. The next one begins at the moment again, also with
// packets that have come live meanwhile.
void RemoteCard::count(Past& past, const wire::Message& message) {
    wire::forEachPacket(message, [&](const wire::PacketIn& packet) {
        if (message.head.epoch == past.request.epoch && packet.number < past.request.next) return;
        if (past.packets++ == 0) past.beginNs = packet.timeNs;
    });
}

bool RemoteCard::isWorthAsking(const Past& past, remote::Answer answer) const {
    const bool isFirst = !past.hasAnswer;
    if (isFirst && past.isRelayThere && answer == remote::Answer::kNobody) {
        tellOfChannel(past.channel, "its relay keeps no archive: the stream begins with live packets.");
        return false;
    }
    if (m_isEnding || steadyNs() - past.askedNs < kSilentNs) return true;
    tellOfChannel(past.channel, isFirst ? "no archive answers: the stream begins with live packets."
                                        : "the archive does not answer any more: live packets follow.");
    return false;
}

// @return false when the archive is needed again; a closed stream needs nothing
bool RemoteCard::goLive(const Past& past, bool isGivenUp) {
    for (;;) {
        std::vector<unsigned char> message;
        auto taken = remote::Handover::Taken::kNone;
        const bool isOpen = onChannel(past.channel, past.opening, [&](Channel& joined, Card) {
            if (isGivenUp) joined.handover->giveUp();
            taken = joined.handover->take(message);
            if (taken == remote::Handover::Taken::kNone) joined.handover.reset();
        });
        if (!isOpen || taken == remote::Handover::Taken::kNone) return true;
        if (taken == remote::Handover::Taken::kGap) return false;
        if (!put(past.channel, past.opening, message.data(), message.size())) return true;
    }
}

void RemoteCard::tellLive(const Past& past) const {
    const std::string since = remote::momentText(*m_settings.sinceNs);
    if (m_isEnding) return;
    tellOfChannel(past.channel, past.packets == 0 ? "the archive has no packet since " + since + "; live from here."
                                                  : std::to_string(past.packets) + " packets since " + since +
                                                        " came from the archive, the first of " +
                                                        remote::momentText(past.beginNs) + "; live from here.");
}

}  // namespace vexo_sim
