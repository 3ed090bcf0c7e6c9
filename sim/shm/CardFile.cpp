#include "sim/shm/CardFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "capture/StandardStreams.h"

namespace vexo_sim {
namespace {

constexpr const char* kPrefix = "vexo-simcard-";
constexpr const char* kUnpublished = ".new-";

struct flock byteOf(CardPart part, short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = static_cast<off_t>(part.kind) * kStreams + part.channel;
    lock.l_len = 1;
    return lock;
}

// The names in a directory that begin with the prefix of the cards.
std::vector<std::string> listCards(const std::string& directory) {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir(directory.c_str()), &closedir);
    if (stream == nullptr) return names;
    while (const dirent* entry = readdir(stream.get())) {
        const std::string name = entry->d_name;
        if (name.compare(0, std::char_traits<char>::length(kPrefix), kPrefix) == 0) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

int reserveRange(int fd, std::size_t offset, std::size_t length) {
    int error = EINTR;
    while (error == EINTR) error = posix_fallocate(fd, static_cast<off_t>(offset), static_cast<off_t>(length));
    return error;
}

}  // namespace

CardFile::CardFile(CardFile&& other) noexcept { *this = std::move(other); }

CardFile& CardFile::operator=(CardFile&& other) noexcept {
    close();
    m_fd = std::exchange(other.m_fd, -1);
    m_path = std::move(other.m_path);
    m_device = other.m_device;
    m_inode = other.m_inode;
    return *this;
}

CardFile::~CardFile() { close(); }

void CardFile::close() {
    if (m_fd >= 0) ::close(std::exchange(m_fd, -1));
}

template <typename Accept>
CardFile CardFile::openIf(const std::string& path, Accept accept) {
    CardFile file;
    const capture::StandardNumbersTaken taken;
    file.m_fd = ::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (file.m_fd < 0) return file;
    struct stat status {};
    if (fstat(file.m_fd, &status) != 0 || !S_ISREG(status.st_mode) || !accept(file, status)) {
        file.close();
        errno = EACCES;
        return file;
    }
    file.m_path = path;
    file.m_device = status.st_dev;
    file.m_inode = status.st_ino;
    return file;
}

CardFile CardFile::open(const std::string& path, uid_t owner) {
    return openIf(path, [=](const CardFile& file, const struct stat& status) {
        return status.st_uid == owner && file.header().layout != 0;
    });
}

CardFile CardFile::openLeftover(const std::string& path) {
    const bool unpublished = path.find(kUnpublished) != std::string::npos;
    return openIf(path, [=](const CardFile& file, const struct stat& status) {
        return status.st_uid == geteuid() && (unpublished || file.header().layout != 0);
    });
}

BlockHeader CardFile::header() const {
    BlockHeader header{};
    const bool whole = pread(m_fd, &header, sizeof header, 0) == static_cast<ssize_t>(sizeof header);
    if (!whole || std::memcmp(header.magic, kCardMagic, sizeof header.magic) != 0) return BlockHeader{};
    return header;
}

CardFile CardFile::create(const std::string& directory, std::uint32_t bus, mode_t mode, gid_t group) {
    CardFile file;
    std::string path = cardPath(directory, geteuid(), bus) + kUnpublished + "XXXXXX";
    const capture::StandardNumbersTaken taken;
    file.m_fd = mkostemp(path.data(), O_CLOEXEC);
    if (file.m_fd < 0) return file;
    file.m_path = path;
    struct stat status {};
    const bool made = ftruncate(file.m_fd, sizeof(CardBlock)) == 0 && fstat(file.m_fd, &status) == 0 &&
                      (group == status.st_gid || fchown(file.m_fd, static_cast<uid_t>(-1), group) == 0) &&
                      fchmod(file.m_fd, mode) == 0;
    if (!made) {
        const int error = errno;
        unlink(path.c_str());
        file.close();
        errno = error;
    }
    file.m_device = status.st_dev;
    file.m_inode = status.st_ino;
    return file;
}

CardBlock* CardFile::map() {
    struct stat status {};
    const BlockHeader begin = header();
    const bool isNew = m_path.find(kUnpublished) != std::string::npos;
    if (fstat(m_fd, &status) != 0) return nullptr;
    if (status.st_size < static_cast<off_t>(sizeof(CardBlock)) || (!isNew && !isCompatible(begin))) {
        errno = EPROTO;
        return nullptr;
    }
    void* memory = mmap(nullptr, sizeof(CardBlock), PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, 0);
    return memory == MAP_FAILED ? nullptr : static_cast<CardBlock*>(memory);
}

bool CardFile::reserve(std::uint32_t ringBytes) {
    const std::size_t streams = offsetof(CardBlock, state) + offsetof(CardState, up);
    const std::size_t used = offsetof(UpStreamState, ring) + offsetof(RingState, bytes) + ring::capacityFor(ringBytes);
    int error = reserveRange(m_fd, 0, streams);
    for (std::uint32_t channel = 0; channel < kStreams && error == 0; ++channel)
        error = reserveRange(m_fd, streams + channel * sizeof(UpStreamState), used);
    // Gives back what was reserved before the memory ran out: smaller rings may fit.
    if (error != 0 && ftruncate(m_fd, 0) == 0 && ftruncate(m_fd, sizeof(CardBlock)) != 0) error = errno;
    errno = error;
    return error == 0;
}

bool CardFile::reserve(std::size_t offset, std::size_t length) {
    errno = reserveRange(m_fd, offset, length);
    return errno == 0;
}

bool CardFile::publish(const std::string& path) {
    if (link(m_path.c_str(), path.c_str()) != 0) return false;
    unlink(m_path.c_str());
    m_path = path;
    return true;
}

void CardFile::remove() {
    struct stat named {};
    if (lstat(m_path.c_str(), &named) != 0 || named.st_dev != m_device || named.st_ino != m_inode) return;
    unlink(m_path.c_str());
}

bool CardFile::claim(CardPart part) {
    struct flock lock = byteOf(part, F_WRLCK);
    return fcntl(m_fd, F_SETLK, &lock) == 0;
}

void CardFile::release(CardPart part) {
    struct flock lock = byteOf(part, F_UNLCK);
    fcntl(m_fd, F_SETLK, &lock);
}

std::optional<pid_t> CardFile::holderOf(CardPart part) const {
    struct flock lock = byteOf(part, F_WRLCK);
    if (fcntl(m_fd, F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) return std::nullopt;
    return lock.l_pid;
}

std::string cardPath(const std::string& directory, uid_t user, std::uint32_t bus) {
    return directory + "/" + kPrefix + std::to_string(user) + "-" + std::to_string(bus);
}

unsigned removeStaleFiles(const std::string& directory) {
    unsigned removed = 0;
    for (const std::string& name : listCards(directory)) {
        CardFile file = CardFile::openLeftover(directory + "/" + name);
        if (!file) continue;
        // Holds the part for removal meanwhile. Otherwise two hosts could both remove the name, and the second one
        // could remove that of a new card.
        if (file.holderOf({CardPart::kHost}) || !file.claim({CardPart::kRemoval})) continue;
        file.remove();
        ++removed;
    }
    return removed;
}

}  // namespace vexo_sim
