#include "sim/shm/SharedCard.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

#include "capture/StandardStreams.h"
#include "sim/shm/CardPlaces.h"

namespace vexo_sim {

// The kernel does not report this process's own locks. So if there is no other holder, this process is the host.
Holder SharedCard::host() const { return describeProcess(m_file.holderOf({CardPart::kHost}).value_or(getpid())); }

void SharedCard::tellOf(CardLock::Result result) {
    if (result != CardLock::kTimedOut && result != CardLock::kTookOver) return;
    const std::optional<pid_t> holder = m_locks.state.stuckHolderOnce();
    if (!holder) return;
    capture::printError("%s: %s holds the simulated card at bus %u and does not go on: was it stopped? %s\n",
                        m_speaker.c_str(), toText(describeProcess(*holder)).c_str(), m_block.host.bus,
                        result == CardLock::kTookOver
                            ? "The others go on without it. When it goes on, its access fails (ECANCELED)."
                            : "Until it goes on or ends, accesses fail (ETIMEDOUT).");
}

void SharedCard::tellCoreHolder(pid_t holder, bool isStopped) const {
    const std::string who = toText(describeProcess(holder));
    if (isStopped)
        capture::printError(
            "%s: %s was stopped while it held a core lock of the simulated card at bus %u. It has lost the lock. When "
            "it goes on, its accesses under the lock fail (ECANCELED).\n",
            m_speaker.c_str(), who.c_str(), m_block.host.bus);
    else
        capture::printError("%s: waiting for a core lock of the simulated card at bus %u, which %s holds.\n",
                            m_speaker.c_str(), m_block.host.bus, who.c_str());
}

void SharedCard::tellLost() const {
    capture::printError(
        "%s: this process was stopped in the middle of an access of the simulated card at bus %u. The others went on "
        "without it, and the access failed (ECANCELED).\n",
        m_speaker.c_str(), m_block.host.bus);
}

std::unique_ptr<SharedCard> attachCard(std::uint32_t bus, uid_t user, const std::string& speaker) {
    for (const std::string& directory : cardDirectories(user)) {
        CardFile file = CardFile::open(cardPath(directory, user, bus), user);
        if (!file) continue;
        const std::optional<pid_t> host = file.holderOf({CardPart::kHost});
        if (!host) continue;
        if (CardBlock* block = file.map()) return std::make_unique<SharedCard>(std::move(file), *block, speaker);
        if (errno != EPROTO) continue;
        capture::printError("%s: the card at bus %u is not used. Its host, %s, is %s. Restart it with this version.\n",
                            speaker.c_str(), bus, toText(describeProcess(*host)).c_str(),
                            describeVersion(file.header()).c_str());
    }
    return nullptr;
}

std::string describeVersion(const BlockHeader& header) {
    return "of another version: its card has layout " + std::to_string(header.layout) + " of " +
           std::to_string(header.bytes) + " bytes, this program's has layout " + std::to_string(kCardLayout) + " of " +
           std::to_string(sizeof(CardBlock)) + " bytes";
}

}  // namespace vexo_sim
