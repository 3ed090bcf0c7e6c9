#include "tools/relay/ArchiveCatalogue.h"

#include <sqlite3.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <thread>
#include <utility>

namespace relay {
namespace {

constexpr int kApplication = 0x56584131;  // "VXA1"
constexpr std::chrono::milliseconds kBusy{2000};
constexpr std::chrono::milliseconds kBusyRest{5};
constexpr unsigned kMostNames = 1000;

// One higher with each change of the views.
constexpr int kSchemaVersion = 1;
constexpr char kMode[] = "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL";
constexpr char kDropViews[] = "DROP VIEW IF EXISTS gaps; DROP VIEW IF EXISTS files; DROP VIEW IF EXISTS counted";

// One row a block. The views say the same of each file, and of each gap. What is missing in front of a block counts as
// well, unless blocks of its epoch were removed there: only the first file of all, or one behind another epoch, shows
// that there were none.
constexpr char kSchema[] = R"(
CREATE TABLE IF NOT EXISTS blocks (
    site TEXT NOT NULL, bus INTEGER NOT NULL, channel INTEGER NOT NULL,
    number INTEGER NOT NULL, file TEXT NOT NULL, place INTEGER NOT NULL,
    offset INTEGER NOT NULL, bytes INTEGER NOT NULL,
    epoch INTEGER NOT NULL, first INTEGER NOT NULL, "end" INTEGER NOT NULL, packets INTEGER NOT NULL,
    first_ns INTEGER NOT NULL, last_ns INTEGER NOT NULL,
    lost_ring INTEGER NOT NULL, fifo_errors INTEGER NOT NULL, stream_errors INTEGER NOT NULL,
    lost_relay INTEGER NOT NULL, lost_archive INTEGER NOT NULL, delivered INTEGER NOT NULL,
    mtu INTEGER NOT NULL, flags INTEGER NOT NULL,
    PRIMARY KEY (site, bus, channel, number, place)) WITHOUT ROWID;
CREATE VIEW IF NOT EXISTS counted AS SELECT *,
    max(first - coalesce(lag("end") OVER run, CASE WHEN begins THEN 0 ELSE first END), 0) AS before_it,
    "end" - first - packets AS inside,
    lost_relay - coalesce(lag(lost_relay) OVER run, CASE WHEN begins THEN 0 ELSE lost_relay END) AS by_relay,
    lost_archive - coalesce(lag(lost_archive) OVER run, CASE WHEN begins THEN 0 ELSE lost_archive END) AS by_archive
    FROM (SELECT *, number = 1 OR first = 0 OR lag(number) OVER written IS NOT NULL AS begins
        FROM blocks WINDOW written AS (PARTITION BY site, bus, channel ORDER BY number, place))
    WINDOW run AS (PARTITION BY site, bus, channel, epoch ORDER BY number, place);
CREATE VIEW IF NOT EXISTS files AS SELECT
    file, site, bus, channel, printf('%016x', epoch) AS epoch,
    strftime('%Y-%m-%d %H:%M:%f', min(first_ns) / 1e9, 'unixepoch', '+8 hours') AS begins,
    strftime('%Y-%m-%d %H:%M:%f', max(last_ns) / 1e9, 'unixepoch', '+8 hours') AS ends,
    min(first) AS first, max("end") - 1 AS last, sum(packets) AS packets,
    sum(before_it + inside) AS missing, max(offset + bytes) AS bytes,
    max(lost_ring) AS lost_ring, max(fifo_errors) AS fifo_errors, max(stream_errors) AS stream_errors,
    max(lost_relay) AS lost_relay, max(lost_archive) AS lost_archive, max(delivered) AS delivered
    FROM counted GROUP BY site, bus, channel, number;
CREATE VIEW IF NOT EXISTS gaps AS SELECT
    file, site, bus, channel, printf('%016x', epoch) AS epoch,
    strftime('%Y-%m-%d %H:%M:%f', first_ns / 1e9, 'unixepoch', '+8 hours') AS before,
    CASE WHEN inside > 0 THEN 'in block' ELSE 'before block' END AS place, first, before_it + inside AS missing,
    by_relay, by_archive FROM counted WHERE before_it + inside > 0;
)";
constexpr char kInsert[] =
    "INSERT OR REPLACE INTO blocks VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?15, ?16, "
    "?17, ?18, ?19, ?20, ?21, ?22)";
constexpr char kSelect[] =
    "SELECT number, file, place, offset, bytes, epoch, first, \"end\", packets, first_ns, last_ns, lost_ring, "
    "fifo_errors, stream_errors, lost_relay, lost_archive, delivered, mtu, flags FROM blocks WHERE site = ?1 AND "
    "bus = ?2 AND channel = ?3 ORDER BY number, place";
constexpr char kDeleteFile[] = "DELETE FROM blocks WHERE site = ?1 AND bus = ?2 AND channel = ?3 AND number = ?4";
constexpr char kDeleteAll[] = "DELETE FROM blocks WHERE site = ?1 AND bus = ?2 AND channel = ?3";

/// Takes the columns of a row one after the other.
class Row {
public:
    explicit Row(sqlite3_stmt* statement) : m_statement(statement) {}
    std::uint64_t number() { return static_cast<std::uint64_t>(sqlite3_column_int64(m_statement, m_column++)); }
    std::uint32_t word() { return static_cast<std::uint32_t>(number()); }
    std::string text() {
        const auto* const found = sqlite3_column_text(m_statement, m_column++);
        return found != nullptr ? reinterpret_cast<const char*>(found) : "";
    }

private:
    sqlite3_stmt* m_statement;
    int m_column = 0;
};

}  // namespace

