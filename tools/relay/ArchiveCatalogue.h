#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "sim/remote/Subjects.h"
#include "tools/relay/ArchiveFrames.h"

struct sqlite3;
struct sqlite3_stmt;

namespace relay {

/// What lies where in the files of an archive, for people and for the next run: catalogue.sqlite in its directory. The
/// files have all of it, too; so whatever is wrong with the catalogue, nothing is lost but the time to read them again.
/// Relays of several channels may share a directory. For one thread.
class ArchiveCatalogue {
public:
    static constexpr char kName[] = "catalogue.sqlite";
    using Report = std::function<void(const std::string&)>;

    /// A file of that name that is none of an archive is renamed, and a new one is made.
    ArchiveCatalogue(const std::string& directory, const vexo_sim::remote::Place& place, Report report);
    ~ArchiveCatalogue();
    ArchiveCatalogue(const ArchiveCatalogue&) = delete;
    ArchiveCatalogue& operator=(const ArchiveCatalogue&) = delete;

    struct File {
        std::uint64_t number = 0;
        std::string path;
        std::vector<ScannedFile::Block> blocks;
    };
    /// The files of this relay's channel, by their numbers. Not checked against the files themselves.
    std::vector<File> load();

    void add(std::uint64_t number, const std::string& path, std::size_t index, const ScannedFile::Block& block);
    void remove(std::uint64_t number);
    /// Replaces what is known of this channel.
    bool replace(const std::vector<File>& files);
    /// A change could not be written: replace() mends it.
    bool isBehind() const { return m_isBehind; }

private:
    struct Close {
        void operator()(sqlite3* database) const;
    };
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const;
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

    bool open();
    bool prepareOurs();
    bool makeOurs();
    bool isOurs();
    bool makeSchema();
    bool isDamaged() const;
    void putAside();
    bool read(std::vector<File>& files);
    bool run(const char* text);
    Statement prepare(const char* text);
    void bindPlace(sqlite3_stmt* statement) const;
    bool step(const Statement& statement);
    void insert(const Statement& statement, const File& file, std::size_t index, const ScannedFile::Block& block);
    void fail();

    const std::string m_path;
    const vexo_sim::remote::Place m_place;
    Report m_report;
    std::unique_ptr<sqlite3, Close> m_database;
    Statement m_insert;
    std::string m_problem;   // why it is not open
    bool m_isWrong = false;  // what has its name is something else
    bool m_isBehind = false;
};

}  // namespace relay
