#pragma once

#include <VexoZceMdStatsPage.h>
#include <sys/types.h>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/data/Losses.h"

/// Statistics pages, as a reader sees them. Whoever wrote a page may be hostile: nothing of it is believed unchecked.
namespace vexo::stat {

enum class Life {
    kRunning,
    kEnded,
    kDied,    // without an orderly end
    kUnseen,  // a process of another container, whose file system has no locks: it cannot be told
};

/// A copy of a page.
struct Page {
    std::string file;
    uid_t owner = 0;
    Life life = Life::kDied;
    vexo_stats::Process process{};
    std::vector<vexo_stats::Stream> streams;  // those in use
    std::vector<std::size_t> places;          // of each of them in the file: they may have no other name
    std::uint64_t readClock = 0;              // when it was read, on the page's clock

    double rate = 0;  // of the page's clock, in a second

    std::string program() const;  // as it stands there
    double seconds(std::uint64_t clock) const;
    /// The time that ends bucket @p b of a histogram: the same at each start of each program on this machine.
    double endOfBucket(std::size_t b) const;
    /// Seconds since 1970 of a moment on the page's clock.
    double timeOfDay(std::uint64_t clock) const;
};

/// Stream @p i of a page in an earlier look at the same page; null if it was not there.
const vexo_stats::Stream* sameStream(const Page& now, std::size_t i, const Page& before);

std::uint64_t packetsOf(const vexo_stats::Stream& stream);
std::uint64_t bytesOf(const vexo_stats::Stream& stream);
/// When its last packet came, on the page's clock; 0 without any.
std::uint64_t lastPacketOf(const vexo_stats::Stream& stream);
/// From its first packet to its last, without the time that it was closed.
std::uint64_t gapsOf(const vexo_stats::Stream& stream);
/// A process that records has no times of callbacks.
bool knowsCallbacks(const vexo_stats::Stream& stream);
data::Losses lossOf(const vexo_stats::Stream& stream);

/// What can be read, and one line for each file that cannot.
struct Found {
    std::vector<Page> pages;  // by file
    std::vector<std::string> faults;
};

/// @param directory  empty: $VEXO_STATS_DIR, or else the directories of all users
Found findPages(const std::string& directory);

/// The file of a page, kept open: it can still be read after its process has ended and removed it.
class OpenPage {
public:
    explicit OpenPage(std::string path);
    ~OpenPage();
    OpenPage(const OpenPage&) = delete;
    OpenPage& operator=(const OpenPage&) = delete;

    /// @return what is wrong with it; empty when @p page is filled
    std::string read(Page& page) const;

private:
    std::string m_path;
    std::string m_fault;
    int m_fd = -1;
};

/// The same, once.
std::string readPage(const std::string& path, Page& page);

}  // namespace vexo::stat
