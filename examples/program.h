// What the examples have in common: their command line, and the exit status of a start-up that fails.
#ifndef VEXO_EXAMPLES_PROGRAM_H
#define VEXO_EXAMPLES_PROGRAM_H

#include <VexoZceMdApi.h>
#include <VexoZceUtil.h>

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace example {

/// Says which word of the command line is wrong, and where the help is. Ends the program with status 2.
[[noreturn]] inline void wrongUsage(const char* word, const char* why) {
    const char* program = program_invocation_short_name;
    std::fprintf(stderr, "%s: %s: %s\nSee %s --help\n", program, word, why, program);
    std::exit(2);
}

/// Writes out what standard output still holds. @return @p status, or 1 when it did not take everything
inline int finish(int status, std::FILE* out = stdout) {
    errno = 0;
    if (std::fflush(out) == 0 && std::ferror(out) == 0) return status;
    const char* why = errno == EBADF ? "it is closed" : errno != 0 ? std::strerror(errno) : "not all was written";
    std::fprintf(stderr, "%s: standard output: %s\n", program_invocation_short_name, why);
    return 1;
}

inline void showVersion() { std::printf("%s %s\n", program_invocation_short_name, GetUpDmaLibVersion()); }

/// A configuration that the library could not read would end the process as any failed start does.
inline void requireFile(const char* path) {
    if (::access(path, R_OK) != 0) wrongUsage(path, std::strerror(errno));
}

/// The words of the command line. Ends the program for --help and --version with status 0, and with status 2 for any
/// other option and for fewer than @p least or more than @p most words.
inline std::vector<const char*> arguments(int argc, char** argv, const char* usage, std::size_t least,
                                          std::size_t most) {
    std::vector<const char*> words;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0) {
            std::fputs(usage, stdout);
            std::exit(finish(0));
        }
        if (std::strcmp(argv[i], "--version") == 0) {
            showVersion();
            std::exit(finish(0));
        }
        if (argv[i][0] == '-') wrongUsage(argv[i], "there is no such option");
        words.push_back(argv[i]);
    }
    if (words.size() < least) wrongUsage(least == 1 ? "INI" : "arguments", "missing");
    if (words.size() > most) wrongUsage(words[most], "there is no place for it");
    return words;
}

/// A whole number of the command line, from 0 to @p most. @param name  of the option or argument
inline unsigned long number(const char* name, const char* text, unsigned long most) {
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (*text >= '0' && *text <= '9' && *end == '\0' && errno == 0 && value <= most) return value;
    const std::string why = std::string(text) + " is not a whole number from 0 to " + std::to_string(most);
    wrongUsage(name, why.c_str());
}

/// A start-up that fails ends the process inside VexoStart or VexoRecvStart, with exit status 0: a script would take it
/// for a success. While an object of this class lives, the status is 1.
class FailedStart {
public:
    FailedStart() {
        static const bool registered = std::atexit(endWithOne) == 0;
        if (registered) ++s_starting;
    }
    ~FailedStart() { --s_starting; }
    FailedStart(const FailedStart&) = delete;
    FailedStart& operator=(const FailedStart&) = delete;

private:
    static void endWithOne() {
        if (s_starting <= 0) return;
        std::fflush(nullptr);
        std::_Exit(1);
    }
    inline static std::atomic<int> s_starting{0};
};

struct Destroy {
    void operator()(IVexoZceMdApi* api) const { IVexoZceMdApi::DestroyVexoZceMdApi(*api); }
};
/// Ends the API object with its scope: the stream is closed, and the log shows its counters.
using Api = std::unique_ptr<IVexoZceMdApi, Destroy>;

/// From one thread only: the first call also makes what all objects share.
inline Api createApi() { return Api(IVexoZceMdApi::CreateVexoZceMdApi()); }

}  // namespace example

#endif
