#include "sim/shm/HostedCard.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

namespace vexo_sim {
namespace {

std::size_t slotOf(CardPart stream) { return (stream.kind == CardPart::kUp ? 0 : kStreams) + stream.channel; }

}  // namespace

HostedCard::HostedCard(CardFile file, CardBlock& block) : m_file(std::move(file)), m_block(&block) {}

std::unique_ptr<HostedCard> HostedCard::attach(std::uint32_t bus) {
    for (const std::string& path : findCardFiles(cardDirectory(), bus)) {
        CardFile file = CardFile::open(path);
        if (!file || !file.holderOf({CardPart::kHost})) continue;
        CardBlock* block = file.map();
        if (block == nullptr) continue;
        if (!block->isCompatible()) {
            std::fprintf(stderr,
                         "libenyx-hw-c: the host of the simulated card at bus %u is of another version, its "
                         "card is not used. Restart vexo-simcard.\n",
                         bus);
            continue;
        }
        return std::unique_ptr<HostedCard>(new HostedCard(std::move(file), *block));
    }
    return nullptr;
}

bool HostedCard::isCurrent() const {
    struct stat named {};
    return stat(m_file.path().c_str(), &named) == 0 && named.st_dev == m_file.device() &&
           named.st_ino == m_file.inode();
}

bool HostedCard::ownsHere(CardPart stream) const { return m_owner[slotOf(stream)] == getpid(); }

bool HostedCard::claim(CardPart stream) {
    std::atomic<pid_t>& owner = m_owner[slotOf(stream)];
    const pid_t self = getpid();
    pid_t before = owner;
    if (before == self || !owner.compare_exchange_strong(before, self)) return false;
    if (m_file.claim(stream)) return true;
    owner = before;
    return false;
}

void HostedCard::release(CardPart stream) {
    m_file.release(stream);
    m_owner[slotOf(stream)] = 0;
}

std::optional<Holder> HostedCard::holderOf(CardPart stream) const {
    if (const std::optional<pid_t> other = m_file.holderOf(stream)) return describeProcess(*other);
    if (ownsHere(stream)) return describeProcess(getpid());
    return std::nullopt;
}

Holder HostedCard::host() const {
    return describeProcess(m_file.holderOf({CardPart::kHost}).value_or(m_block->host.pid));
}

}  // namespace vexo_sim
