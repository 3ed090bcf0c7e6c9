// An application that knows nothing of a supervisor: starts the library, then does what its second argument says.
//
//     run_app INI poll|three|end|hang|deaf|status|abort|signals|become PROGRAM...
//
// While the working directory has a file "hold", it waits before it starts the library, and says so by a file
// "holding". A file "up" says that the library has started.
#include <VexoZceMdApi.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

class NoQuotes : public IVexoZceMdSpi {
    int OnUpSubsResult17(const unsigned char*) override { return 0; }
    int OnUpSubsResult18(const unsigned char*) override { return 0; }
    int OnUpSubsResult19(const unsigned char*) override { return 0; }
    int OnUpSubsResult20(const unsigned char*) override { return 0; }
};

volatile std::sig_atomic_t g_signals = 0;

void Count(int) { g_signals = g_signals + 1; }

void ShortPause() { ::usleep(5000); }

bool IsThere(const char* file) { return ::access(file, F_OK) == 0; }

void Hold() {
    if (IsThere("hold")) std::ofstream("holding") << ::getpid();
    while (IsThere("hold")) ShortPause();
}

// Ends at the second signal, and says when the first one is here.
int AwaitTwoSignals() {
    std::signal(SIGTERM, Count);
    std::ofstream("up") << ::getpid();
    while (g_signals == 0) ShortPause();
    std::ofstream("first") << "signal";
    while (g_signals < 2) ShortPause();
    return 0;
}

int Do(IVexoZceMdApi& api, const std::string& what, char** program) {
    if (what == "signals") return AwaitTwoSignals();
    if (what == "become") ::execv(program[0], program);
    if (what == "deaf") std::signal(SIGTERM, SIG_IGN);
    std::ofstream("up") << ::getpid();
    if (what == "status") return 7;
    if (what == "abort") std::abort();
    while (what == "poll" && api.VexoRecv() != -1) ShortPause();
    while (what == "hang" || what == "deaf") ::pause();
    for (int polls = 0; what == "three" && polls < 3; ++polls) api.VexoRecv();
    IVexoZceMdApi::DestroyVexoZceMdApi(api);
    return 0;
}

}  // namespace

// Also for a program that loads this as a plug-in.
extern "C" int runApp(int argc, char** argv) {
    if (argc < 3) return 2;
    Hold();
    NoQuotes quotes;
    IVexoZceMdApi* const api = IVexoZceMdApi::CreateVexoZceMdApi();
    if (api->VexoStart(quotes, argv[1]) != 0) return 1;
    return Do(*api, argv[2], argv + 3);
}

#ifndef VEXO_PLUGIN
int main(int argc, char** argv) { return runApp(argc, argv); }
#endif
