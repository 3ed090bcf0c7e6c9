#include "tests/sweep/FaultPoints.h"

#include <link.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "tests/support/FailingMemory.h"
#include "tests/support/FakeTime.h"

namespace sweep {

namespace {

constexpr FaultKind kOnce = {"once", Effect::kFail, Effect::kPass, false};
constexpr FaultKind kForGood = {"for good", Effect::kFail, Effect::kFail, true};
constexpr FaultKind kInterruptedOnce = {"interrupted", Effect::kInterrupted, Effect::kPass, false};
constexpr FaultKind kOneByteOnce = {"one byte", Effect::kOneByte, Effect::kPass, false};
constexpr FaultKind kOneByteAlways = {"one byte each", Effect::kOneByte, Effect::kOneByte, true};
constexpr FaultKind kHalfOnce = {"half", Effect::kHalf, Effect::kPass, false};
constexpr FaultKind kHalfThenFailure = {"half, then failure", Effect::kHalf, Effect::kFail, false};
constexpr FaultKind kHalfThenNothing = {"half, then failure for good", Effect::kHalf, Effect::kFail, true};
constexpr FaultKind kNothingOnce = {"nothing", Effect::kNothing, Effect::kPass, false};

bool g_armed = false;
OnCall g_onCall = nullptr;

struct Fault {
    std::size_t call = kCallCount;  // none
    FaultKind kind{};
    bool spent = false;
};
Fault g_fault;

struct Range {
    std::uintptr_t begin = 0, end = 0;
};

// Where the code of the library under test lies.
Range LibraryCode() {
    Range range;
    ::dl_iterate_phdr(
        [](dl_phdr_info* object, std::size_t, void* out) {
            if (std::strstr(object->dlpi_name, "libvexo_zce_md.so") == nullptr) return 0;
            for (int n = 0; n < object->dlpi_phnum; ++n) {
                const auto& segment = object->dlpi_phdr[n];
                if (segment.p_type != PT_LOAD || (segment.p_flags & PF_X) == 0) continue;
                auto& code = *static_cast<Range*>(out);
                code.begin = object->dlpi_addr + segment.p_vaddr;
                code.end = code.begin + segment.p_memsz;
            }
            return 1;
        },
        &range);
    return range;
}

// The support's own replacements ask here. They stand between the library and the C library.
bool FailsInMemory() { return Ask(kAllocation) != Effect::kPass; }
bool FailsInTime(const char* call, const void* caller) {
    if (std::strcmp(call, "localtime") == 0) return AskOfLibrary(kLocaltime, caller) != Effect::kPass;
    if (std::strcmp(call, "localtime_r") == 0) return AskOfLibrary(kLocaltimeR, caller) != Effect::kPass;
    return AskOfLibrary(kClockGettime, caller) != Effect::kPass;
}

struct Watch {
    Watch() {
        test_support::FailingMemory::AskFirst(&FailsInMemory);
        test_support::FakeTime::AskFirst(&FailsInTime);
    }
} g_watch;

bool IsEnumeration(hw_calls::Call call) {
    using hw_calls::Call;
    return call == Call::kEnumerateAccelerators || call == Call::kEnumerateMmios || call == Call::kCoreEnumerate ||
           call == Call::kEnumerateA2cStreams || call == Call::kEnumerateC2aStreams;
}

}  // namespace

std::size_t g_counts[kCallCount];

const char* NameOf(std::size_t call) {
    static const char* const kNames[] = {
#define SWEEP_CALL(name, function) #function,
        SWEEP_HOST_CALLS(SWEEP_CALL)
#undef SWEEP_CALL
            "allocation",
        "write to standard output"};
    return call < kFirstHardwareCall ? kNames[call] : hw_calls::kCalls[call - kFirstHardwareCall].function;
}

Group GroupOf(std::size_t call) {
    if (call == kAllocation) return Group::kMemory;
    if (call == kStandardOutput) return Group::kStandardOutput;
    return call >= kFirstHardwareCall ? Group::kHardware : Group::kHost;
}

const std::vector<FaultKind>& KindsOf(std::size_t call) {
    static const std::vector<FaultKind> none;
    static const std::vector<FaultKind> usual = {kOnce, kForGood};
    static const std::vector<FaultKind> read = {kOnce,        kForGood,       kInterruptedOnce,
                                                kOneByteOnce, kOneByteAlways, kHalfOnce};
    static const std::vector<FaultKind> write = {kOnce,          kForGood,  kInterruptedOnce, kOneByteOnce,
                                                 kOneByteAlways, kHalfOnce, kHalfThenFailure, kHalfThenNothing,
                                                 kNothingOnce};
    static const std::vector<FaultKind> enumerate = {kOnce, kForGood, kNothingOnce};
    if (call == kRead) return read;
    if (call == kWrite || call == kStandardOutput) return write;
    if (call < kFirstHardwareCall) return usual;
    const auto hardware = static_cast<hw_calls::Call>(call - kFirstHardwareCall);
    if (!hw_calls::canFail(hardware, false)) return none;
    return IsEnumeration(hardware) ? enumerate : usual;
}

Effect Ask(std::size_t call) {
    if (!g_armed) return Effect::kPass;
    const std::size_t number = ++g_counts[call];
    if (call == g_fault.call) {
        if (g_fault.spent) return Effect::kPass;
        g_fault.spent = !g_fault.kind.forGood;
        return g_fault.kind.then;
    }
    if (g_onCall == nullptr) return Effect::kPass;
    const Disarmed pause;
    const int saved = errno;
    const Effect effect = g_onCall(call, number);
    errno = saved;
    return effect;
}

Effect AskOfLibrary(std::size_t call, const void* caller) {
    if (!g_armed) return Effect::kPass;
    static const Range code = LibraryCode();
    const auto address = reinterpret_cast<std::uintptr_t>(caller);
    return address >= code.begin && address < code.end ? Ask(call) : Effect::kPass;
}

Armed::Armed() { g_armed = true; }
Armed::~Armed() { g_armed = false; }
Disarmed::Disarmed() : m_was(g_armed) { g_armed = false; }
Disarmed::~Disarmed() { g_armed = m_was; }

void ShowTo(OnCall onCall) { g_onCall = onCall; }

Effect Begin(std::size_t call, const FaultKind& kind) {
    g_onCall = nullptr;
    g_fault = {call, kind, false};
    return kind.first;
}

}  // namespace sweep
