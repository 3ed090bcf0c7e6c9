#include "tools/relay/ArchiveStore.h"

#include <unistd.h>
#include <algorithm>
#include <exception>
#include <filesystem>
#include <utility>

namespace relay {
namespace {

constexpr unsigned kIndexBits = 24;              // blocks of a file; the number of the file is above
constexpr std::uint64_t kOldNs = 1'000'000'000;  // so long a block grows
constexpr std::uint64_t kFirstOrdinal = 1U << kIndexBits;

std::uint64_t ordinalOf(std::uint64_t file, std::uint64_t index) { return file << kIndexBits | index; }

// Whether a request goes on with this block.
bool wants(const wire::HistoryRequest& request, std::uint64_t ordinal, const BlockFacts& facts) {
    if (request.cursor == 0) return facts.lastNs >= request.timeNs;
    if (facts.packets == 0) return ordinal > request.cursor;
    return facts.epoch != request.epoch || facts.end > request.next;
}

bool isSame(const BlockFacts& a, const BlockFacts& b) {
    return a.epoch == b.epoch && a.first == b.first && a.end == b.end && a.packets == b.packets;
}

// @param last  of the block that the archive has before this one; null when there is none
std::optional<BlockFacts> before(const BlockFacts& facts, std::uint64_t ordinal, const BlockFacts* last) {
    if (last != nullptr && last->epoch == facts.epoch) return *last;
    const bool isFirst = last != nullptr || ordinal == kFirstOrdinal || facts.first == 0;
    return isFirst ? std::make_optional<BlockFacts>() : std::nullopt;
}

// Whether the counts say something that was not written yet.
bool isNews(const BlockFacts& now, const BlockFacts& written) {
    const wire::Counts& a = now.counts;
    const wire::Counts& b = written.counts;
    return now.end != written.end || a.lostByRing != b.lostByRing || a.fifoErrors != b.fifoErrors ||
           a.streamErrors != b.streamErrors || a.lostByRelay != b.lostByRelay || a.delivered != b.delivered ||
           now.lostByArchive != written.lostByArchive;
}

}  // namespace

ArchiveStore::ArchiveStore(const ArchiveSettings& settings, const vexo_sim::remote::Place& place,
                           const wire::Head& stream, Report report)
    : m_rotateEveryNs(settings.rotateEveryNs),
      m_files(settings, place, report),
      m_catalogue(settings.directory, place, report),
      m_report(std::move(report)),
      m_nextOrdinal(kFirstOrdinal),
      m_live(stream) {
    takeOver();
}

// ---- what earlier runs have left ----

// The catalogue may end before the file does, when its relay was killed. @return false when the two do not agree
bool ArchiveStore::complete(ArchiveCatalogue::File& known, const ArchiveFile& file) {
    if (known.blocks.empty()) return false;
    const ScannedFile::Block last = known.blocks.back();
    const ScannedFile rest = scan(file, last.place.offset);
    if (rest.blocks.empty() || rest.blocks[0].place.offset != last.place.offset ||
        rest.blocks[0].place.bytes != last.place.bytes || !isSame(rest.blocks[0].facts, last.facts))
        return false;
    known.blocks.insert(known.blocks.end(), rest.blocks.begin() + 1, rest.blocks.end());
    return true;
}

void ArchiveStore::takeOver() {
    std::vector<ArchiveCatalogue::File> known = m_catalogue.load();
    const std::map<std::uint64_t, std::string> paths = m_files.files();
    std::vector<ArchiveCatalogue::File> files;
    std::size_t again = 0;
    bool isNew = known.size() != paths.size();
    for (const auto& one : paths) {
        const std::uint64_t number = one.first;
        const std::string& path = one.second;
        const ArchiveFile file(path);
        const std::string name = std::filesystem::path(path).filename();
        const auto isIt = [&](const ArchiveCatalogue::File& each) {
            return each.number == number && each.path == name;
        };
        const auto found = std::find_if(known.begin(), known.end(), isIt);
        const std::size_t before = found != known.end() ? found->blocks.size() : 0;
        if (found != known.end() && complete(*found, file)) {
            files.push_back({number, path, std::move(found->blocks)});
        } else {
            files.push_back({number, path, scan(file).blocks});
            if (!files.back().blocks.empty()) ++again;
        }
        isNew = isNew || files.back().blocks.size() != before;
    }
    if (again > 0)
        m_report(std::to_string(again) + (again == 1 ? " file was" : " files were") +
                 " read again, because the catalogue did not describe what is there");
    for (const ArchiveCatalogue::File& file : files) {
        m_paths[file.number] = file.path;
        for (std::size_t n = 0; n < file.blocks.size(); ++n)
            m_entries.push_back({ordinalOf(file.number, n), file.number, file.blocks[n].place, file.blocks[n].facts});
    }
    if (!m_entries.empty()) m_nextOrdinal = m_entries.back().ordinal + 1;
    if (isNew || again > 0) m_catalogue.replace(files);
}

std::vector<ArchiveCatalogue::File> ArchiveStore::all() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<ArchiveCatalogue::File> files;
    for (const Entry& entry : m_entries) {
        const auto path = m_paths.find(entry.file);
        if (files.empty() || files.back().number != entry.file)
            files.push_back({entry.file, path != m_paths.end() ? path->second : "", {}});
        files.back().blocks.push_back({entry.place, entry.facts});
    }
    return files;
}

