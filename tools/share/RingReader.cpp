#include "tools/share/RingReader.h"

#include <VexoZceMdStatsFile.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace share {
namespace {

constexpr int kTries = 100;
constexpr std::uint64_t kMostLost = std::uint64_t{1} << 31;  // half of the numbers: with more, they go back

bool isPowerOfTwo(std::uint64_t number) { return number != 0 && (number & (number - 1)) == 0; }

bool readAt(int file, void* to, std::size_t bytes, std::uint64_t at) {
    ssize_t got = 0;
    do got = ::pread(file, to, bytes, static_cast<off_t>(at));
    while (got < 0 && errno == EINTR);
    return got == static_cast<ssize_t>(bytes);
}

}  // namespace

std::unique_ptr<RingReader> RingReader::open(const std::string& path, std::string& fault) {
    fault.clear();
    // A FIFO or a device in its place must not make us wait.
    const int file = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (file < 0) {
        if (errno != ENOENT) fault = path + ": " + std::strerror(errno);
        return nullptr;
    }
    std::unique_ptr<RingReader> reader(new RingReader(file));
    fault = reader->check();
    if (!fault.empty()) fault = path + ": " + fault;
    const bool isUsable = fault.empty() && vexo_stats::isHeld(file) == 1;
    return isUsable ? std::move(reader) : nullptr;
}

RingReader::~RingReader() { ::close(m_file); }

template <typename What>
bool RingReader::read(What& what, std::uint64_t at) const {
    return readAt(m_file, &what, sizeof what, at);
}

// Whoever may write to the file may have written anything.
std::string RingReader::check() {
    struct stat found {};
    Facts facts{};
    if (::fstat(m_file, &found) != 0) return std::strerror(errno);
    if (!S_ISREG(found.st_mode) || !read(facts, offsetof(Head, facts)) || facts.magic != kMagic)
        return "this is no shared ring";
    if (found.st_uid != ::geteuid()) return "it belongs to another user";
    if (facts.version != kVersion)
        return "its format has version " + std::to_string(facts.version) + ", this program knows version " +
               std::to_string(kVersion);
    const bool isPossible = isPowerOfTwo(facts.ringBytes) && facts.ringBytes >= kLeastRingBytes &&
                            facts.ringBytes <= kMostRingBytes && facts.mtu != 0 && facts.mtu <= kMostPacketBytes;
    if (!isPossible) return "it is damaged";
    m_ringBytes = facts.ringBytes;
    m_mtu = facts.mtu;
    m_flags = facts.flags;
    m_pid = facts.pid;
    m_program.assign(facts.program, ::strnlen(facts.program, sizeof facts.program));
    m_copy.resize(std::min<std::uint64_t>(kCopyBytes, m_ringBytes));
    return {};
}

std::string RingReader::writer() const { return m_program + " (process " + std::to_string(m_pid) + ")"; }

bool RingReader::isWritten(const std::string& path) const {
    struct stat ours {};
    struct stat there {};
    return vexo_stats::isHeld(m_file) == 1 && ::fstat(m_file, &ours) == 0 && ::lstat(path.c_str(), &there) == 0 &&
           ours.st_dev == there.st_dev && ours.st_ino == there.st_ino;
}

bool RingReader::damage() {
    m_isDamaged = true;
    return false;
}

// A word whose two copies agree is whole. They stay different when the writer was killed between them.
bool RingReader::readProgress(Progress& progress) const {
    Progress both[2]{};
    Progress before[2]{};
    for (int n = 0; n < kTries; ++n) {
        if (!read(both, offsetof(Head, progress))) return false;
        const bool isWhole = std::memcmp(&both[0], &both[1], sizeof both[0]) == 0;
        if (isWhole || (n > 0 && std::memcmp(both, before, sizeof both) == 0)) break;
        std::memcpy(before, both, sizeof both);
    }
    progress.reserved = std::max(both[0].reserved, both[1].reserved);
    progress.packets = std::min(both[0].packets, both[1].packets);
    progress.end = std::min(both[0].end, both[1].end);
    return true;
}