void ArchiveCatalogue::Close::operator()(sqlite3* database) const { sqlite3_close_v2(database); }
void ArchiveCatalogue::Finalize::operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }

ArchiveCatalogue::ArchiveCatalogue(const std::string& directory, const vexo_sim::remote::Place& place, Report report)
    : m_path(directory + "/" + kName), m_place(place), m_report(std::move(report)) {
    if (open()) return;
    if (m_isWrong) putAside();
    if (!open()) fail();
}

ArchiveCatalogue::~ArchiveCatalogue() = default;

bool ArchiveCatalogue::open() {
    m_insert.reset();
    m_database.reset();
    sqlite3* database = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    const int status = sqlite3_open_v2(m_path.c_str(), &database, flags, nullptr);
    m_database.reset(database);
    if (status == SQLITE_OK && prepareOurs()) return true;
    m_problem = database != nullptr ? sqlite3_errmsg(database) : "it cannot be opened";
    m_database.reset();  // with the transaction that it may have begun
    return false;
}

bool ArchiveCatalogue::prepareOurs() {
    sqlite3_busy_timeout(m_database.get(), static_cast<int>(kBusy.count()));
    if (!makeOurs()) {
        m_isWrong = m_isWrong || isDamaged();
        return false;
    }
    m_insert = prepare(kInsert);
    m_isWrong = m_insert == nullptr;
    return !m_isWrong;
}

// The database waits for another relay that writes, but not where it changes to WAL: it reads there first, and of two
// that read and want to write none could.
bool ArchiveCatalogue::makeOurs() {
    const auto end = std::chrono::steady_clock::now() + kBusy;
    while (!isOurs() || !run(kMode) || !makeSchema()) {
        if (sqlite3_errcode(m_database.get()) != SQLITE_BUSY || std::chrono::steady_clock::now() >= end) return false;
        run("ROLLBACK");
        std::this_thread::sleep_for(kBusyRest);
    }
    return true;
}

// The views of an earlier version are made anew, and those of a later one stay. Another relay may do the same at this
// moment: nobody sees a catalogue in between. What is there already is not written again.
bool ArchiveCatalogue::makeSchema() {
    Statement version = prepare("PRAGMA user_version");
    if (version == nullptr || sqlite3_step(version.get()) != SQLITE_ROW) return false;
    const bool isEarlier = sqlite3_column_int(version.get(), 0) < kSchemaVersion;
    version.reset();
    if (!isEarlier) return run(kSchema);
    const std::string raise = "PRAGMA user_version = " + std::to_string(kSchemaVersion);
    return run("BEGIN IMMEDIATE") && run(kDropViews) && run(kSchema) && run(raise.c_str()) && run("COMMIT");
}

