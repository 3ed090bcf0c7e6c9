#include "tools/share/RingWriter.h"

#include <VexoZceMdStatsFile.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace share {
namespace {

constexpr std::uint64_t kPage = 4096;
constexpr int kTries = 3;

std::uint64_t powerOfTwo(std::uint64_t bytes) {
    std::uint64_t size = kLeastRingBytes;
    while (size < bytes && size < kMostRingBytes) size *= 2;
    return size;
}

}  // namespace

bool RingWriter::refuse(const std::string& why) {
    m_error = why;
    if (m_hasDraft) ::unlinkat(m_directory, m_draft.c_str(), 0);
    m_hasDraft = false;
    closeFiles();
    leaveToParent();
    return false;
}

bool RingWriter::fail(const std::string& what) { return refuse(what + ": " + std::strerror(errno)); }

void RingWriter::closeFiles() {
    for (int* const fd : {&m_file, &m_directory}) {
        if (*fd >= 0) ::close(*fd);
        *fd = -1;
    }
}

bool RingWriter::make(const Stream& stream, std::size_t bytes) {
    const std::uint64_t ringBytes = m_mask != 0 ? m_mask + 1 : powerOfTwo(bytes);  // used again: in the same place
    m_isPublished = false;
    m_end = m_packets = 0;
    m_path = directory();
    m_name = fileName(stream.card, stream.channel);
    m_draft = "." + m_name;
    std::string fault;
    m_directory = openDirectory(fault);
    if (m_directory < 0) return refuse(fault);
    if (!openDraft(ringBytes) || !map(ringBytes)) return false;
    describe(stream, ringBytes);
    if (!publish()) return false;
    closeFiles();  // the lock belongs to the memory from now on
    return true;
}

bool RingWriter::openDraft(std::uint64_t ringBytes) {
    const int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    // A program that was killed in this very moment has left its draft.
    if (!isTaken(m_draft)) ::unlinkat(m_directory, m_draft.c_str(), 0);
    m_file = vexo_stats::aboveStandardStreams(::openat(m_directory, m_draft.c_str(), flags, 0600));
    if (m_file < 0) return fail(m_path);
    m_hasDraft = true;
    if (!vexo_stats::hold(m_file)) return refuse(m_path + ": this file system has no locks");
    // Memory that is missing later would end the application in the middle of a packet.
    int noMemory = 0;
    do noMemory = ::posix_fallocate(m_file, 0, static_cast<off_t>(kHeadBytes + ringBytes));
    while (noMemory == EINTR);
    if (noMemory == 0) return true;
    errno = noMemory;
    return fail(std::to_string(ringBytes >> 20) + " MB in " + m_path);
}

// The ring is mapped twice, one behind the other: a record that goes over the end is in one piece.
bool RingWriter::map(std::uint64_t ringBytes) {
    void* place = m_head;
    if (place == nullptr) {
        place = ::mmap(nullptr, kHeadBytes + 2 * ringBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1,
                       0);
        if (place == MAP_FAILED) return fail("memory");
        m_head = static_cast<Head*>(place);
        m_bytes = static_cast<unsigned char*>(place) + kHeadBytes;
        m_mask = ringBytes - 1;
    }
    const int flags = MAP_SHARED | MAP_FIXED;
    const bool isMapped =
        ::mmap(place, kHeadBytes + ringBytes, PROT_READ | PROT_WRITE, flags, m_file, 0) != MAP_FAILED &&
        ::mmap(m_bytes + ringBytes, ringBytes, PROT_READ | PROT_WRITE, flags, m_file, kHeadBytes) != MAP_FAILED;
    if (!isMapped) return fail("memory");
    // So that no poll waits for a page: each is touched, through both mappings.
    for (std::uint64_t at = 0; at < 2 * ringBytes; at += kPage) static_cast<volatile unsigned char*>(m_bytes)[at] = 0;
    return true;
}

void RingWriter::describe(const Stream& stream, std::uint64_t ringBytes) const {
    Facts& facts = m_head->facts;
    facts.magic = kMagic;
    facts.version = kVersion;
    facts.pid = static_cast<std::uint32_t>(::getpid());
    facts.ringBytes = ringBytes;
    facts.mtu = stream.mtu;
    facts.flags = stream.flags;
    std::strncpy(facts.program, program_invocation_short_name, sizeof facts.program - 1);
}

bool RingWriter::publish() {
    struct stat found {};
    if (::fstat(m_file, &found) != 0) return fail(m_path);
    m_device = found.st_dev;
    m_inode = found.st_ino;
    for (int tries = 0; ::linkat(m_directory, m_draft.c_str(), m_directory, m_name.c_str(), 0) != 0; ++tries) {
        if (errno != EEXIST || tries == kTries) return fail(m_path + "/" + m_name);
        if (isTaken(m_name)) return refuse(m_path + "/" + m_name + ": another process shares this channel");
        ::unlinkat(m_directory, m_name.c_str(), 0);  // of a process that was killed
    }
    ::unlinkat(m_directory, m_draft.c_str(), 0);
    m_hasDraft = false;
    m_isPublished = true;
    return true;
}

bool RingWriter::isTaken(const std::string& name) const {
    const int file = vexo_stats::aboveStandardStreams(
        ::openat(m_directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    const bool isHeld = file >= 0 && vexo_stats::isHeld(file) == 1;
    if (file >= 0) ::close(file);
    return isHeld;
}

void RingWriter::setCard(const CardCounts& counts) {
    CardCounts& shared = m_head->card;
    __atomic_store_n(&shared.backPressure, counts.backPressure, __ATOMIC_RELAXED);
    __atomic_store_n(&shared.fifoErrors, counts.fifoErrors, __ATOMIC_RELAXED);
    __atomic_store_n(&shared.errors, counts.errors, __ATOMIC_RELAXED);
}

void RingWriter::end() {
    if (!m_isPublished) return;
    m_isPublished = false;
    const std::string path = m_path + "/" + m_name;
    struct stat found {};
    if (::lstat(path.c_str(), &found) == 0 && found.st_dev == m_device && found.st_ino == m_inode)
        ::unlink(path.c_str());
    leaveToParent();
}

// The lock goes with the memory. When there is no memory for this, the ring of the parent gets some wrong packets.
void RingWriter::leaveToParent() {
    if (m_head == nullptr) return;
    static_cast<void>(::mmap(m_head, kHeadBytes + 2 * (m_mask + 1), PROT_READ | PROT_WRITE,
                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0));
}

}  // namespace share
