#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <vector>

namespace vexo {

/// Something in a day file that a master did not write, or that spoils it.
struct DayFileFinding {
    std::size_t line;  ///< counted from 1; 0: the whole file
    std::string text;
};

/// A day file as the library takes it.
struct DayFileReport {
    std::string path;
    std::size_t size = 0;
    std::string owner;
    std::time_t written = 0;
    std::string date;        ///< "2026-11-15" by the name of the file; empty for another name
    bool evening = false;    ///< the file of the half-day from 17:00
    bool isOfNow = false;    ///< the half-day has not ended
    std::string lookedFor;   ///< the file that a start at this moment looks for
    bool isCurrent = false;  ///< it is this very one
    bool complete = false;   ///< it has an end tag
    std::map<std::string, unsigned short> instruments;
    std::vector<DayFileFinding> findings;

    /// Whether the library loads such a file.
    bool isLoaded() const { return complete && !instruments.empty(); }
    std::size_t combinations() const;
};

/// What changed from one day file to another.
struct DayFileChanges {
    struct Move {
        std::string id;
        unsigned short from;
        unsigned short to;
    };
    std::map<std::string, unsigned short> added;
    std::map<std::string, unsigned short> removed;
    std::vector<Move> moved;

    bool any() const { return !added.empty() || !removed.empty() || !moved.empty(); }
};

/// The path that a master uses at this moment.
/// @param directory  of the day files
std::string currentDayFile(const std::string& directory = "/tmp");

/// Reads a day file by the library's own rules. Throws Failure when the library would not read it: with kFinding when
/// that says something of the file, with kUsage when the path is wrong, or when another kind of file was named.
/// @param lookedFor  the file that a start at this moment looks for
DayFileReport readDayFile(const std::string& path, const std::string& lookedFor = currentDayFile());

DayFileChanges changesBetween(const DayFileReport& before, const DayFileReport& after);

}  // namespace vexo
