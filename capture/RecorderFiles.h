#pragma once

#include <sys/types.h>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "capture/Blocks.h"

namespace capture {

/// The files of a recorder that keeps its newest ones: FILE.00000001.20261122T073132Z.pcapng and so on. The numbers go
/// on where an earlier run stopped, so the names sort by age, whatever the clock did. The time is UTC. A compressed
/// file has its head in a stored frame (capture/StoredFrame.h), and its name ends in ".pcapng.zst".
///
/// The oldest files are removed when there are too many, or when space is short. A file is removed only if this
/// recorder has made it: its name stands inside the file, too (its mark), it is a regular file of this user with one
/// name, and nobody writes it. What was renamed, copied, linked, replaced or belongs to somebody else stays.
///
/// Several processes may record under one name: they share the number of files. For one thread at a time.
class RecorderFiles {
public:
    struct Limits {
        std::size_t keep = 0;             // files at most, with the one that is written
        std::uint64_t keepFreeBytes = 0;  // of the file system; 0 = no limit
    };
    using Report = std::function<void(const std::string&)>;
    /// The first bytes of a file; the mark is its section's comment.
    using MakeHead = std::function<BlockBuffer(const std::string& mark)>;

    struct Created {
        int fd = -1;       // for writing, and for reading what was written
        std::string name;  // its path
        std::uint64_t number = 0;
        std::uint64_t bytes = 0;  // of its head
        std::string problem;      // why there is none
    };

    struct Maker {
        std::string name = "vexo tap";  // stands in the mark
        bool compresses = false;        // the ending of a file's name consists of two: ".pcapng.zst"
    };

    /// @param path  what the user calls the recording: FILE.pcapng
    RecorderFiles(const std::string& path, Limits limits, Report report) : RecorderFiles(path, limits, report, {}) {}
    RecorderFiles(const std::string& path, Limits limits, Report report, Maker maker);

    /// Removes what is too old, and creates the next file with its head.
    Created create(std::uint64_t nowNs, const MakeHead& makeHead);
    /// The file that was created last is complete, and may be removed.
    void closed() { m_current.clear(); }

    /// Whether there is space for so many bytes more. Removes old files for it.
    bool hasRoom(std::uint64_t bytes, std::uint64_t nowNs);
    /// The paths of all files of this recorder, by their numbers.
    std::map<std::uint64_t, std::string> files();
    /// Why there is none: "only 3 MB are free ...".
    std::string whyNoRoom() const;

private:
    using Key = std::pair<std::uint64_t, std::string>;  // number and name
    using Files = std::map<Key, ino_t>;                 // oldest first
    enum class Found { kOwn, kForeign, kInUse, kGone, kUnclear };

    std::optional<std::uint64_t> numberIn(const std::string& name) const;
    std::string nameOf(std::uint64_t number, std::uint64_t nowNs) const;
    std::string markOf(const std::string& name) const;
    void look();
    void lookAt(int folder, const Key& key, ino_t inode, Files& own, Files& foreign);
    Found judge(int directory, const std::string& name) const;
    std::string prune();
    std::string removeOldest();
    Found remove(const std::string& name);
    int createWithHead(const std::string& name, const BlockBuffer& head) const;
    std::uint64_t freeBytes() const;
    void reportOnce(bool& reported, const std::string& what);
    void tellForeign(const std::string& name);

    std::string m_folder;
    std::string m_stem;    // of the names: "FILE."
    std::string m_ending;  // ".pcapng", ".pcapng.zst", or nothing
    Limits m_limits;
    Report m_report;
    std::string m_maker;
    Files m_own;      // the one that is written, too
    Files m_foreign;  // names like this recorder's that are none of its own
    std::uint64_t m_lastNumber = 0;
    std::string m_current;          // name of the file that is written
    std::uint64_t m_freeBytes = 0;  // when it was looked at last
    std::uint64_t m_uselessNs = 0;  // when a removal gave no space; 0 = it did
    bool m_foreignReported = false;
    bool m_folderReported = false;
    bool m_removalReported = false;
};

}  // namespace capture
