#include "tests/unit/log/Interposed.h"

#include <dlfcn.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <utility>

namespace {

WriteHook::Answer g_answer;
std::atomic<bool> g_answers{false};
std::atomic<pid_t> g_pid{0};
std::atomic<pid_t> g_tid{0};
std::function<void()> g_onYield;
std::atomic<bool> g_yieldsAreTold{false};
std::atomic<int> g_errors[FailingCall::kCount]{};
std::atomic<int> g_timesLeft[FailingCall::kCount]{};

bool Fails(FailingCall::Name name) {
    if (g_errors[name].load() == 0 || g_timesLeft[name].fetch_sub(1) <= 0) return false;
    errno = g_errors[name].load();
    return true;
}

}  // namespace

extern "C" {

ssize_t write(int fd, const void* buf, std::size_t size) {
    return fd != STDOUT_FILENO && g_answers.load() ? g_answer(fd, buf, size) : WriteHook::Real(fd, buf, size);
}

pid_t getpid() noexcept {
    const pid_t fake = g_pid.load();
    return fake != 0 ? fake : static_cast<pid_t>(::syscall(SYS_getpid));
}

pid_t gettid() noexcept {
    const pid_t fake = g_tid.load();
    return fake != 0 ? fake : static_cast<pid_t>(::syscall(SYS_gettid));
}

ssize_t read(int fd, void* buf, std::size_t size) {
    return Fails(FailingCall::kRead) ? -1 : ::syscall(SYS_read, fd, buf, size);
}

int fstat(int fd, struct stat* status) noexcept {
    return Fails(FailingCall::kFstat) ? -1 : static_cast<int>(::syscall(SYS_fstat, fd, status));
}

int ftruncate(int fd, off_t size) noexcept {
    return Fails(FailingCall::kFtruncate) ? -1 : static_cast<int>(::syscall(SYS_ftruncate, fd, size));
}

int sched_yield() noexcept {
    if (g_yieldsAreTold.load()) g_onYield();
    return static_cast<int>(::syscall(SYS_sched_yield));
}

std::FILE* fdopen(int fd, const char* mode) noexcept {
    static const auto real = reinterpret_cast<std::FILE* (*)(int, const char*)>(::dlsym(RTLD_NEXT, "fdopen"));
    return Fails(FailingCall::kFdopen) ? nullptr : real(fd, mode);
}

}  // extern "C"

WriteHook::WriteHook(Answer answer) {
    g_answer = std::move(answer);
    g_answers.store(true);
}

WriteHook::~WriteHook() {
    g_answers.store(false);
    g_answer = nullptr;
}

ssize_t WriteHook::Real(int fd, const void* buf, std::size_t size) { return ::syscall(SYS_write, fd, buf, size); }

YieldHook::YieldHook(std::function<void()> callback) {
    g_onYield = std::move(callback);
    g_yieldsAreTold.store(true);
}

YieldHook::~YieldHook() {
    g_yieldsAreTold.store(false);
    g_onYield = nullptr;
}

FakeIds::FakeIds(pid_t pid, pid_t tid) {
    g_pid.store(pid);
    g_tid.store(tid);
}

FakeIds::~FakeIds() {
    g_pid.store(0);
    g_tid.store(0);
}

FailingCall::FailingCall(Name name, int error, int times) : m_name(name) {
    g_timesLeft[name].store(times);
    g_errors[name].store(error);
}

FailingCall::~FailingCall() { g_errors[m_name].store(0); }
