// Preloaded by tests: the clocks, as this process sees them, are wrong by as many nanoseconds as the file that
// VEXO_TEST_CLOCK names says: first the host's clock, then the steady one. A test writes there while the process runs.
// The clock then jumps, and so do the waits that end at a time of the host's clock.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static const int64_t kSecond = 1000000000;
enum { kHost, kSteady, kClocks };
static const volatile int64_t* s_offsets;

__attribute__((constructor)) static void FindOffset(void) {
    const char* const path = getenv("VEXO_TEST_CLOCK");
    const int file = path != NULL ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (file < 0) return;
    void* const memory = mmap(NULL, kClocks * sizeof(int64_t), PROT_READ, MAP_SHARED, file, 0);
    close(file);
    if (memory != MAP_FAILED) s_offsets = memory;
}

static int64_t NowOf(clockid_t clock) {
    struct timespec real;
    syscall(SYS_clock_gettime, clock, &real);
    const int which = clock == CLOCK_MONOTONIC ? kSteady : kHost;
    return real.tv_sec * kSecond + real.tv_nsec + (s_offsets != NULL ? s_offsets[which] : 0);
}

static struct timespec Split(int64_t ns) {
    const struct timespec split = {ns / kSecond, ns % kSecond};
    return split;
}

int clock_gettime(clockid_t clock, struct timespec* out) {
    if (clock != CLOCK_REALTIME && clock != CLOCK_REALTIME_COARSE && clock != CLOCK_MONOTONIC)
        return (int)syscall(SYS_clock_gettime, clock, out);
    *out = Split(NowOf(clock));
    return 0;
}

time_t time(time_t* out) {
    const time_t now = (time_t)(NowOf(CLOCK_REALTIME) / kSecond);
    if (out != NULL) *out = now;
    return now;
}

int gettimeofday(struct timeval* restrict out, void* restrict zone) {
    (void)zone;
    const struct timespec now = Split(NowOf(CLOCK_REALTIME));
    out->tv_sec = now.tv_sec;
    out->tv_usec = now.tv_nsec / 1000;
    return 0;
}

// A wait whose end is a time of the host's clock, in short pieces, since the clock may jump meanwhile. A condition that
// uses another clock has ends that are decades away from it.
int pthread_cond_timedwait(pthread_cond_t* restrict condition, pthread_mutex_t* restrict mutex,
                           const struct timespec* restrict end) {
    static int (*s_next)(pthread_cond_t*, pthread_mutex_t*, const struct timespec*);
    if (s_next == NULL) *(void**)&s_next = dlsym(RTLD_NEXT, "pthread_cond_timedwait");
    static const time_t kDecade = 10L * 365 * 86400;
    struct timespec real;
    syscall(SYS_clock_gettime, CLOCK_REALTIME, &real);
    if (labs(end->tv_sec - real.tv_sec) > kDecade) return s_next(condition, mutex, end);
    const int64_t endNs = end->tv_sec * kSecond + end->tv_nsec;
    static const int64_t kPiece = 5000000;
    int result = ETIMEDOUT;
    while (result == ETIMEDOUT && NowOf(CLOCK_REALTIME) < endNs) {
        syscall(SYS_clock_gettime, CLOCK_REALTIME, &real);
        const struct timespec piece = Split(real.tv_sec * kSecond + real.tv_nsec + kPiece);
        result = s_next(condition, mutex, &piece);
    }
    return result;
}
