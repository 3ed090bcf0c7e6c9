// What the examples have in common: their command line, and the exit status of a start-up that fails.
#ifndef VEXO_EXAMPLES_PROGRAM_H
#define VEXO_EXAMPLES_PROGRAM_H

#include <VexoZceMdApi.h>
#include <VexoZceUtil.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace example {

[[noreturn]] inline void wrongUsage(const char* usage) {
    std::fputs(usage, stderr);
    std::exit(2);
}

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
            std::printf("example of the library %s\n", GetUpDmaLibVersion());
            std::exit(0);
        }
        if (argv[i][0] == '-') wrongUsage(usage);
        words.push_back(argv[i]);
    }
    if (words.size() < least || words.size() > most) wrongUsage(usage);
    return words;
}

/// A whole number of the command line, from 0 to @p most.
inline unsigned long number(const char* text, unsigned long most, const char* usage) {
    char* end = nullptr;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (*text < '0' || *text > '9' || *end != '\0' || value > most) wrongUsage(usage);
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
