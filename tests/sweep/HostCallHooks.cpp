// The calls of the C library that the library makes. A test program's own definitions come first for the loader. Calls
// of others, such as the simulated card's, always pass.

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <pwd.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "tests/sweep/FaultPoints.h"

namespace {

using sweep::Effect;

template <typename Function>
Function* Real(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

int Refuse(Effect effect, int error) {
    errno = effect == Effect::kInterrupted ? EINTR : error;
    return -1;
}

// How much of a transfer takes place.
std::size_t Part(Effect effect, std::size_t size) {
    if (effect == Effect::kOneByte) return size < 1 ? size : 1;
    return effect == Effect::kHalf ? (size + 1) / 2 : size;
}

bool IsRefused(Effect effect) { return effect == Effect::kFail || effect == Effect::kInterrupted; }

// The day file of the machine is everybody's. A run has one of its own, in its working directory.
const char* OwnPath(const char* path) {
    constexpr char kDayFile[] = "/tmp/.zce_";
    return std::strncmp(path, kDayFile, sizeof kDayFile - 1) == 0 ? path + sizeof "/tmp/" - 1 : path;
}

}  // namespace

// Stands in the hooked function itself: there the address is the caller's.
#define ASK(call) sweep::AskOfLibrary(sweep::call, __builtin_return_address(0))

extern "C" {

int access(const char* path, int mode) noexcept {
    if (ASK(kAccess) != Effect::kPass) return Refuse(Effect::kFail, EACCES);
    return static_cast<int>(::syscall(SYS_access, path, mode));
}

// As with the kernel, the descriptor is closed all the same.
int close(int fd) {
    const bool fails = ASK(kClose) != Effect::kPass;
    const auto result = static_cast<int>(::syscall(SYS_close, fd));
    return fails ? Refuse(Effect::kFail, EIO) : result;
}

int fclose(std::FILE* file) {
    const bool fails = ASK(kFclose) != Effect::kPass;
    const int result = Real<int(std::FILE*)>("fclose")(file);
    return fails ? Refuse(Effect::kFail, EIO) : result;
}

int fcntl(int fd, int command, ...) {
    std::va_list list;
    va_start(list, command);
    const long argument = va_arg(list, long);
    va_end(list);
    const bool isLock = command == F_SETLK || command == F_GETLK;
    if (ASK(kFcntl) != Effect::kPass) return Refuse(Effect::kFail, isLock ? ENOLCK : EMFILE);
    return static_cast<int>(::syscall(SYS_fcntl, fd, command, argument));
}

std::FILE* fdopen(int fd, const char* mode) noexcept {
    if (ASK(kFdopen) != Effect::kPass) return errno = ENOMEM, nullptr;
    return Real<std::FILE*(int, const char*)>("fdopen")(fd, mode);
}

char* fgets(char* line, int size, std::FILE* file) {
    if (ASK(kFgets) != Effect::kPass) return errno = EIO, nullptr;
    return Real<char*(char*, int, std::FILE*)>("fgets")(line, size, file);
}

int fstat(int fd, struct stat* status) noexcept {
    if (ASK(kFstat) != Effect::kPass) return Refuse(Effect::kFail, EIO);
    return static_cast<int>(::syscall(SYS_fstat, fd, status));
}

int fstatfs(int fd, struct statfs* status) noexcept {
    if (ASK(kFstatfs) != Effect::kPass) return Refuse(Effect::kFail, EIO);
    return static_cast<int>(::syscall(SYS_fstatfs, fd, status));
}

int ftruncate(int fd, off_t size) noexcept {
    if (ASK(kFtruncate) != Effect::kPass) return Refuse(Effect::kFail, EIO);
    return static_cast<int>(::syscall(SYS_ftruncate, fd, size));
}

// The C library's own search for a user ends the process when memory is short, whoever asks for it.
passwd* getpwuid(uid_t uid) {
    if (ASK(kGetpwuid) != Effect::kPass) return errno = EIO, nullptr;
    const sweep::Disarmed search;
    return Real<passwd*(uid_t)>("getpwuid")(uid);
}

int isatty(int fd) noexcept {
    if (ASK(kIsatty) != Effect::kPass) return errno = ENOTTY, 0;
    return Real<int(int)>("isatty")(fd);
}

off_t lseek(int fd, off_t offset, int whence) noexcept {
    if (ASK(kLseek) != Effect::kPass) return Refuse(Effect::kFail, EIO);
    return ::syscall(SYS_lseek, fd, offset, whence);
}

int mkdir(const char* path, mode_t mode) noexcept {
    if (ASK(kMkdir) != Effect::kPass) return Refuse(Effect::kFail, ENOSPC);
    return static_cast<int>(::syscall(SYS_mkdir, path, mode));
}

int open(const char* path, int flags, ...) {
    std::va_list list;
    va_start(list, flags);
    const auto mode = static_cast<mode_t>(va_arg(list, int));
    va_end(list);
    if (ASK(kOpen) != Effect::kPass) return Refuse(Effect::kFail, EMFILE);
    return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, OwnPath(path), flags, mode));
}