// Not when it is only busy, or cannot be written.
bool ArchiveCatalogue::isDamaged() const {
    const int error = sqlite3_errcode(m_database.get());
    return error == SQLITE_NOTADB || error == SQLITE_CORRUPT;
}

// A new one is empty. One of somebody else has another number, and must not be touched. Both are read at one moment,
// because another relay may just make it ours. The reading ends before the writing begins.
bool ArchiveCatalogue::isOurs() {
    Statement facts = prepare("SELECT application_id, (SELECT count(*) FROM sqlite_master) FROM pragma_application_id");
    if (facts == nullptr || sqlite3_step(facts.get()) != SQLITE_ROW) return false;
    const int found = sqlite3_column_int(facts.get(), 0);
    const bool isEmpty = sqlite3_column_int(facts.get(), 1) == 0;
    facts.reset();
    if (found == kApplication) return true;
    m_isWrong = found != 0 || !isEmpty;
    return !m_isWrong && run(("PRAGMA application_id = " + std::to_string(kApplication)).c_str());
}

void ArchiveCatalogue::putAside() {
    m_insert.reset();
    m_database.reset();
    std::error_code error;
    if (!std::filesystem::exists(std::filesystem::symlink_status(m_path, error))) return;
    for (unsigned n = 1; n < kMostNames; ++n) {
        const std::string name = m_path + ".aside" + std::to_string(n);
        if (::link(m_path.c_str(), name.c_str()) != 0 && errno == EEXIST) continue;
        if (::unlink(m_path.c_str()) != 0) return;
        for (const char* part : {"-wal", "-shm"}) std::filesystem::remove(m_path + part, error);
        m_report(m_path + " is no catalogue of an archive, or damaged: it is " + name +
                 " now, and a new one is made from the files");
        return;
    }
}

bool ArchiveCatalogue::run(const char* text) {
    return m_database != nullptr && sqlite3_exec(m_database.get(), text, nullptr, nullptr, nullptr) == SQLITE_OK;
}

ArchiveCatalogue::Statement ArchiveCatalogue::prepare(const char* text) {
    sqlite3_stmt* statement = nullptr;
    if (m_database != nullptr) sqlite3_prepare_v2(m_database.get(), text, -1, &statement, nullptr);
    return Statement(statement);
}

