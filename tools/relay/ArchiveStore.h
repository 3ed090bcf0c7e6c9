#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tools/relay/ArchiveCatalogue.h"
#include "tools/relay/ArchiveFiles.h"

namespace relay {

/// All blocks of an archive in their order: those in files, the one that is being written, and the one that still
/// grows. One thread puts packets in; another one reads. Neither waits for the other's work on files.
///
/// Blocks have ordinals that grow, also from one run of the relay to the next.
class ArchiveStore {
public:
    using Report = std::function<void(const std::string&)>;
    using Block = std::shared_ptr<const ArchiveBlock>;

    /// Finds what earlier runs have left. @param stream  the head of a message of this run's stream
    ArchiveStore(const ArchiveSettings& settings, const vexo_sim::remote::Place& place, const wire::Head& stream,
                 Report report);

    // ---- the writing thread ----
    /// @param lost  packets since the epoch began that never came here
    void add(const wire::Message& message, std::uint64_t lost, std::uint64_t nowNs);
    /// Writes a block that is old enough.
    void tick(std::uint64_t nowNs);
    void close(std::uint64_t nowNs);

    struct Totals {
        std::uint64_t packets = 0;  // that were written
        std::uint64_t lost = 0;     // that could not be written
        unsigned files = 0;
    };
    const Totals& totals() const { return m_totals; }

    // ---- any thread ----
    struct Found {
        std::uint64_t ordinal = 0;
        Block block;
        /// What came before it in its epoch: nothing at all when the epoch begins with it. Not known when that was
        /// removed.
        std::optional<BlockFacts> before;
    };
    /// The block that a request goes on with: it has packets that the request wants, or counts that are new.
    std::optional<Found> find(const wire::HistoryRequest& request);
    /// Where the stream is: its epoch, and in `first` the number that comes next.
    wire::Head live() const;

private:
    struct Entry {
        std::uint64_t ordinal;
        std::uint64_t file;
        FramePlace place;
        BlockFacts facts;
    };

    static bool complete(ArchiveCatalogue::File& known, const ArchiveFile& file);
    void takeOver();
    bool hasNews() const;
    bool isOfAnotherHour(std::uint64_t timeNs) const;
    void seal(std::uint64_t nowNs);
    void enter(const ArchiveFiles::Written& written, const BlockFacts& facts);
    void forgetRemoved();
    void forget(std::uint64_t file);
    std::vector<ArchiveCatalogue::File> all() const;
    std::deque<Entry>::const_iterator entryFor(const wire::HistoryRequest& request) const;
    std::optional<Found> unwrittenFor(const wire::HistoryRequest& request) const;
    void giveUp(const Entry& entry, const std::string& path, bool isGone);

    // The writing thread's.
    const std::uint64_t m_rotateEveryNs;
    ArchiveFiles m_files;
    ArchiveCatalogue m_catalogue;
    Report m_report;
    Totals m_totals;
    BlockFacts m_written;         // of the block that was written last
    std::uint64_t m_begunNs = 0;  // when the block that grows began
    std::uint64_t m_fileNumber = 0;
    std::uint64_t m_fileIndex = 0;  // of the last block in that file

    mutable std::mutex
        m_mutex;  // guards what follows, which the writing thread alone changes but for forgotten entries
    std::deque<Entry> m_entries;
    std::map<std::uint64_t, std::string> m_paths;
    std::shared_ptr<const ArchiveFile> m_current;
    std::uint64_t m_currentNumber = 0;
    Block m_sealed;  // on its way into the file
    ArchiveBlock m_growing;
    std::uint64_t m_nextOrdinal = 0;
    wire::Head m_live;
    bool m_isDamageTold = false;
};

}  // namespace relay
