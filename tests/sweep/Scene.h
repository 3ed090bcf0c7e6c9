#pragma once

#include <cstdint>
#include <string>

namespace sweep {

/// What an application does with the library, from the start of the process to its end.
enum class Scene {
    kFresh,    ///< learns the map, passes midnight, gets 1,000 packets, is stopped by a signal
    kRestart,  ///< loads the day file, gets 1,000 packets
    kReset,    ///< as kFresh, on a card of yesterday, which is reset and cleared first
};
const char* NameOf(Scene scene);

enum class Phase : std::uint32_t { kCreate, kStart, kReceive, kDestroy, kDone };

/// What a run leaves in the file "report", also when the library ends the process.
struct Report {
    Phase phase = Phase::kCreate;  // how far it came
    bool created = false;
    bool started = false;
    bool stopped = false;              // the signal was sent
    bool struckWhileStopping = false;  // the fault began after that
    int startResult = 1;               // of VexoStart; 1: it did not return
    std::uint32_t thrown = 0;          // exceptions for want of memory that reached the application
    std::uint64_t quotes = 0;          // that reached the application
    std::uint64_t outOfTurn = 0;       // of these, not the one after the last, or with another content
    std::uint64_t forgotten = 0;  // descriptors that were open at the end and not at the beginning, but for the log
    std::uint64_t lowTaken = 0;   // standard streams that were found changed
    std::uint64_t handles = 0;    // of the card that the process still has, but for those that the library keeps
    std::uint64_t misuses = 0;    // calls with a handle that is none
    std::uint32_t wrongRows = 0;  // instruments of the map that the card does not send, or sends wrongly
};

constexpr std::uint64_t kQuotes = 1000;

/// What the day file of a scene holds in the end.
std::string CompleteDayFile();
/// The name of the file in the working directory, where a run has its day file.
std::string DayFileOf(Scene scene);

/// Called at the end of Play, if set, before the process ends.
extern void (*g_atEnd)();

/// From now on the standard streams have to stay what they are at this moment.
void NoteStandardStreams();

/// A fault begins at this moment.
void NoteFault();

/// Puts what the scene needs into the working directory.
void Prepare(Scene scene);

/// Plays the scene in this process, whose standard streams in @p closed (bit n: descriptor n) are closed first. The
/// others go to the files "out" and "err". Leaves a report. Ends the process.
[[noreturn]] void Play(Scene scene, unsigned int closed);

}  // namespace sweep