// ---- the writing thread ----

void ArchiveStore::add(const wire::Message& message, std::uint64_t lost, std::uint64_t nowNs) {
    const bool isPacket = message.head.packets > 0;
    if (isPacket && isOfAnotherHour(message.head.timeNs)) seal(nowNs);
    if (m_growing.isEmpty() && isPacket) m_begunNs = nowNs;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_growing.add(message);
        m_growing.setLostByArchive(lost + m_totals.lost);
        m_live = message.head;
        m_live.first += message.head.packets;
    }
    if (m_growing.isFull()) seal(nowNs);
}

// The files of different hours share no block.
bool ArchiveStore::isOfAnotherHour(std::uint64_t timeNs) const {
    const std::uint64_t every = m_rotateEveryNs;
    return every != 0 && !m_growing.isEmpty() && timeNs / every != m_growing.facts().firstNs / every;
}

void ArchiveStore::tick(std::uint64_t nowNs) {
    const bool isOld = nowNs - m_begunNs >= kOldNs;  // also when the clock was set back
    if ((isOld && (!m_growing.isEmpty() || hasNews())) || isOfAnotherHour(nowNs)) seal(nowNs);
    m_files.tick(nowNs);
}

bool ArchiveStore::hasNews() const { return m_growing.facts().epoch != 0 && isNews(m_growing.facts(), m_written); }

void ArchiveStore::close(std::uint64_t nowNs) {
    if (!m_growing.isEmpty() || hasNews()) seal(nowNs);
    m_files.close(nowNs);
    if (m_catalogue.isBehind()) m_catalogue.replace(all());
}

void ArchiveStore::seal(std::uint64_t nowNs) {
    Block block;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        block = m_sealed = std::make_shared<const ArchiveBlock>(std::move(m_growing));
        m_growing = ArchiveBlock();
    }
    m_begunNs = nowNs;
    std::optional<ArchiveFiles::Written> written;
    try {
        written = m_files.write(*block, nowNs);
    } catch (const std::exception& error) {
        m_report(std::string("a block cannot be written: ") + error.what());
    }
    if (written) return enter(*written, block->facts());
    m_totals.lost += block->facts().packets;
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_sealed.reset();
}

void ArchiveStore::enter(const ArchiveFiles::Written& written, const BlockFacts& facts) {
    const bool isNewFile = written.number != m_fileNumber;
    m_fileIndex = isNewFile ? 0 : m_fileIndex + 1;
    m_fileNumber = written.number;
    m_written = facts;
    m_totals.packets += facts.packets;
    m_totals.files = m_files.count();
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_entries.push_back({ordinalOf(written.number, m_fileIndex), written.number, written.place, facts});
        m_paths[written.number] = m_files.path();
        m_current = m_files.current();
        m_currentNumber = written.number;
        m_nextOrdinal = m_entries.back().ordinal + 1;
        m_sealed.reset();
    }
    m_catalogue.add(written.number, m_files.path(), m_fileIndex, {written.place, facts});
    if (!isNewFile) return;
    forgetRemoved();
    if (m_catalogue.isBehind()) m_catalogue.replace(all());
}

