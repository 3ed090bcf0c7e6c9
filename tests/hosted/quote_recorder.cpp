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
#include "tests/support/QuoteCallbacks.h"

namespace {

constexpr std::time_t kMorning = 1933374600;  // 2031-04-08 08:30:00 in Shanghai
std::time_t g_offset = 0;

std::time_t RealTime() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

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

// What the library calls in place of the C library's own.
extern "C" std::time_t time(std::time_t* result) noexcept {
    const std::time_t now = RealTime() + g_offset;
    if (result != nullptr) *result = now;
    return now;
}

extern "C" unsigned sleep(unsigned seconds) {
    const timespec pause{0, static_cast<long>(seconds) * 20'000'000 % 1'000'000'000};
    nanosleep(&pause, nullptr);
    return 0;
}

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
