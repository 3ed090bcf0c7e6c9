// What the examples have in common: their command line, and the exit status of a start-up that fails.
#ifndef VEXO_EXAMPLES_PROGRAM_H
#define VEXO_EXAMPLES_PROGRAM_H

#include <VexoZceMdApi.h>
#include <VexoZceUtil.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace example {

/// Says which word of the command line is wrong, and where the help is. Ends the program with status 2.
[[noreturn]] inline void wrongUsage(const char* word, const char* why) {
    const char* program = program_invocation_short_name;
    std::fprintf(stderr, "%s: %s: %s\nSee %s --help\n", program, word, why, program);
    std::exit(2);
}

inline void showVersion() { std::printf("%s %s\n", program_invocation_short_name, GetUpDmaLibVersion()); }

/// The words of the command line. Ends the program for --help and --version with status 0, and with status 2 for any
/// other option and for fewer than @p least or more than @p most words.
inline std::vector<const char*> arguments(int argc, char** argv, const char* usage, std::size_t least,
                                          std::size_t most) {
    std::vector<const char*> words;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0) {
            std::fputs(usage, stdout);
            std::exit(0);
        }
        if (std::strcmp(argv[i], "--version") == 0) {
            showVersion();
            std::exit(0);
        }
        if (argv[i][0] == '-') wrongUsage(argv[i], "there is no such option");
        words.push_back(argv[i]);
    }
    if (words.size() < least) wrongUsage(least == 1 ? "INI" : "arguments", "missing");
    if (words.size() > most) wrongUsage(words[most], "there is no place for it");
    return words;
}

/// A whole number of the command line, from 0 to @p most.
inline unsigned long number(const char* text, unsigned long most) {
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (*text < '0' || *text > '9' || *end != '\0' || errno != 0 || value > most)
        wrongUsage(text, "this is no number, or it is too large");
    return value;
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