// No shell runs: a command of the library has the output that a host with one board has.
std::FILE* popen(const char*, const char*) {
    if (ASK(kPopen) != Effect::kPass) return errno = EMFILE, nullptr;
    const sweep::Disarmed pause;
    return ::fopen("board", "re");
}

int pclose(std::FILE* output) {
    const bool fails = ASK(kPclose) != Effect::kPass;
    const sweep::Disarmed pause;
    const int result = ::fclose(output);
    return fails ? Refuse(Effect::kFail, ECHILD) : result;
}

int poll(pollfd* fds, nfds_t count, int timeout) {
    if (ASK(kPoll) != Effect::kPass) return Refuse(Effect::kFail, EINTR);
    return static_cast<int>(::syscall(SYS_poll, fds, count, timeout));
}

int pthread_setaffinity_np(pthread_t, std::size_t, const cpu_set_t*) noexcept {
    return ASK(kPthreadSetaffinity) != Effect::kPass ? EINVAL : 0;
}

ssize_t read(int fd, void* buf, std::size_t size) {
    const Effect effect = ASK(kRead);
    if (IsRefused(effect)) return Refuse(effect, EIO);
    return ::syscall(SYS_read, fd, buf, Part(effect, size));
}

// Binds nothing: thousands of runs on one CPU would take the machine for themselves.
int sched_setaffinity(pid_t, std::size_t, const cpu_set_t*) noexcept {
    return ASK(kSchedSetaffinity) != Effect::kPass ? Refuse(Effect::kFail, EPERM) : 0;
}

ssize_t send(int fd, const void* buf, std::size_t size, int flags) {
    if (ASK(kSend) != Effect::kPass) return Refuse(Effect::kFail, EAGAIN);
    return ::syscall(SYS_sendto, fd, buf, size, flags, nullptr, 0);
}

int setvbuf(std::FILE* file, char* buf, int mode, std::size_t size) noexcept {
    if (ASK(kSetvbuf) != Effect::kPass) return Refuse(Effect::kFail, EINVAL);
    return Real<int(std::FILE*, char*, int, std::size_t)>("setvbuf")(file, buf, mode, size);
}

int sigaction(int signal, const struct sigaction* action, struct sigaction* old) noexcept {
    if (ASK(kSigaction) != Effect::kPass) return Refuse(Effect::kFail, EINVAL);
    return Real<int(int, const struct sigaction*, struct sigaction*)>("sigaction")(signal, action, old);
}

int stat(const char* path, struct stat* status) noexcept {
    if (ASK(kStat) != Effect::kPass) return Refuse(Effect::kFail, EACCES);
    return static_cast<int>(::syscall(SYS_stat, path, status));
}

ssize_t write(int fd, const void* buf, std::size_t size) {
    const Effect effect = ASK(kWrite);
    if (IsRefused(effect)) return Refuse(effect, ENOSPC);
    if (effect == Effect::kNothing) return 0;
    return ::syscall(SYS_write, fd, buf, Part(effect, size));
}

}  // extern "C"
