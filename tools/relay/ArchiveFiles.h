#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "capture/RecorderFiles.h"
#include "sim/remote/Subjects.h"
#include "tools/relay/ArchiveBlock.h"
#include "tools/relay/ArchiveFrames.h"
#include "tools/relay/ArchiveSettings.h"

namespace relay {

/// Writes blocks into the files of an archive: a recorder's files, by the rules of capture::RecorderFiles, each frame
/// of a file compressed by itself. What cannot be written is left out as a whole, so that every file consists of whole
/// frames. For one thread.
class ArchiveFiles {
public:
    using Report = std::function<void(const std::string&)>;

    ArchiveFiles(const ArchiveSettings& settings, const vexo_sim::remote::Place& place, Report report);
    ~ArchiveFiles();
    ArchiveFiles(const ArchiveFiles&) = delete;
    ArchiveFiles& operator=(const ArchiveFiles&) = delete;

    /// The paths of all files, by their numbers.
    std::map<std::uint64_t, std::string> files() { return m_recorder.files(); }

    struct Written {
        std::uint64_t number = 0;  // of the file
        FramePlace place;
    };
    /// @return nothing when the block is lost
    std::optional<Written> write(const ArchiveBlock& block, std::uint64_t nowNs);
    /// Ends a file whose time is over.
    void tick(std::uint64_t nowNs);
    void close(std::uint64_t nowNs);

    /// The file that is being written, to read from; null between two. It must not be opened by its name: closing it
    /// would end its lock.
    std::shared_ptr<const ArchiveFile> current() const { return m_file; }
    const std::string& path() const { return m_path; }
    unsigned count() const { return m_count; }

private:
    bool isTimeOver(std::uint64_t timeNs) const;
    bool open(std::uint64_t nowNs, const BlockFacts& facts);
    bool append(const capture::BlockBuffer& bytes);
    capture::InterfaceCounts counts(std::uint64_t nowNs) const;
    void tellFailure(const std::string& what);

    const ArchiveSettings m_settings;
    const std::string m_interface;  // its name
    Report m_report;
    capture::RecorderFiles m_recorder;
    std::shared_ptr<const ArchiveFile> m_file;
    std::string m_path;
    std::uint64_t m_number = 0;
    std::uint64_t m_bytes = 0;  // of whole frames
    BlockFacts m_before;        // what the last statistics of this run ended with; its epoch begins with the run
    BlockFacts m_first;         // of the first block of the file
    BlockFacts m_last;
    std::uint64_t m_packets = 0;  // in the file
    std::uint64_t m_untold = 0;   // in earlier files, since the last statistics
    std::uint64_t m_lost = 0;     // since the last line about it
    bool m_isFailureTold = false;
    unsigned m_count = 0;
};

}  // namespace relay
