#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "interface/CallList.h"

/// Fault points: the calls that the library makes and that can fail. Every call is counted while the points are armed;
/// each of them can be made to fail at its k-th time.
namespace sweep {

// Calls of the C library that src/ makes and that can fail: X(name, function).
#define SWEEP_HOST_CALLS(X)                       \
    X(Access, access)                             \
    X(ClockGettime, clock_gettime)                \
    X(Close, close)                               \
    X(Fclose, fclose)                             \
    X(Fcntl, fcntl)                               \
    X(Fdopen, fdopen)                             \
    X(Fgets, fgets)                               \
    X(Fstat, fstat)                               \
    X(Fstatfs, fstatfs)                           \
    X(Ftruncate, ftruncate)                       \
    X(Getpwuid, getpwuid)                         \
    X(Isatty, isatty)                             \
    X(Localtime, localtime)                       \
    X(LocaltimeR, localtime_r)                    \
    X(Lseek, lseek)                               \
    X(Mkdir, mkdir)                               \
    X(Open, open)                                 \
    X(Pclose, pclose)                             \
    X(Poll, poll)                                 \
    X(Popen, popen)                               \
    X(PthreadSetaffinity, pthread_setaffinity_np) \
    X(Read, read)                                 \
    X(SchedSetaffinity, sched_setaffinity)        \
    X(Send, send)                                 \
    X(Setvbuf, setvbuf)                           \
    X(Sigaction, sigaction)                       \
    X(Stat, stat)                                 \
    X(Write, write)

enum Call : std::size_t {
#define SWEEP_CALL(name, function) k##name,
    SWEEP_HOST_CALLS(SWEEP_CALL)
#undef SWEEP_CALL
        kAllocation,    // malloc and calloc, and so operator new
    kStandardOutput,    // the log's own system call: write to descriptor 1
    kFirstHardwareCall  // and from here on the calls of interface/CallList.h, in their order
};
constexpr std::size_t kCallCount = kFirstHardwareCall + hw_calls::kCallCount;

constexpr std::size_t HardwareCall(hw_calls::Call call) { return kFirstHardwareCall + static_cast<std::size_t>(call); }
const char* NameOf(std::size_t call);

enum class Group { kHost, kMemory, kStandardOutput, kHardware };
Group GroupOf(std::size_t call);

/// What becomes of one call.
enum class Effect {
    kPass,
    kFail,
    kInterrupted,  // fails with EINTR
    kHalf,         // does half of its work, rounded up
    kOneByte,
    kNothing,  // succeeds with a count of 0
};

/// A way in which a call fails. The call itself gets @p first, the next ones of the same kind get @p then: one of them,
/// or with @p forGood all.
struct FaultKind {
    const char* name;
    Effect first;
    Effect then;
    bool forGood;
};
const std::vector<FaultKind>& KindsOf(std::size_t call);

/// Asked by a call before it does its work.
Effect Ask(std::size_t call);
/// The same for calls that also others than the library make: those of others pass.
/// @param caller  where the call returns to
Effect AskOfLibrary(std::size_t call, const void* caller);

/// While it lives, calls are counted and can fail: for the time in which the library works.
class Armed {
public:
    Armed();
    ~Armed();
    Armed(const Armed&) = delete;
    Armed& operator=(const Armed&) = delete;
};

/// While it lives, nothing is counted: for the time in which somebody else than the library works.
class Disarmed {
public:
    Disarmed();
    ~Disarmed();
    Disarmed(const Disarmed&) = delete;
    Disarmed& operator=(const Disarmed&) = delete;

private:
    const bool m_was;
};

/// How often each call was made while the points were armed.
extern std::size_t g_counts[kCallCount];

/// Asked at each call of a run that explores. Returns what becomes of this one.
using OnCall = Effect (*)(std::size_t call, std::size_t number);
/// From now on each armed call is shown to @p onCall; null: calls are only counted.
void ShowTo(OnCall onCall);
/// From now on the calls of one kind fail, beginning behind the present one, which gets the first effect.
Effect Begin(std::size_t call, const FaultKind& kind);

/// Installs the filter that makes each write to descriptor 1 a fault point. Stays for the life of the process.
/// @return false where the system does not allow it
bool WatchStandardOutput();

}  // namespace sweep