void ArchiveStore::forgetRemoved() {
    std::map<std::uint64_t, std::string> paths;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        paths = m_paths;
    }
    for (const auto& [number, path] : paths) {
        if (::access(path.c_str(), F_OK) == 0) continue;
        forget(number);
        m_catalogue.remove(number);
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_paths.erase(number);
    }
}

void ArchiveStore::forget(std::uint64_t file) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto isOfIt = [=](const Entry& entry) { return entry.file == file; };
    m_entries.erase(std::remove_if(m_entries.begin(), m_entries.end(), isOfIt), m_entries.end());
}

// ---- any thread ----

wire::Head ArchiveStore::live() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_live;
}

std::deque<ArchiveStore::Entry>::const_iterator ArchiveStore::entryFor(const wire::HistoryRequest& request) const {
    const auto isBefore = [](const Entry& entry, std::uint64_t ordinal) { return entry.ordinal < ordinal; };
    auto entry = std::lower_bound(m_entries.begin(), m_entries.end(), request.cursor, isBefore);
    while (entry != m_entries.end() && !wants(request, entry->ordinal, entry->facts)) ++entry;
    return entry;
}

// A block that is not in a file yet has no ordinal of its own. The next one will be as high, or higher; the packets'
// numbers say the rest.
std::optional<ArchiveStore::Found> ArchiveStore::unwrittenFor(const wire::HistoryRequest& request) const {
    const auto isWanted = [&](const BlockFacts& facts) {
        return facts.packets > 0 && wants(request, m_nextOrdinal, facts);
    };
    const BlockFacts* last = m_entries.empty() ? nullptr : &m_entries.back().facts;
    if (m_sealed != nullptr) {
        const BlockFacts& facts = m_sealed->facts();
        if (isWanted(facts)) return Found{m_nextOrdinal, m_sealed, before(facts, m_nextOrdinal, last)};
        last = &facts;
    }
    const BlockFacts& facts = m_growing.facts();
    if (!isWanted(facts)) return std::nullopt;
    return Found{m_nextOrdinal, std::make_shared<const ArchiveBlock>(m_growing), before(facts, m_nextOrdinal, last)};
}

std::optional<ArchiveStore::Found> ArchiveStore::find(const wire::HistoryRequest& request) {
    for (;;) {
        Entry entry;
        std::optional<BlockFacts> past;
        std::string path;
        std::shared_ptr<const ArchiveFile> file;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            const auto wanted = entryFor(request);
            if (wanted == m_entries.end()) return unwrittenFor(request);
            entry = *wanted;
            past = before(entry.facts, entry.ordinal, wanted != m_entries.begin() ? &wanted[-1].facts : nullptr);
            path = m_paths[entry.file];
            if (entry.file == m_currentNumber) file = m_current;
        }
        if (file == nullptr) file = std::make_shared<const ArchiveFile>(path);
        const auto block = readBlock(*file, entry.place);
        if (block && isSame(block->facts(), entry.facts))
            return Found{entry.ordinal, std::make_shared<const ArchiveBlock>(*block), past};
        giveUp(entry, path, file->fd() < 0);
    }
}

void ArchiveStore::giveUp(const Entry& entry, const std::string& path, bool isGone) {
    if (isGone) return forget(entry.file);
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto isIt = [&](const Entry& one) { return one.ordinal == entry.ordinal; };
    m_entries.erase(std::remove_if(m_entries.begin(), m_entries.end(), isIt), m_entries.end());
    if (std::exchange(m_isDamageTold, true)) return;
    m_report(path + " is damaged at byte " + std::to_string(entry.place.offset) +
             ": the packets of that block are left out, and those of other damaged blocks without a line");
}

}  // namespace relay
