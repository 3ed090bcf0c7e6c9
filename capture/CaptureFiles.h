#pragma once

#include <sys/types.h>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "capture/Blocks.h"
#include "capture/RecorderFiles.h"

namespace capture {

/// Writes packets into capture files. With a limit of size or time there are several: FILE.pcapng, FILE.1.pcapng, ...
/// An existing file is never touched: the next free name is used. A recorder keeps its newest files only, and names
/// them otherwise: see RecorderFiles. It creates a file when there is a packet for it. No packet is lost in silence:
/// one that could not be written is counted in the statistics of its interface. The start of a run of failures is
/// reported, and at its end how many packets were lost.
///
/// Each file can be read alone: it begins with all interfaces and ends with the counts of its own time.
/// For one thread at a time.
class CaptureFiles {
public:
    struct Settings {
        std::string path;                 // of the first file
        std::uint64_t rotateBytes = 0;    // no file grows beyond it; 0 = files of any size
        std::uint64_t rotateEveryNs = 0;  // files begin anew at multiples of it since 1970; 0 = at no time
        RecorderFiles::Limits recorder;   // keep = 0: no recorder, all files stay
        SectionInfo section;
        std::function<void(const std::string&)> report;  // gets each message for the user, without a line feed
    };

    explicit CaptureFiles(Settings settings);
    ~CaptureFiles();
    CaptureFiles(const CaptureFiles&) = delete;
    CaptureFiles& operator=(const CaptureFiles&) = delete;

    /// @param startNs  when counting starts, nanoseconds since 1970
    /// @return the interface's number, for addPacket()
    std::uint32_t addInterface(const InterfaceInfo& info, std::uint64_t startNs);
    /// @param trueSize  as for appendPacket()
    void addPacket(std::uint32_t interface, std::uint64_t timeNs, const void* data, std::uint32_t size,
                   std::uint32_t trueSize = 0);
    /// Counts packets that were lost before they reached this object.
    void addLost(std::uint32_t interface, std::uint64_t packets) { m_interfaces[interface].lost += packets; }
    /// What the card has counted for the interface up to now. Each file gets what was added in its own time.
    void setCard(std::uint32_t interface, const CardCounts& all) { m_interfaces[interface].card = all; }
    /// Writes all buffered packets: a reader then finds whole blocks.
    void flush();
    /// Ends a file whose time is over, also if no packet comes. Writes all buffered packets.
    void tick(std::uint64_t nowNs);
    /// Ends the file with its counts. What was lost after the time of the last file gets one more. Add nothing
    /// afterwards.
    void close(std::uint64_t nowNs);

    /// Totals of all files: packets written, and packets lost.
    std::uint64_t written() const { return m_written; }
    std::uint64_t lost() const;
    std::uint64_t lost(std::uint32_t interface) const {
        return m_interfaces[interface].lostBefore + m_interfaces[interface].lost;
    }
    unsigned files() const { return m_files; }

private:
    struct Known {
        InterfaceInfo info;
        std::uint64_t startNs;         // of this file's counts
        std::uint64_t received = 0;    // in this file, on disk
        std::uint64_t buffered = 0;    // in this file, in m_buffer
        std::uint64_t lost = 0;        // in the time of this file
        std::uint64_t lostBefore = 0;  // in the time of files that are closed
        std::optional<CardCounts> card = {};
        CardCounts cardBefore = {};  // what it was when this file began
    };

    bool isOpen() const { return m_fd >= 0; }
    void openNext();
    void endFile(std::uint64_t nowNs);
    bool hasUntoldCounts() const;
    bool isFileOurs() const;
    void leaveFile();
    std::string createFree();
    std::string createRecorded();
    std::string nameOf(unsigned number) const;
    bool wouldGrowTooBig(std::uint64_t bytes) const;
    bool isTimeOver(std::uint64_t timeNs) const;
    void startBuffer();
    void appendCounts(std::uint64_t nowNs);
    void countWritten();
    bool writeBuffer(bool needsRoom);
    bool writeAll(const unsigned char* data, std::size_t size);
    void cutUnwritten();
    void forgetFile();
    void reportOnce(bool& reported, const std::string& what);
    void loseBuffered();
    void reportLost();

    Settings m_settings;
    std::optional<RecorderFiles> m_recorder;
    std::vector<Known> m_interfaces;
    BlockBuffer m_buffer;
    int m_fd = -1;
    dev_t m_device = 0;  // of the open file, with its inode
    ino_t m_inode = 0;
    std::string m_name;               // of the open file
    std::uint64_t m_fileBytes = 0;    // whole blocks on disk
    std::uint64_t m_filePackets = 0;  // in the file, and in m_buffer
    std::uint64_t m_fileNs = 0;       // of its first packet
    std::uint64_t m_nowNs = 0;        // the last time that a caller gave
    bool m_waitsForPacket = false;    // no file is open, and none is wanted before the next packet
    std::size_t m_described = 0;      // interfaces that the file on disk has
    unsigned m_nextNumber = 0;        // of the next name to try
    unsigned m_files = 0;
    std::uint64_t m_written = 0;
    std::uint64_t m_lostUnreported = 0;  // in the present run of failures
    bool m_openFailureReported = false;
    bool m_writeFailureReported = false;
};

}  // namespace capture
