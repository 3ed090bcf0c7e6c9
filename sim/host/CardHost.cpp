#include "sim/host/CardHost.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "sim/shm/CardPlaces.h"

namespace vexo_sim {
namespace {

constexpr std::uint64_t kLongestRestNs = 1'000'000;  // the longest wait for the effect of a register access
constexpr std::uint64_t kShortestRestNs = 20'000;
constexpr std::uint64_t kStandBackNs = 60'000;  // time for a waiting process to wake up and take the lock
constexpr std::uint64_t kOrphanCheckNs = 50'000'000;

std::string whatItIs(const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) return std::strerror(errno);
    const char* kind = S_ISREG(status.st_mode)   ? "a file"
                       : S_ISDIR(status.st_mode) ? "a directory"
                       : S_ISLNK(status.st_mode) ? "a link"
                                                 : "no ordinary file";
    return std::string(kind) + " of user " + userName(status.st_uid);
}

std::string systemError(const std::string& what) { return what + ": " + std::strerror(errno); }

template <std::size_t size>
void copyText(char (&to)[size], const std::string& text) {
    std::snprintf(to, size, "%s", text.c_str());
}

// Who has the card's name already. Empty when nobody has it any more.
std::string whoHasIt(const std::string& path, std::uint32_t bus) {
    const CardFile other = CardFile::open(path, geteuid());
    if (!other)
        return path + " is in the way and no card of this user: " + whatItIs(path) +
               ". Remove it, or choose another bus.";
    const std::optional<pid_t> host = other.holderOf({CardPart::kHost});
    if (!host) return {};
    const BlockHeader header = other.header();
    return "bus " + std::to_string(bus) + " has a card already, hosted by " + toText(describeProcess(*host)) +
           (isCompatible(header) ? "" : ", " + describeVersion(header)) +
           ". Stop that one, or choose another bus with --bus.";
}

// A host of this user may have its card in another directory: shared with a group, or not.
std::string whoElseHasBus(std::uint32_t bus) {
    for (const std::string& directory : cardDirectories(geteuid())) {
        const std::string path = cardPath(directory, geteuid(), bus);
        const CardFile other = CardFile::open(path, geteuid());
        if (other && other.holderOf({CardPart::kHost})) return whoHasIt(path, bus);
    }
    return {};
}

// Reserves the card's memory and chooses the size of its rings, unless the scenario gives one. At pace max the rings
// are as large as possible: on a busy machine the card and its reader run in turns, and fill or empty one ring a turn.
bool reserveMemory(CardFile& file, const std::string& directory, scenario::Scenario& scenario) {
    CardConfig& config = scenario.config;
    if (scenario.ringGiven || config.pace != kPaceOfReaders) return file.reserve(config.ringBytes);
    config.ringBytes = kMaxRingBytes;
    if (file.reserve(config.ringBytes)) return true;
    const std::string why = std::strerror(errno);
    config.ringBytes = CardConfig{}.ringBytes;
    if (!file.reserve(config.ringBytes)) return false;
    std::fprintf(
        stderr,
        "vexo-simcard: no memory for streams of %u bytes in %s (%s): they have %u bytes. On a busy machine the "
        "readers get fewer quotes a second.\n",
        kMaxRingBytes, directory.c_str(), why.c_str(), config.ringBytes);
    return true;
}

std::string groupHint(const CardHost::Plan& plan) {
    if (errno != EPERM || !plan.group) return {};
    return " for group " + std::to_string(*plan.group) + ", of which you are no member";
}

}  // namespace

std::unique_ptr<CardHost> CardHost::start(Plan plan, std::string& error) {
    if (plan.scenario.callFailures.size() > kMaxSharedFailures) {
        error = "a hosted card's scenario has room for " + std::to_string(kMaxSharedFailures) + " failing calls";
        return nullptr;
    }
    error = whoElseHasBus(plan.scenario.bus);
    if (!error.empty()) return nullptr;
    const NewCardPlace place = makeCardDirectory(plan.group);
    if (!place.notice.empty()) std::fprintf(stderr, "vexo-simcard: %s\n", place.notice.c_str());
    error = place.error;
    if (place.directory.empty()) return nullptr;
    const std::string& directory = place.directory;
    const std::string path = cardPath(directory, geteuid(), plan.scenario.bus);
    for (int attempt = 0; attempt < 100; ++attempt) {  // other hosts may start or clean up at the same time
        for (const std::string& own : cardDirectories(geteuid())) removeStaleFiles(own);
        const mode_t mode = plan.group ? 0660 : 0600;
        CardFile file = CardFile::create(directory, plan.scenario.bus, mode, plan.group.value_or(getegid()));
        CardBlock* block = file && file.claim({CardPart::kHost}) ? file.map() : nullptr;
        if (block == nullptr || !reserveMemory(file, directory, plan.scenario)) {
            error = systemError("cannot make a card in " + directory + groupHint(plan));
            if (file) file.remove();
            return nullptr;
        }
        std::unique_ptr<CardHost> host(new CardHost(std::move(file), *block));
        host->describe(plan);
        if (!host->powerOn(plan, error)) return nullptr;
        if (host->m_card.file().publish(path)) return host;
        if (errno != EEXIST && errno != ENOENT) {
            error = systemError("cannot make " + path);
            return nullptr;
        }
        error = errno == EEXIST ? whoHasIt(path, plan.scenario.bus) : std::string();
        if (!error.empty()) return nullptr;
    }
    error = "too many hosts are being started at once; try again";
    return nullptr;
}

