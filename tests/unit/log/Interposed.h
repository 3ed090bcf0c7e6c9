#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <limits>

/// Calls of the C library that the code under test makes and that a test answers itself. Without an object of the
/// classes below they reach the system.

/// Answers every `write` while it lives, but for those to standard output, which the log makes without the C library.
/// The answer may come from any thread and from a signal handler.
class WriteHook {
public:
    using Answer = std::function<ssize_t(int fd, const void* buf, std::size_t size)>;

    explicit WriteHook(Answer answer);
    ~WriteHook();
    WriteHook(const WriteHook&) = delete;
    WriteHook& operator=(const WriteHook&) = delete;

    static ssize_t Real(int fd, const void* buf, std::size_t size);
};

/// Tells of every `sched_yield` while it lives, from whatever thread.
class YieldHook {
public:
    explicit YieldHook(std::function<void()> callback);
    ~YieldHook();
    YieldHook(const YieldHook&) = delete;
    YieldHook& operator=(const YieldHook&) = delete;
};

/// The process and its threads have these ids while it lives.
class FakeIds {
public:
    FakeIds(pid_t pid, pid_t tid);
    ~FakeIds();
    FakeIds(const FakeIds&) = delete;
    FakeIds& operator=(const FakeIds&) = delete;
};

/// A call fails with an errno while this lives, or for the first so many times.
class FailingCall {
public:
    enum Name { kFdopen, kFstat, kFtruncate, kRead, kCount };

    FailingCall(Name name, int error, int times = std::numeric_limits<int>::max());
    ~FailingCall();
    FailingCall(const FailingCall&) = delete;
    FailingCall& operator=(const FailingCall&) = delete;

private:
    const Name m_name;
};
