#include "tools/vexo/run/PollReader.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <string>

#include "tools/vexo/Command.h"

namespace vexo::run {
namespace {

Failure noPage() { return {kFinding, std::string("no memory to count polls in: ") + std::strerror(errno)}; }

// Standard streams that were closed must not get its number.
int aboveStandardStreams(int fd) {
    if (fd < 0 || fd > STDERR_FILENO) return fd;
    const int other = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    ::close(fd);
    return other;
}

}  // namespace

PollReader::PollReader() : m_fd(aboveStandardStreams(::memfd_create("vexo-polls", MFD_CLOEXEC | MFD_ALLOW_SEALING))) {
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
    m_page->magic = polls::kMagic;
}

PollReader::~PollReader() {
    ::munmap(m_page, sizeof(polls::PollPage));
    ::close(m_fd);
}

std::vector<StreamPolls> PollReader::streams() const {
    std::vector<StreamPolls> streams(polls::kStreams);
    for (std::size_t i = 0; i < streams.size(); ++i)
        streams[i] = {m_page->streams[i].owner.load(), m_page->streams[i].polls.load()};
    return streams;
}

}  // namespace vexo::run
