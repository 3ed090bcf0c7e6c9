// Loaded into a program by `vexo sim run` and `vexo remote run`: the program's day files, /tmp/.zce_*, lie in a private
// directory. So a start on a real card never loads indexes of a simulated one. The library's path of the day file is
// fixed, and the library reaches it through open() alone.
//
// Plain C without other libraries: it is loaded into programs of any kind, also into those that have no card.

// The checked variants of open() are inline functions of the same name.
#undef _FORTIFY_SOURCE
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <signal.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

static const char kDayFiles[] = "/tmp/.zce_";
static const char kDirectoryVariable[] = "VEXO_SIM_DAY_FILES";
static const char kCommandVariable[] = "VEXO_SIM_COMMAND";  // that the user typed
static const char kCardLibrary[] = "libenyx-hw-c.so.1";

enum { kPathSize = 4096 };

typedef int (*CardKey)(uint64_t* key);
typedef int (*OpenFunction)(const char* path, int flags, ...);

// The functions behind these. They are looked up when this library is loaded: a program may call open() in a handler of
// a signal or in its allocator, where nothing may be looked up.
static OpenFunction g_open;
static OpenFunction g_open64;
static bool g_isErrorClosed;

__attribute__((constructor(101))) static void lookAtLoad(void) {
    *(void**)&g_open = dlsym(RTLD_NEXT, "open");
    *(void**)&g_open64 = dlsym(RTLD_NEXT, "open64");
    // A descriptor 2 that was closed at the start may later be a file of the program.
    g_isErrorClosed = fcntl(STDERR_FILENO, F_GETFD) < 0;
}

// Which card the program has opened. The program may have been linked so that it got a real one in spite of
// `vexo sim run`: the map of a real card lies in the usual place.
static bool isReal(void* card) { return card != NULL && dlsym(card, "enyx_sim_is_simulated") == NULL; }

static uint64_t keyOf(void* card) {
    uint64_t key = 0;
    CardKey ask = NULL;
    if (card != NULL) *(void**)&ask = dlsym(card, "enyx_sim_card_key");
    if (ask != NULL && ask(&key) != 0) key = 0;
    return key;
}

static void tellOnce(const char* path) {
    static atomic_flag told = ATOMIC_FLAG_INIT;
    if (g_isErrorClosed || atomic_flag_test_and_set(&told)) return;
    // A pipe that nobody reads must not end the program.
    sigset_t pending, pipe, before;
    sigemptyset(&pending);
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    sigpending(&pending);
    pthread_sigmask(SIG_BLOCK, &pipe, &before);
    const char* const command = secure_getenv(kCommandVariable);
    fprintf(stderr, "%s: the day file of this simulated card is %s, not in /tmp (see --shared-day-file).\n",
            command != NULL ? command : "vexo sim run", path);
    const struct timespec atOnce = {0, 0};
    if (!sigismember(&pending, SIGPIPE)) sigtimedwait(&pipe, NULL, &atOnce);
    pthread_sigmask(SIG_SETMASK, &before, NULL);
}

static bool isDayFile(const char* path) { return path != NULL && strncmp(path, kDayFiles, sizeof kDayFiles - 1) == 0; }

// The path of a day file in the private directory, or the path itself where that is to be used. Only who writes a file
// there needs the directory of its card.
static const char* ownPath(const char* path, bool creates, char* room) {
    const char* directory = secure_getenv(kDirectoryVariable);
    if (directory == NULL || *directory == '\0') return path;
    void* card = dlopen(kCardLibrary, RTLD_LAZY | RTLD_NOLOAD);
    const bool shared = isReal(card);
    const uint64_t key = shared ? 0 : keyOf(card);
    if (card != NULL) dlclose(card);
    if (shared) return path;

    const int length = snprintf(room, kPathSize, "%s/card-%016" PRIx64, directory, key);
    // What does not fit leads nowhere: the library then goes on without a day file.
    if (length < 0 || length >= kPathSize) return "";
    if (creates) mkdir(room, 0700);  // if this fails, so does the open of a file in it
    const int rest = snprintf(room + length, (size_t)(kPathSize - length), "%s", path + sizeof "/tmp" - 1);
    if (rest < 0 || rest >= kPathSize - length) return "";
    if (creates || key != 0) tellOnce(room);  // a program without a card has no use for day files
    return room;
}

__attribute__((noinline)) static int openDayFile(OpenFunction next, const char* path, int flags, mode_t mode) {
    char room[kPathSize];
    const int before = errno;
    const char* own = ownPath(path, (flags & O_CREAT) != 0, room);
    errno = before;
    return next(own, flags, mode);
}

static mode_t modeOf(int flags, va_list arguments) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(arguments, mode_t) : 0;
}

// For the constructors of libraries that are loaded before this one.
static int openDirectly(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return (int)syscall(SYS_openat, AT_FDCWD, path, flags, mode);
}

#define OPEN(name, known)                                                                        \
    __attribute__((visibility("default"))) int name(const char* path, int flags, ...) {          \
        const OpenFunction next = known != NULL ? known : openDirectly;                          \
        va_list arguments;                                                                       \
        va_start(arguments, flags);                                                              \
        const mode_t mode = modeOf(flags, arguments);                                            \
        va_end(arguments);                                                                       \
        return isDayFile(path) ? openDayFile(next, path, flags, mode) : next(path, flags, mode); \
    }
OPEN(open, g_open)
OPEN(open64, g_open64)
