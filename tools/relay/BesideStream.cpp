#include "tools/relay/BesideStream.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <thread>

#include "tools/relay/Failure.h"
#include "tools/relay/Settings.h"
#include "tools/tap/TapClock.h"
#include "tools/vexo/show/Harmless.h"

namespace relay {
namespace {

constexpr auto kBetweenLooks = std::chrono::milliseconds(20);
constexpr int kAtATime = 1024;  // packets, before the polling loop looks whether it is to end

std::string nameOf(std::uint32_t card, std::uint32_t channel) {
    return "channel " + std::to_string(channel) + " of card " + std::to_string(card);
}

}  // namespace

BesideStream::BesideStream(const vexo_sim::remote::Place& place)
    : m_channel(nameOf(place.bus, place.channel)),
      m_path(share::directory() + "/" + share::fileName(place.bus, place.channel)) {
    refuseSecond(place.site);
    ::prctl(PR_SET_TIMERSLACK, 1);  // of the polling thread: a rest of 50 microseconds would take twice as long
}

BesideStream::~BesideStream() { ::close(m_lock); }

// A ring has room for any number of readers, so no stream refuses the second one. Both would publish the same.
void BesideStream::refuseSecond(const std::string& site) {
    std::string fault;
    const int directory = share::openDirectory(fault);
    if (directory < 0) throw Failure(Failure::kFinding, fault);
    const std::string name = m_path.substr(m_path.rfind('/') + 1) + "." + site + ".relay";
    m_lock = ::openat(directory, name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    const bool isOurs = m_lock >= 0 && ::flock(m_lock, LOCK_EX | LOCK_NB) == 0;
    const std::string why = errno == EWOULDBLOCK ? "another vexo relay --beside has it; name this site with --site"
                                                 : std::strerror(errno);
    ::close(directory);
    if (isOurs) return;
    if (m_lock >= 0) ::close(m_lock);
    throw Failure(Failure::kFinding, m_channel + " of site " + site + ": " + why);
}

bool BesideStream::wait(const std::function<bool()>& isOver) {
    if (attach()) {
        m_ring->skipToEnd();
        m_before = m_ring->card();
        return true;
    }
    tell("nobody shares " + m_channel + " yet; waiting for: vexo tap --share -- PROGRAM");
    while (!attach()) {
        if (isOver()) return false;
        std::this_thread::sleep_for(kBetweenLooks);
    }
    return true;
}

void BesideStream::tell(const std::string& what) {
    if (what == m_told) return;
    m_told = what;
    std::fprintf(stderr, "vexo relay: %s\n", vexo::harmless(what).c_str());
}

bool BesideStream::attach() {
    std::string fault;
    std::unique_ptr<share::RingReader> ring = share::RingReader::open(m_path, fault);
    if (ring == nullptr) {
        if (!fault.empty()) tell(fault);
        return false;
    }
    const bool isSameCard = m_mtu == 0 || (ring->mtu() == m_mtu && ring->flags() == m_flags);
    if (!isSameCard) {
        tell(ring->writer() + " has another card than the program before; start the relay anew for it");
        return false;
    }
    m_mtu = ring->mtu();
    m_flags = ring->flags();
    m_before = {};
    m_isOver = false;
    m_ring = std::move(ring);
    tell(m_channel + " comes from " + m_ring->writer());
    return true;
}

void BesideStream::detach() {
    tell(m_ring->writer() + " shares " + m_channel + " no more; waiting for the next one");
    m_ring.reset();
}

bool BesideStream::poll(Intake& intake) {
    if (m_ring != nullptr && drain(intake)) return true;
    if (m_ring != nullptr && m_isOver) detach();
    const Clock::time_point now = Clock::now();
    if (now - m_lookedAt < kBetweenLooks) return false;
    m_lookedAt = now;
    if (m_ring != nullptr) {
        m_isOver = !m_ring->isWritten(m_path);
    } else if (attach()) {
        intake.beginAnew();
    }
    return false;
}

bool BesideStream::drain(Intake& intake) {
    share::RingReader::Item item;
    int taken = 0;
    for (; taken < kAtATime && m_ring->next(item); ++taken) {
        if (item.lost > 0) intake.lose(item.lost);
        if (item.data != nullptr) intake.take(std::min(item.ticks, tap::clock_ticks::now()), item.data, item.size);
    }
    addCounts();
    // It stays open until its writer ends: so it is not found again, and no other file gets its number.
    if (m_ring->isDamaged())
        tell(m_ring->writer() +
             ": its ring is damaged, and nobody can count what is lost; waiting for the next program");
    return taken > 0;
}

// Of all rings together.
void BesideStream::addCounts() {
    const share::CardCounts now = m_ring->card();
    const auto add = [](std::atomic<std::uint64_t>& sum, std::uint64_t& before, std::uint64_t count) {
        if (count == before) return;
        sum.store(sum.load(std::memory_order_relaxed) + (count - before), std::memory_order_relaxed);
        before = count;
    };
    add(m_backPressure, m_before.backPressure, now.backPressure);
    add(m_fifoErrors, m_before.fifoErrors, now.fifoErrors);
    add(m_errors, m_before.errors, now.errors);
}

std::optional<StreamCounts> BesideStream::counts() {
    return StreamCounts{m_backPressure.load(std::memory_order_relaxed), m_fifoErrors.load(std::memory_order_relaxed),
                        m_errors.load(std::memory_order_relaxed)};
}

std::unique_ptr<PacketSource> openSource(const Settings& settings) {
    return std::make_unique<BesideStream>(settings.place);
}

}  // namespace relay