void ArchiveCatalogue::bindPlace(sqlite3_stmt* statement) const {
    sqlite3_bind_text(statement, 1, m_place.site.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_int64(statement, 2, m_place.bus);
    sqlite3_bind_int64(statement, 3, m_place.channel);
}

bool ArchiveCatalogue::step(const Statement& statement) {
    const bool isDone = statement != nullptr && sqlite3_step(statement.get()) == SQLITE_DONE;
    if (!isDone) fail();
    if (statement != nullptr) sqlite3_reset(statement.get());
    return isDone;
}

void ArchiveCatalogue::fail() {
    const std::string words = m_database != nullptr ? sqlite3_errmsg(m_database.get()) : m_problem;
    if (!m_isBehind) m_report(m_path + ": " + words + "; the archive goes on without it and tries again");
    m_isBehind = true;
}

std::vector<ArchiveCatalogue::File> ArchiveCatalogue::load() {
    std::vector<File> files;
    if (m_isBehind || read(files)) return files;
    if (isDamaged()) {  // behind its head
        putAside();
        if (open()) return {};
    }
    fail();
    return {};
}

bool ArchiveCatalogue::read(std::vector<File>& files) {
    const Statement rows = prepare(kSelect);
    if (rows == nullptr) return false;
    bindPlace(rows.get());
    int status = SQLITE_ROW;
    while ((status = sqlite3_step(rows.get())) == SQLITE_ROW) {
        Row row(rows.get());
        const std::uint64_t number = row.number();
        const std::string path = row.text();
        row.number();  // the place of the block, by which they are sorted
        if (files.empty() || files.back().number != number) files.push_back({number, path, {}});
        ScannedFile::Block block;
        block.place.offset = row.number();
        block.place.bytes = row.number();
        BlockFacts& facts = block.facts;
        facts.epoch = row.number();
        facts.first = row.number();
        facts.end = row.number();
        facts.packets = row.number();
        facts.firstNs = row.number();
        facts.lastNs = row.number();
        facts.counts.lostByRing = row.number();
        facts.counts.fifoErrors = row.number();
        facts.counts.streamErrors = row.number();
        facts.counts.lostByRelay = row.number();
        facts.lostByArchive = row.number();
        facts.counts.delivered = row.number();
        facts.mtu = row.word();
        facts.flags = row.word();
        files.back().blocks.push_back(block);
    }
    return status == SQLITE_DONE;
}

void ArchiveCatalogue::insert(const Statement& statement, const File& file, std::size_t index,
                              const ScannedFile::Block& block) {
    if (statement == nullptr) return;
    bindPlace(statement.get());
    const BlockFacts& facts = block.facts;
    const std::string name = std::filesystem::path(file.path).filename().string();
    sqlite3_bind_text(statement.get(), 5, name.c_str(), -1, SQLITE_TRANSIENT);
    const std::pair<int, std::uint64_t> numbers[] = {{4, file.number},
                                                     {6, index},
                                                     {7, block.place.offset},
                                                     {8, block.place.bytes},
                                                     {9, facts.epoch},
                                                     {10, facts.first},
                                                     {11, facts.end},
                                                     {12, facts.packets},
                                                     {13, facts.firstNs},
                                                     {14, facts.lastNs},
                                                     {15, facts.counts.lostByRing},
                                                     {16, facts.counts.fifoErrors},
                                                     {17, facts.counts.streamErrors},
                                                     {18, facts.counts.lostByRelay},
                                                     {19, facts.lostByArchive},
                                                     {20, facts.counts.delivered},
                                                     {21, facts.mtu},
                                                     {22, facts.flags}};
    for (const auto& [column, value] : numbers)
        sqlite3_bind_int64(statement.get(), column, static_cast<sqlite3_int64>(value));
}

void ArchiveCatalogue::add(std::uint64_t number, const std::string& path, std::size_t index,
                           const ScannedFile::Block& block) {
    if (m_isBehind) return;
    insert(m_insert, {number, path, {}}, index, block);
    step(m_insert);
}

void ArchiveCatalogue::remove(std::uint64_t number) {
    if (m_isBehind) return;
    const Statement statement = prepare(kDeleteFile);
    if (statement != nullptr) {
        bindPlace(statement.get());
        sqlite3_bind_int64(statement.get(), 4, static_cast<sqlite3_int64>(number));
    }
    step(statement);
}

bool ArchiveCatalogue::replace(const std::vector<File>& files) {
    if (m_database == nullptr && !open()) return false;
    const auto fillIn = [&] {
        const Statement statement = prepare(kDeleteAll);
        if (statement == nullptr) return false;
        bindPlace(statement.get());
        if (sqlite3_step(statement.get()) != SQLITE_DONE) return false;
        for (const File& file : files) {
            for (std::size_t n = 0; n < file.blocks.size(); ++n) {
                insert(m_insert, file, n, file.blocks[n]);
                const bool isDone = m_insert != nullptr && sqlite3_step(m_insert.get()) == SQLITE_DONE;
                if (m_insert != nullptr) sqlite3_reset(m_insert.get());
                if (!isDone) return false;
            }
        }
        return true;
    };
    const bool isDone = run("BEGIN IMMEDIATE") && fillIn() && run("COMMIT");
    if (!isDone) {
        fail();
        run("ROLLBACK");
        return false;
    }
    m_isBehind = false;
    return true;
}

}  // namespace relay