// The counts grow. A value that no writer has written may be there for a moment only.
bool RingReader::readCard() {
    CardCounts now{};
    if (!read(now, offsetof(Head, card))) return false;
    const bool isPossible = now.backPressure - m_card.backPressure < kMostLost &&
                            now.fifoErrors - m_card.fifoErrors < kMostLost && now.errors - m_card.errors < kMostLost;
    if (isPossible) m_card = now;
    return true;
}

void RingReader::skipToEnd() {
    Progress progress{};
    if (!readProgress(progress)) return static_cast<void>(damage());
    m_position = progress.end;
    m_next = progress.packets;
    m_isNumberKnown = false;
    static_cast<void>(read(m_card, offsetof(Head, card)));
}

// All that the writer has overwritten is lost. The number of the next record tells how many packets that were.
bool RingReader::jump(std::uint64_t end) {
    m_position = end;
    m_copied = m_taken = 0;
    return false;
}

// Packets that no record follows. The three words are read one after the other: when no record was begun before the
// last one was read, they belong together.
bool RingReader::settle(Item& item) {
    Progress first{};
    Progress second{};
    Progress third{};
    if (!readProgress(first) || !readProgress(second) || !readProgress(third)) return damage();
    if (first.end != m_position || third.reserved != first.end) return false;
    if (!m_isNumberKnown) m_next = second.packets;
    m_isNumberKnown = true;
    if (second.packets < m_next || second.packets - m_next >= kMostLost) return damage();
    item.lost = second.packets - m_next;
    m_next = second.packets;
    return item.lost > 0;
}

bool RingReader::next(Item& item) {
    item = {};
    if (m_isDamaged) return false;
    if (take(item)) return true;
    return !m_isDamaged && refill(item);
}

// From the copy.
bool RingReader::take(Item& item) {
    Prefix prefix{};
    if (m_copied - m_taken < sizeof prefix) return false;
    std::memcpy(&prefix, m_copy.data() + m_taken, sizeof prefix);
    if (prefix.size > m_mtu) return damage();
    const std::uint64_t bytes = footprint(prefix.size);
    if (m_copied - m_taken < bytes) return false;  // the rest comes with the next copy
    const std::int64_t ahead = static_cast<std::int32_t>(prefix.number - static_cast<std::uint32_t>(m_next));
    if (m_isNumberKnown && ahead < 0) return damage();
    item.lost = m_isNumberKnown ? static_cast<std::uint64_t>(ahead) : 0;
    item.ticks = prefix.ticks;
    item.data = m_copy.data() + m_taken + sizeof prefix;
    item.size = prefix.size;
    m_next += static_cast<std::uint64_t>(ahead + 1);
    m_isNumberKnown = true;
    m_taken += bytes;
    m_position += bytes;
    return true;
}

bool RingReader::refill(Item& item) {
    Progress progress{};
    if (!readProgress(progress) || !readCard()) return damage();
    if (progress.end < m_position || progress.end % sizeof(Prefix) != 0) return damage();
    const std::uint64_t there = progress.end - m_position;
    if (there == 0) return (progress.packets != m_next || !m_isNumberKnown) && settle(item);
    if (there > m_ringBytes) return jump(progress.end);
    if (!copy(std::min<std::uint64_t>(there, m_copy.size()))) return damage();
    // What the writer has overwritten meanwhile is no packet.
    if (!readProgress(progress) || progress.reserved < m_position) return damage();
    if (progress.reserved - m_position > m_ringBytes) return jump(progress.end);
    if (take(item)) return true;
    return damage();  // the longest record fits into a copy
}

bool RingReader::copy(std::uint64_t bytes) {
    const std::uint64_t at = m_position & (m_ringBytes - 1);
    const std::uint64_t first = std::min(bytes, m_ringBytes - at);
    m_copied = m_taken = 0;
    if (!readAt(m_file, m_copy.data(), first, kHeadBytes + at)) return false;
    if (!readAt(m_file, m_copy.data() + first, bytes - first, kHeadBytes)) return false;
    m_copied = bytes;
    return true;
}

}  // namespace share
