#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "capture/Reader.h"

namespace vexo::data {

/// Gets what a CaptureSet reads.
class CaptureSink {
public:
    CaptureSink() = default;
    virtual ~CaptureSink() = default;
    CaptureSink(const CaptureSink&) = delete;
    CaptureSink& operator=(const CaptureSink&) = delete;

    /// @param file    number of the capture in CaptureSet::paths()
    /// @param packet  with its interface, valid until the capture ends; its bytes, until the next packet
    virtual void take(std::size_t file, const capture::Packet& packet) = 0;
    /// A capture has ended. @param fault  "at byte 1234: ..." if it is damaged there, otherwise empty
    virtual void end(std::size_t file, const std::deque<capture::Interface>& interfaces, const std::string& fault) = 0;
};

/// Several captures as one recording: their packets in the order of time, whatever the order of the names. Captures are
/// open at the same time only if their times overlap, so any number of them takes little memory.
class CaptureSet {
public:
    /// Reads the beginning of each capture when there are several. @param paths  "-" = standard input
    /// Throws SourceError: a capture cannot be opened, is named twice, or is a pipe among others.
    explicit CaptureSet(const std::vector<std::string>& paths);
    ~CaptureSet();
    CaptureSet(const CaptureSet&) = delete;
    CaptureSet& operator=(const CaptureSet&) = delete;

    /// In the order of reading.
    const std::vector<std::string>& paths() const { return m_paths; }
    /// Reads all. Throws SourceError when a capture cannot be opened any more.
    void read(CaptureSink& sink);
    /// Bytes of the files that have been read, and of all of them; 0 if that is not known.
    std::uint64_t readBytes() const;
    std::uint64_t fileBytes() const { return m_fileBytes; }

private:
    struct Open;

    void sortByTime(const std::vector<std::string>& paths);
    void openNext(CaptureSink& sink);
    void openUntil(std::uint64_t timeNs, CaptureSink& sink);
    void advance(Open& open, CaptureSink& sink);
    std::uint64_t limitOf(std::size_t earliest) const;

    std::vector<std::string> m_paths;
    std::vector<std::uint64_t> m_firstTimes;  // 0 for a capture without a packet
    std::size_t m_next = 0;                   // to open
    std::vector<std::unique_ptr<Open>> m_open;
    std::uint64_t m_fileBytes = 0;
    std::uint64_t m_closedBytes = 0;
};

}  // namespace vexo::data
