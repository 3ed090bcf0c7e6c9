#include "tools/relay/ArchiveFiles.h"

#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <utility>

#include "capture/StoredFrame.h"
#include "capture/StreamPlace.h"

namespace relay {
namespace {

std::string pathOf(const ArchiveSettings& settings, const vexo_sim::remote::Place& place) {
    return settings.directory + "/" + place.site + "." + std::to_string(place.bus) + "." +
           std::to_string(place.channel) + ".pcapng.zst";
}

bool writeAll(int fd, const capture::BlockBuffer& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t count = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        done += static_cast<std::size_t>(count);
    }
    return true;
}

}  // namespace

ArchiveFiles::ArchiveFiles(const ArchiveSettings& settings, const vexo_sim::remote::Place& place, Report report)
    : m_settings(settings),
      m_interface(capture::nameOf({place.bus, place.channel})),
      m_report(std::move(report)),
      m_recorder(pathOf(settings, place), {settings.keep, settings.keepFreeBytes},
                 [this](const std::string& text) { m_report(text); }, {"vexo relay", true}) {}

ArchiveFiles::~ArchiveFiles() = default;

bool ArchiveFiles::isTimeOver(std::uint64_t timeNs) const {
    const std::uint64_t every = m_settings.rotateEveryNs;
    if (every == 0 || m_file == nullptr) return false;
    return timeNs / every > m_first.firstNs / every || timeNs + every < m_first.firstNs;
}

// A file is open with its first block only: a quiet night makes no files.
bool ArchiveFiles::open(std::uint64_t nowNs, const BlockFacts& facts) {
    const capture::RecorderFiles::Created created = m_recorder.create(nowNs, [this](const std::string& mark) {
        capture::BlockBuffer head;
        capture::SectionInfo section;
        section.application = "vexo relay";
        section.comment = mark;
        capture::appendSection(head, section);
        capture::appendInterface(head, {capture::kStreamLink, m_interface, ""});
        return capture::storedFrame(head);
    });
    if (created.fd < 0) {
        tellFailure("cannot create " + created.name + ": " + created.problem);
        return false;
    }
    m_file = std::make_shared<ArchiveFile>(created.fd);
    m_path = created.name;
    m_number = created.number;
    m_bytes = created.bytes;
    m_first = facts;
    m_packets = 0;
    ++m_count;
    return true;
}

// Half a frame is cut off again: a reader could not read on behind it.
bool ArchiveFiles::append(const capture::BlockBuffer& bytes) {
    if (writeAll(m_file->fd(), bytes)) {
        m_bytes += bytes.size();
        return true;
    }
    const int error = errno;
    const auto end = static_cast<off_t>(m_bytes);
    if (::ftruncate(m_file->fd(), end) != 0 || ::lseek(m_file->fd(), end, SEEK_SET) != end) {
        m_file.reset();
        m_recorder.closed();
    }
    errno = error;
    return false;
}

std::optional<ArchiveFiles::Written> ArchiveFiles::write(const ArchiveBlock& block, std::uint64_t nowNs) {
    const BlockFacts& facts = block.facts();
    const capture::BlockBuffer frame = compress(block.encode());
    const bool isTooBig = m_file != nullptr && m_packets > 0 && m_bytes + frame.size() > m_settings.rotateBytes;
    if (isTooBig || isTimeOver(facts.firstNs)) close(nowNs);
    if (m_file == nullptr && !open(nowNs, facts)) {
        m_lost += facts.packets;
        return std::nullopt;
    }
    const FramePlace place{m_bytes, frame.size()};
    const bool hasRoom = m_recorder.hasRoom(frame.size(), nowNs);
    if (!hasRoom || !append(frame)) {
        tellFailure("cannot write " + m_path + ": " + (hasRoom ? std::strerror(errno) : m_recorder.whyNoRoom()));
        m_lost += facts.packets;
        return std::nullopt;
    }
    m_last = facts;
    m_packets += facts.packets;
    if (m_lost > 0)
        m_report(std::to_string(m_lost) + " packets were lost to the archive while it could not be written");
    m_lost = 0;
    m_isFailureTold = false;
    return Written{m_number, place};
}

void ArchiveFiles::tick(std::uint64_t nowNs) {
    if (isTimeOver(nowNs)) close(nowNs);
}

// What the stream counted in the time of this file, as in any capture. Also what was lost in the time of a file for
// whose statistics the disk had no room.
capture::InterfaceCounts ArchiveFiles::counts(std::uint64_t nowNs) const {
    const std::uint64_t received = m_last.end - m_before.end - m_untold;
    capture::InterfaceCounts counts{m_first.firstNs, nowNs, received, received - m_packets, {}};
    counts.card.emplace();
    counts.card->packets = received;
    counts.card->backPressure = m_last.counts.lostByRing - m_before.counts.lostByRing;
    counts.card->fifoErrors = m_last.counts.fifoErrors - m_before.counts.fifoErrors;
    counts.card->errors = m_last.counts.streamErrors - m_before.counts.streamErrors;
    return counts;
}

void ArchiveFiles::close(std::uint64_t nowNs) {
    if (m_file == nullptr) return;
    if (m_packets > 0) {
        capture::BlockBuffer end;
        capture::appendStatistics(end, 0, counts(nowNs));
        if (append(compress(end))) {
            m_before = m_last;
            m_untold = 0;
        } else {
            m_untold += m_packets;
        }
    }
    m_file.reset();
    m_recorder.closed();
}

void ArchiveFiles::tellFailure(const std::string& what) {
    if (!m_isFailureTold) m_report(what + "; packets are lost to the archive, and counted. The stream goes on");
    m_isFailureTold = true;
}

}  // namespace relay
