#include "capture/CaptureFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "capture/StandardStreams.h"

namespace capture {
namespace {

constexpr std::size_t kFlushBytes = 256 * 1024;
constexpr unsigned kMaxNames = 1'000'000;

}  // namespace

CaptureFiles::CaptureFiles(Settings settings) : m_settings(std::move(settings)) {
    if (m_settings.recorder.keep > 0) m_recorder.emplace(m_settings.path, m_settings.recorder, m_settings.report);
    m_waitsForPacket = m_recorder.has_value();
}

CaptureFiles::~CaptureFiles() {
    if (isOpen() && isFileOurs()) ::close(m_fd);
}

std::uint32_t CaptureFiles::addInterface(const InterfaceInfo& info, std::uint64_t startNs) {
    m_nowNs = startNs;
    BlockBuffer block;
    appendInterface(block, info);
    if (isOpen() && wouldGrowTooBig(block.size() + statisticsBlockBytes())) {
        endFile(startNs);
        m_waitsForPacket = true;
    }
    m_interfaces.push_back({info, startNs});
    if (isOpen()) {
        m_buffer.insert(m_buffer.end(), block.begin(), block.end());
    } else if (!m_waitsForPacket) {
        openNext();  // the first interface opens the first file; later ones try again when the disk failed
    }
    return static_cast<std::uint32_t>(m_interfaces.size() - 1);
}

void CaptureFiles::addPacket(std::uint32_t interface, std::uint64_t timeNs, const void* data, std::uint32_t size,
                             std::uint32_t trueSize) {
    m_nowNs = timeNs;
    if (isOpen() && (wouldGrowTooBig(packetBlockBytes(size)) || isTimeOver(timeNs))) {
        endFile(timeNs);
        openNext();
    } else if (m_waitsForPacket) {
        openNext();
    }
    Known& known = m_interfaces[interface];
    if (!isOpen()) {
        ++known.lost;
        ++m_lostUnreported;
        return;
    }
    appendPacket(m_buffer, interface, timeNs, data, size, trueSize);
    ++known.buffered;
    if (m_filePackets++ == 0) m_fileNs = timeNs;
    if (m_buffer.size() >= kFlushBytes) flush();
}

// A file without a packet takes one of any size; otherwise a large packet could never be written.
bool CaptureFiles::wouldGrowTooBig(std::uint64_t bytes) const {
    if (m_settings.rotateBytes == 0) return false;
    const std::uint64_t tail = std::uint64_t{statisticsBlockBytes()} * m_interfaces.size();
    return m_filePackets > 0 && m_fileBytes + m_buffer.size() + bytes + tail > m_settings.rotateBytes;
}

// Packets of several interfaces come a little out of order: one from before the file's beginning belongs to it. A clock
// that was set back far begins a new file.
bool CaptureFiles::isTimeOver(std::uint64_t timeNs) const {
    const std::uint64_t every = m_settings.rotateEveryNs;
    if (every == 0 || m_filePackets == 0) return false;
    return timeNs / every > m_fileNs / every || timeNs + every < m_fileNs;
}

std::string CaptureFiles::nameOf(unsigned number) const {
    if (number == 0) return m_settings.path;
    const std::size_t slash = m_settings.path.rfind('/');
    const std::size_t dot = m_settings.path.rfind('.');
    const bool hasExtension = dot != std::string::npos && (slash == std::string::npos || dot > slash + 1) && dot > 0;
    const std::size_t end = hasExtension ? dot : m_settings.path.size();
    return m_settings.path.substr(0, end) + "." + std::to_string(number) + m_settings.path.substr(end);
}

// @return what is wrong; nothing if the file is open
std::string CaptureFiles::createFree() {
    const StandardNumbersTaken taken;
    errno = EEXIST;
    while (!isOpen() && errno == EEXIST && m_nextNumber < kMaxNames) {
        m_name = nameOf(m_nextNumber);
        m_fd = ::open(m_name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (isOpen() || errno == EEXIST) ++m_nextNumber;
    }
    if (!isOpen()) return std::strerror(errno);
    m_settings.report("writing " + m_name);
    return {};
}

std::string CaptureFiles::createRecorded() {
    const RecorderFiles::Created created = m_recorder->create(m_nowNs, [this](const std::string& mark) {
        BlockBuffer head;
        SectionInfo section = m_settings.section;
        section.comment = mark;
        appendSection(head, section);
        return head;
    });
    m_fd = created.fd;
    m_name = created.name;
    m_fileBytes = created.bytes;
    return created.problem;
}

void CaptureFiles::openNext() {
    m_waitsForPacket = false;
    m_fileBytes = m_filePackets = 0;
    m_described = 0;
    const std::string problem = m_recorder ? createRecorded() : createFree();
    if (!isOpen()) {
        reportOnce(m_openFailureReported, "cannot create " + m_name + ": " + problem);
        return;
    }
    struct stat state {};
    ::fstat(m_fd, &state);
    m_device = state.st_dev;
    m_inode = state.st_ino;
    ++m_files;
    startBuffer();
}

// An application may close descriptors that it does not know, and open a file of its own under the same number.
bool CaptureFiles::isFileOurs() const {
    struct stat state {};
    return ::fstat(m_fd, &state) == 0 && state.st_dev == m_device && state.st_ino == m_inode;
}

void CaptureFiles::leaveFile() {
    reportOnce(m_writeFailureReported, "cannot write " + m_name +
                                           " any more: the program has closed its descriptor; the next packet begins "
                                           "another file");
    loseBuffered();
    reportLost();
    forgetFile();
    m_waitsForPacket = true;
}

// The next file takes the counts that this one does not get. The packets that are in this one it does not count.
void CaptureFiles::forgetFile() {
    m_fd = -1;
    for (Known& known : m_interfaces) known.received = 0;
}

// Starts the buffer with what the file still lacks before its next packet: its head and interfaces.
void CaptureFiles::startBuffer() {
    m_buffer.clear();
    if (m_fileBytes == 0) appendSection(m_buffer, m_settings.section);
    for (std::size_t i = m_described; i < m_interfaces.size(); ++i) appendInterface(m_buffer, m_interfaces[i].info);
}

void CaptureFiles::appendCounts(std::uint64_t nowNs) {
    for (std::uint32_t i = 0; i < m_interfaces.size(); ++i) {
        const Known& known = m_interfaces[i];
        InterfaceCounts counts = {known.startNs, nowNs, known.received + known.lost, known.lost, {}};
        if (known.card) counts.card = *known.card - known.cardBefore;
        appendStatistics(m_buffer, i, counts);
    }
}

void CaptureFiles::flush() {
    if (isOpen() && !isFileOurs()) leaveFile();
    if (!isOpen()) {
        if (!m_interfaces.empty() && !m_waitsForPacket) openNext();
        return;
    }
    if (m_buffer.empty()) return;
    writeBuffer(true);
}

void CaptureFiles::tick(std::uint64_t nowNs) {
    m_nowNs = nowNs;
    if (isOpen() && isTimeOver(nowNs)) {
        endFile(nowNs);
        m_waitsForPacket = true;
    }
    flush();
}

// @param needsRoom  a recorder leaves space free, but for the few bytes at the end of a file
bool CaptureFiles::writeBuffer(bool needsRoom) {
    const bool hasRoom = !needsRoom || !m_recorder || m_recorder->hasRoom(m_buffer.size(), m_nowNs);
    const bool isWritten = hasRoom && writeAll(m_buffer.data(), m_buffer.size());
    if (isWritten) {
        m_fileBytes += m_buffer.size();
        m_described = m_interfaces.size();
        countWritten();
        reportLost();
    } else {
        const std::string problem = hasRoom ? std::strerror(errno) : m_recorder->whyNoRoom();
        reportOnce(m_writeFailureReported,
                   "cannot write " + m_name + ": " + problem + "; packets are lost, and counted");
        cutUnwritten();
        loseBuffered();
    }
    startBuffer();
    return isWritten;
}

void CaptureFiles::countWritten() {
    for (Known& known : m_interfaces) {
        known.received += known.buffered;
        m_written += known.buffered;
        known.buffered = 0;
    }
}

void CaptureFiles::loseBuffered() {
    for (Known& known : m_interfaces) {
        known.lost += known.buffered;
        m_lostUnreported += known.buffered;
        m_filePackets -= known.buffered;
        known.buffered = 0;
    }
}

// Ends a run of failures: the next one is reported anew.
void CaptureFiles::reportLost() {
    if (m_lostUnreported > 0)
        m_settings.report(std::to_string(m_lostUnreported) + " packets were lost while " + m_name +
                          " could not be written");
    m_lostUnreported = 0;
    m_openFailureReported = m_writeFailureReported = false;
}

bool CaptureFiles::writeAll(const unsigned char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t done = ::write(m_fd, data, size);
        if (done < 0 && errno == EINTR) continue;
        if (done < 0) return false;
        data += done;
        size -= static_cast<std::size_t>(done);
    }
    return true;
}

// Cuts off half a block: a reader could not read on behind it.
void CaptureFiles::cutUnwritten() {
    const auto end = static_cast<off_t>(m_fileBytes);
    if (::ftruncate(m_fd, end) == 0 && ::lseek(m_fd, end, SEEK_SET) == end) return;
    ::close(m_fd);
    forgetFile();
}

void CaptureFiles::close(std::uint64_t nowNs) {
    m_nowNs = nowNs;
    flush();
    if (m_waitsForPacket && hasUntoldCounts()) m_waitsForPacket = false;
    endFile(nowNs);
}

// Whether something was lost that no file tells. A run that has written no file received nothing: its losses cost no
// older file.
bool CaptureFiles::hasUntoldCounts() const {
    return m_files > 0 && std::any_of(m_interfaces.begin(), m_interfaces.end(), [](const Known& known) {
               return known.lost > 0 || (known.card && hasCounts(*known.card - known.cardBefore));
           });
}

void CaptureFiles::endFile(std::uint64_t nowNs) {
    flush();
    bool isTold = false;
    if (isOpen()) {
        appendCounts(nowNs);
        isTold = writeBuffer(false);
    }
    if (isOpen() && ::close(m_fd) != 0) {  // a network file system may report a failed write here
        reportOnce(m_writeFailureReported, "cannot write " + m_name + ": " + std::strerror(errno));
    }
    m_fd = -1;
    if (m_recorder) m_recorder->closed();
    reportLost();
    if (!isTold) return forgetFile();
    for (Known& known : m_interfaces) {
        known.startNs = nowNs;
        known.lostBefore += known.lost;
        known.received = known.lost = 0;
        if (known.card) known.cardBefore = *known.card;
    }
}

std::uint64_t CaptureFiles::lost() const {
    std::uint64_t all = 0;
    for (const Known& known : m_interfaces) all += known.lostBefore + known.lost;
    return all;
}

void CaptureFiles::reportOnce(bool& reported, const std::string& what) {
    if (!reported) m_settings.report(what);
    reported = true;
}

}  // namespace capture
