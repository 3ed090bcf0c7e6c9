// Preloaded by tests that start whole programs: day files, /tmp/.zce_*, are looked for in the directory that
// VEXO_TEST_DAY_FILES names. So the tests neither see nor leave a contract map on the machine.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static const char kDayFiles[] = "/tmp/.zce_";

static const char* OwnPath(const char* path, char* room, size_t size) {
    const char* directory = getenv("VEXO_TEST_DAY_FILES");
    if (directory == NULL || path == NULL || strncmp(path, kDayFiles, strlen(kDayFiles)) != 0) return path;
    snprintf(room, size, "%s%s", directory, path + strlen("/tmp"));
    return room;
}

static mode_t ModeOf(int flags, va_list arguments) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

#define OPEN(name)                                                  \
    int name(const char* path, int flags, ...) {                    \
        char room[4096];                                            \
        va_list arguments;                                          \
        va_start(arguments, flags);                                 \
        const mode_t mode = ModeOf(flags, arguments);               \
        va_end(arguments);                                          \
        int (*next)(const char*, int, ...);                         \
        *(void**)&next = dlsym(RTLD_NEXT, #name);                   \
        return next(OwnPath(path, room, sizeof room), flags, mode); \
    }
OPEN(open)
OPEN(open64)

#define OPENAT(name)                                                           \
    int name(int directory, const char* path, int flags, ...) {                \
        char room[4096];                                                       \
        va_list arguments;                                                     \
        va_start(arguments, flags);                                            \
        const mode_t mode = ModeOf(flags, arguments);                          \
        va_end(arguments);                                                     \
        int (*next)(int, const char*, int, ...);                               \
        *(void**)&next = dlsym(RTLD_NEXT, #name);                              \
        return next(directory, OwnPath(path, room, sizeof room), flags, mode); \
    }
OPENAT(openat)
OPENAT(openat64)

#define STAT(name)                                             \
    int name(const char* path, struct stat* status) {          \
        char room[4096];                                       \
        int (*next)(const char*, struct stat*);                \
        *(void**)&next = dlsym(RTLD_NEXT, #name);              \
        return next(OwnPath(path, room, sizeof room), status); \
    }
STAT(stat)
STAT(lstat)

int unlink(const char* path) {
    char room[4096];
    int (*next)(const char*);
    *(void**)&next = dlsym(RTLD_NEXT, "unlink");
    return next(OwnPath(path, room, sizeof room));
}
