// A trading program in small: receives one channel through the library and writes a line of bytes per quote.
//
//     quote_recorder DIRECTORY INI FILE [START]
//
// Works in DIRECTORY, ends with SIGTERM. FILE is a row of QuoteRecords. So that a test need not wait, and meets no day
// file of another program, its clock begins on a morning of 2031, or START seconds after 1970, and its seconds of sleep
// pass quickly.

#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "tests/hosted/QuoteRecord.h"
#include "tests/support/MovedClock.h"
#include "tests/support/QuoteCallbacks.h"

namespace {

using moved_clock::g_offset;
using moved_clock::kMorning;
using moved_clock::RealTime;

class QuoteRecorder : public QuoteCallbacks {
public:
    explicit QuoteRecorder(std::FILE* file) : m_file(file) {}

private:
    int OnQuote(int type, const unsigned char* payload) override {
        const bool levelOne = type == 17 || type == 19;
        const std::size_t size = levelOne ? sizeof(enyx_sim::Level1Quote) : sizeof(enyx_sim::Level5Quote);
        const hosted::QuoteRecord record = hosted::MakeRecord(static_cast<std::uint32_t>(type), payload, size);
        return std::fwrite(&record, sizeof record, 1, m_file) == 1 ? 0 : -1;
    }

    std::FILE* m_file;
};

}  // namespace

int main(int argc, char** argv) {
    if ((argc != 4 && argc != 5) || chdir(argv[1]) != 0) return 2;
    g_offset = (argc == 5 ? std::strtol(argv[4], nullptr, 10) : kMorning) - RealTime();
    std::FILE* file = std::fopen(argv[3], "wb");
    if (file == nullptr) return 2;
    QuoteRecorder recorder(file);
    IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
    if (api->VexoStart(recorder, argv[2]) != 0) return 3;
    // Sixteen of these share a machine: who has nothing to do lets the others work.
    for (int result = 0; (result = api->VexoRecv()) != -1;)
        if (result == 0) sched_yield();
    IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    return std::fclose(file) == 0 ? 0 : 4;
}
