#include "tools/vexo/run/PollReader.h"

#include <VexoZceMdStatsFile.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tools/vexo/Failure.h"

namespace vexo::run {
namespace {

using vexo_stats::aboveStandardStreams;

Failure noPage() { return {kFinding, std::string("no memory to count polls in: ") + std::strerror(errno)}; }

// A page of numbers is never run. Systems that forbid others (vm.memfd_noexec = 2) want to be told; older ones do not
// know the flag.
int makeFile() {
    constexpr unsigned kNoExecSeal = 8;
    const int fd = ::memfd_create("vexo-polls", MFD_CLOEXEC | MFD_ALLOW_SEALING | kNoExecSeal);
    if (fd >= 0 || errno != EINVAL) return aboveStandardStreams(fd);
    return aboveStandardStreams(::memfd_create("vexo-polls", MFD_CLOEXEC | MFD_ALLOW_SEALING));
}

// State and number of threads in /proc/PID/stat.
bool isZombie(unsigned long process) {
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%lu/stat", process);
    char text[1024];
    vexo_stats::readSmall(path, text);
    const char* at = std::strrchr(text, ')');
    if (at == nullptr || std::strlen(at) < 3) return false;
    const bool hasEnded = at[2] == 'Z' || at[2] == 'X';
    for (int field = 2; at != nullptr && field < 20; ++field) at = std::strchr(at + 1, ' ');
    // The first thread may have ended before the others.
    return hasEnded && (at == nullptr || std::strtoul(at, nullptr, 10) <= 1);
}

}  // namespace

PollReader::PollReader() : m_fd(makeFile()) {
    if (m_fd < 0) throw noPage();
    void* page = MAP_FAILED;
    if (::ftruncate(m_fd, sizeof(polls::PollPage)) == 0 &&
        ::fcntl(m_fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0)
        page = ::mmap(nullptr, sizeof(polls::PollPage), PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, 0);
    if (page == MAP_FAILED) {
        const Failure failure = noPage();
        ::close(m_fd);
        throw failure;
    }
    m_page = static_cast<polls::PollPage*>(page);
    m_page->pidNamespace = vexo_stats::pidNamespace();
    m_page->magic = polls::kMagic;
}

PollReader::~PollReader() {
    ::munmap(m_page, sizeof(polls::PollPage));
    ::close(m_fd);
}

// A process that died, or that became another program, has not closed its streams, but it has none any more.
bool PollReader::isThere(const polls::StreamSlot& slot, std::uint32_t owner) const {
    if (slot.isHeld.load() != 0) {
        struct flock lock = polls::lockOf(owner, F_RDLCK);
        if (::fcntl(m_fd, F_OFD_GETLK, &lock) == 0 && lock.l_type == F_UNLCK) return false;
    }
    const std::uint64_t start = slot.ownerStart.load();
    return start == 0 || (vexo_stats::processStart(owner) == start && !isZombie(owner));
}

std::vector<StreamPolls> PollReader::streams() const {
    std::vector<StreamPolls> streams(polls::kStreams);
    for (std::size_t i = 0; i < streams.size(); ++i) {
        const polls::StreamSlot& slot = m_page->streams[i];
        const std::uint32_t owner = slot.owner.load();
        streams[i] = {owner != 0 && isThere(slot, owner) ? owner : 0, slot.polls.load()};
    }
    return streams;
}

}  // namespace vexo::run