CardHost::~CardHost() { m_card.file().remove(); }

void CardHost::describe(const Plan& plan) {
    m_card.block().init();
    HostInfo& info = m_card.block().host;
    info.startedAt = static_cast<std::uint64_t>(time(nullptr));
    info.pid = getpid();
    info.bus = plan.scenario.bus;
    copyText(info.scenario, plan.scenario.name);
    copyText(info.description, plan.scenario.description);
    for (const CallFailure& failure : plan.scenario.callFailures) info.failures[info.failureCount++] = failure;
}

bool CardHost::powerOn(const Plan& plan, std::string& error) {
    Card card(m_card.block().state);
    scenario::powerOn(card, plan.scenario, m_clock.now());
    if (!plan.scenario.replayFile.empty()) {
        std::string problem;
        m_replay = CardReplay::start(plan.scenario, card, problem);
        if (m_replay == nullptr)
            error = problem;
        else if (!problem.empty())
            std::fprintf(stderr, "vexo-simcard: %s\n", problem.c_str());
        if (m_replay == nullptr) return false;
    }
    if (plan.record.empty()) return true;
    m_recorder = std::make_unique<CardRecorder>(plan.record, m_card.block().state);
    if (!m_recorder->isRecording()) error = "nothing would be recorded";
    return m_recorder->isRecording();
}

// Closes the streams of dead readers. The card would fill them further and, at pace max, wait for them.
void CardHost::closeOrphans(std::uint64_t nowNs) {
    if (nowNs < m_nextOrphanCheckNs) return;
    m_nextOrphanCheckNs = nowNs + kOrphanCheckNs;
    Card card(m_card.block().state);
    for (std::uint32_t channel = 0; channel < kStreams; ++channel) {
        if (card.state().up[channel].open && !m_card.file().holderOf({CardPart::kUp, channel})) card.closeUp(channel);
        if (card.state().down[channel].open && !m_card.file().holderOf({CardPart::kDown, channel}))
            card.closeDown(channel);
    }
}

// Waits about two seconds for a user that was stopped inside an access, and then goes on without it. Nobody goes on
// without the host: it alone writes packets, and rings do not move.
std::uint64_t CardHost::turn() {
    if (m_recorder != nullptr) m_recorder->write();
    CardState& state = m_card.block().state;
    const StateLock lock(m_card.locks(), state, Holding::kProtected);
    m_card.tellOf(lock.result());
    if (!lock.owns()) return kLongestRestNs;
    const CardTime now = m_clock.now();
    Card card(state);
    const bool again = card.advance(now);
    if (m_replay != nullptr) m_replay->advance(card);
    if (m_recorder != nullptr) m_recorder->collect(state);
    closeOrphans(now.monotonicNs);
    return rest(again);
}

// At pace max the host locks again at once and would starve the card's users: it backs off when `contended` has grown.
std::uint64_t CardHost::rest(bool again) {
    const std::uint64_t contended = m_card.block().contended.load(std::memory_order_relaxed);
    if (std::exchange(m_contended, contended) != contended) return kStandBackNs;
    if (again) return 0;
    const CardState& s = m_card.block().state;
    if (s.faults.stopped) return kLongestRestNs;
    const std::uint64_t pace = std::max(s.config.pace, std::uint32_t{1});
    const std::uint64_t due = m_replay != nullptr ? std::min(s.nextDueNs, m_replay->nextDue()) : s.nextDueNs;
    const std::uint64_t wait = due > s.clockNs ? (due - s.clockNs) / pace : 0;
    return std::clamp(wait, kShortestRestNs, kLongestRestNs);
}

}  // namespace vexo_sim
