#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/doubles/FakeEnyxHw.h"

/// The inside of FakeEnyxHw: the handles it gave out and the course of one call.
namespace test_support::fake_hw {

enum class Kind { kFilter, kAcc, kAccDesc, kMmio, kMmioDesc, kTree, kRoot, kCore, kA2cDesc, kA2c, kC2aDesc, kC2a };
inline constexpr const char* kKindNames[] = {"filter", "acc",  "acc_descriptor", "mmio", "mmio_descriptor", "tree",
                                             "root",   "core", "a2c_descriptor", "a2c",  "c2a_descriptor",  "c2a"};
inline constexpr std::size_t kKinds = std::size(kKindNames);

inline bool IsReleasable(Kind kind) {
    return kind != Kind::kAcc && kind != Kind::kTree && kind != Kind::kRoot && kind != Kind::kCore;
}

struct Handle {
    explicit Handle(Kind k, std::uint32_t b = 0, std::string n = {}) : kind(k), bus(b), name(std::move(n)) {}
    /// What lives in a register space and dies with it.
    Handle(Kind k, const Handle& registerSpace) : kind(k), bus(registerSpace.bus), mmio(&registerSpace) {}

    Kind kind;
    std::string label;
    bool live = true;
    std::uint32_t bus;
    std::string name;                    // of a stream; of a filter, what it looks for
    std::optional<std::uint32_t> index;  // of a filter, what it looks for
    std::uint16_t hardwareId = 0;        // of a core
    const Handle* mmio = nullptr;
};

struct Script {
    std::string call;
    int error;
    unsigned skip;   // calls that still pass
    unsigned times;  // calls that fail after those
    bool met = false;
};

struct FixedAnswer {
    long result;
    bool filled;
    int error;
};

struct CoreLockState {
    bool held = false;
    std::thread::id owner = {};
};

struct State {
    FakeEnyxHw* fake = nullptr;
    std::mutex mutex;
    std::condition_variable unlocked;
    std::map<const void*, Handle> handles;  // never erased while the fake lives, so that a dead one is recognised
    std::vector<const void*> order;         // of their making
    unsigned made[kKinds] = {};
    std::map<std::pair<std::uint32_t, std::uint16_t>, CoreLockState> locks;  // by bus and hardware id
    std::vector<Script> scripts;
    std::map<std::string, FixedAnswer> answers;
    std::map<std::string, std::size_t> counts;
    std::vector<std::string> lines;
};

// Never destroyed: objects of the library may end after the statics of the test binary.
inline State& S() {
    static auto* state = new State;
    return *state;
}

// Handles are opaque, so they need no memory: a number that is never given out twice in the process.
inline const void* NextAddress() {
    static std::uintptr_t next = 0x5A0000000000;
    return reinterpret_cast<const void*>(next += 64);
}

inline const void* Make(Handle handle, const std::string& label = {}) {
    State& s = S();
    const auto kind = static_cast<std::size_t>(handle.kind);
    handle.label = label.empty() ? kKindNames[kind] + std::to_string(++s.made[kind]) : label;
    const void* address = NextAddress();
    s.handles.emplace(address, std::move(handle));
    s.order.push_back(address);
    return address;
}

template <typename T>
T* As(const void* address) {
    return static_cast<T*>(const_cast<void*>(address));
}

inline std::string Hex(std::uint64_t value) {
    std::ostringstream text;
    text << "0x" << std::hex << value;
    return text.str();
}

// One call of the interface, from its first line to its return: counts it, decides whether it fails, keeps its line.
class Call {
public:
    explicit Call(const char* name, bool isRegisterAccess = false) : m_lock(S().mutex), m_name(name) {
        State& s = S();
        if (s.fake == nullptr) {
            Misuse("called while there is no FakeEnyxHw");
            m_error = ENODEV;
            return;
        }
        m_recording = s.fake->record && (!isRegisterAccess || s.fake->recordRegisters);
        if (m_recording) m_line = name;
        ++s.counts[name];
        ApplyScripts();
        if (s.fake->onCall) Outside([&] { s.fake->onCall(name); });
    }
    ~Call() {
        if (!m_recording) return;
        if (!m_returned) m_line += " -> threw";
        S().lines.push_back(m_line);
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    Call& Arg(const std::string& text) {
        if (m_recording) m_line += ' ' + text;
        return *this;
    }
    Call& Arg(std::uint64_t value) { return Arg(std::to_string(value)); }

    // The handle behind an argument; null, after failing the test and the call, when it is not one to use.
    Handle* Use(const void* address, Kind kind) {
        const auto found = S().handles.find(address);
        if (found == S().handles.end() || found->second.kind != kind || !found->second.live) {
            const std::string what = address == nullptr           ? "null"
                                     : found == S().handles.end() ? "unknown"
                                     : !found->second.live        ? found->second.label + " (dead)"
                                                                  : found->second.label;
            Arg(what);
            Misuse("was given a handle that is " + what);
            m_error = EINVAL;
            return nullptr;
        }
        Arg(found->second.label);
        return &found->second;
    }

    void Misuse(const std::string& what) { ADD_FAILURE() << "enyx_hw_" << m_name << ' ' << what; }

    bool Fails() const { return m_error.has_value(); }
    void FailWith(int error) { m_error = error; }
    const FixedAnswer* Fixed() const {
        const auto found = S().answers.find(m_name);
        return found == S().answers.end() ? nullptr : &found->second;
    }

    // Runs a part of the test that may call the fake itself.
    template <typename Part>
    decltype(std::declval<Part&>()()) Outside(Part part) {
        struct Relock {
            std::unique_lock<std::mutex>& lock;
            ~Relock() { lock.lock(); }
        };
        m_lock.unlock();
        const Relock relock{m_lock};
        return part();
    }
    std::unique_lock<std::mutex>& Lock() { return m_lock; }

    int Failure(int result = -1) {
        Result(std::to_string(result) + " errno=" + std::to_string(*m_error));
        errno = *m_error;
        return result;
    }
    int FailureAsResult() { return Failure(*m_error); }
    std::nullptr_t Null() {
        Result("null errno=" + std::to_string(*m_error));
        errno = *m_error;
        return nullptr;
    }
    int Status(int result, const std::string& output = {}) {
        Result(std::to_string(result) + (output.empty() ? "" : ' ' + output));
        return result;
    }
    template <typename T>
    T* Object(const void* address) {
        Result(S().handles.at(address).label);
        return As<T>(address);
    }
    void Released(Handle* handle) {
        m_returned = true;
        if (handle != nullptr) handle->live = false;
        if (S().fake != nullptr && S().fake->errnoOfReleases != 0) errno = S().fake->errnoOfReleases;
    }
    // The answer fixed for this call, if there is one that replaces the work itself.
    bool IsAnswered() const { return Fixed() != nullptr && Fixed()->result < 0; }
    int Answered() {
        if (Fixed()->error != 0) m_error = Fixed()->error;
        if (m_error) return Failure(static_cast<int>(Fixed()->result));
        return Status(static_cast<int>(Fixed()->result));
    }
    int Done(const std::string& output = {}) {
        return Status(Fixed() != nullptr ? static_cast<int>(Fixed()->result) : 0, output);
    }

private:
    void ApplyScripts() {
        for (Script& script : S().scripts) {
            if (script.call != m_name) continue;
            if (script.skip > 0) {
                --script.skip;
            } else if (script.times > 0) {
                if (script.times != FakeEnyxHw::kForGood) --script.times;
                script.met = true;
                m_error = script.error;
            }
        }
    }
    void Result(const std::string& text) {
        m_returned = true;
        if (m_recording) m_line += " -> " + text;
    }

    std::unique_lock<std::mutex> m_lock;
    const char* m_name;
    std::string m_line;
    bool m_recording = false;
    bool m_returned = false;
    std::optional<int> m_error;
};

}  // namespace test_support::fake_hw
