#include "tests/unit/capture/RecorderCalls.h"

#include <dlfcn.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>

namespace recorder_calls {

unsigned g_killAt = 0;
Moment g_moment = Moment::kBefore;
unsigned g_calls = 0;
int g_linkError = 0;
std::function<std::uint64_t()> g_freeBytes;

}  // namespace recorder_calls

using namespace recorder_calls;

namespace {

bool isLast() { return g_killAt != 0 && ++g_calls == g_killAt; }

void die() { ::kill(::getpid(), SIGKILL); }

template <typename Call>
long killedAround(Call call) {
    const bool last = isLast();
    if (last && g_moment != Moment::kAfter) die();
    const long result = call();
    if (last) die();
    return result;
}

}  // namespace

extern "C" ssize_t write(int fd, const void* bytes, std::size_t size) {
    const bool last = fd > STDERR_FILENO && isLast();
    if (last && g_moment == Moment::kBefore) die();
    if (last && g_moment == Moment::kHalf) size /= 2;
    const ssize_t done = ::syscall(SYS_write, fd, bytes, size);
    if (last) die();
    return done;
}

extern "C" int linkat(int from, const char* old, int to, const char* name, int flags) noexcept {
    if (g_linkError != 0) {
        errno = g_linkError;
        return -1;
    }
    return static_cast<int>(killedAround([&] { return ::syscall(SYS_linkat, from, old, to, name, flags); }));
}

extern "C" int unlinkat(int folder, const char* name, int flags) noexcept {
    return static_cast<int>(killedAround([&] { return ::syscall(SYS_unlinkat, folder, name, flags); }));
}

extern "C" int statvfs(const char* path, struct statvfs* state) noexcept {
    using Statvfs = int (*)(const char*, struct statvfs*);
    static const auto next = reinterpret_cast<Statvfs>(::dlsym(RTLD_NEXT, "statvfs"));
    const int result = next(path, state);
    if (result == 0 && g_freeBytes) state->f_bavail = g_freeBytes() / state->f_frsize;
    return result;
}
