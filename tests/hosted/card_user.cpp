// A program of its own that does one thing with the card:
//
//     card_user write WORD VALUE    writes a register; ends with 0, or with errno when there is no card
//     card_user hold CHANNEL        opens a stream and keeps it
//     card_user lock                takes the register core's lock, writes a line, and keeps it
//     card_user take-turns COUNT    changes registers under the core lock; fails when another process was in between
//     card_user receive COUNT       receives so many packets on channel 0
//     card_user quotes COUNT        the same, after it has set the quotes of 50 rows going
//     card_user stop-locked         stops itself under the core lock; fails unless what it then does fails until it
//     unlocks card_user go-on FILE          the same as take-turns for ever; goes on after the lock was taken away from
//     it, and
//                                   adds a byte to FILE for each 50 turns
//     card_user log FILE            opens a file of its own, then the registers; fails when anything is in the file
//     card_user abuse SEED          uses everything in turn, for ever; ends only on an error

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

#include "interface/CardRegisters.h"
#include "tests/hosted/CardAccess.h"

using namespace hosted;

namespace {

void Ignore(const std::uint8_t*, std::uint32_t, void*) {}

std::uint32_t Below(std::mt19937& random, std::uint32_t end) { return static_cast<std::uint32_t>(random() % end); }

unsigned Number(const char* text) { return static_cast<unsigned>(std::strtoul(text, nullptr, 10)); }

[[noreturn]] void Keep() {
    for (;;) pause();
}

void UseRegisters(enyx_hw_core* core, std::mt19937& random) {
    if (enyx_hw_core_lock(core) != 0) return;
    for (int n = 0; n < 20; ++n) SetMask(core, Below(random, 3000), Below(random, 0x10000));
    Write(core, card_reg::kDecodeSwitch, Below(random, 4));
    if (Below(random, 50) == 0) enyx_hw_core_reset(core);
    enyx_hw_core_unlock(core);
}

void UseStream(std::mt19937& random) {
    enyx_hw_a2c_stream* stream = OpenStream(0, Below(random, 16));
    if (stream == nullptr) return;
    for (int n = 0; n < 500; ++n) enyx_hw_a2c_stream_poll_once(stream, Ignore, nullptr);
    enyx_hw_a2c_stream_destroy(stream);
}

// Each turn changes two registers under the core lock and finds them as it left them. Status 2: a lock or an access
// failed. Status 3: another process was in between.
int TakeTurns(unsigned turns) {
    enyx_hw_core* core = OpenRegisters(0);
    if (core == nullptr) return errno;
    std::mt19937 random(static_cast<unsigned>(std::random_device{}()));
    for (unsigned turn = 0; turn < turns; ++turn) {
        const std::uint32_t date = 20000000 + Below(random, 100000);
        std::uint64_t found = 0;
        if (enyx_hw_core_lock(core) != 0) return 2;
        if (Write(core, card_reg::kTradingDate, date) != 0) return 2;
        if (Read(core, card_reg::kTradingDate, found) != 0) return 2;
        if (found != date) return 3;
        if (enyx_hw_core_unlock(core) != 0) return 2;
    }
    return 0;
}

// The number of the first step that does not end as it should; 0 when all do.
int StopLocked() {
    enyx_hw_core* core = OpenRegisters(0);
    std::uint64_t value = 0;
    if (core == nullptr || enyx_hw_core_lock(core) != 0) return 1;
    raise(SIGSTOP);
    if (Write(core, card_reg::kTradingDate, 20310101) != -1 || errno != ECANCELED) return 2;
    if (Read(core, card_reg::kTradingDate, value) != -1 || errno != ECANCELED) return 3;
    if (enyx_hw_core_reset(core) != -1 || errno != ECANCELED) return 4;
    if (enyx_hw_core_unlock(core) != -1 || errno != ECANCELED) return 5;
    return Read(core, card_reg::kHardwareVersion, value) == 0 ? 0 : 6;
}

// One turn of go-on. 0, or ECANCELED after the lock was taken away; any other failure ends the process.
int Turn(enyx_hw_core* core, std::uint32_t date) {
    const auto check = [](int result) {
        if (result != 0 && errno != ECANCELED) _exit(2);
        return result == 0;
    };
    std::uint64_t found = date;
    if (enyx_hw_core_lock(core) != 0) _exit(2);
    const bool done = check(Write(core, card_reg::kTradingDate, date)) &&
                      check(Read(core, card_reg::kTradingDate, found));
    if (done && found != date) _exit(3);
    return check(enyx_hw_core_unlock(core)) && done ? 0 : ECANCELED;
}

int GoOn(const char* path) {
    const int file = open(path, O_WRONLY | O_APPEND);
    enyx_hw_core* core = OpenRegisters(0);
    if (core == nullptr || file < 0) return 2;
    std::mt19937 random(static_cast<unsigned>(std::random_device{}()));
    for (unsigned turn = 0;; ++turn) {
        if (Turn(core, 20000000 + Below(random, 100000)) == ECANCELED && write(file, "C", 1) != 1) return 4;
        if (turn % 50 == 0 && write(file, ".", 1) != 1) return 4;
    }
}

void Count(const std::uint8_t*, std::uint32_t, void* count) { ++*static_cast<unsigned*>(count); }

int Receive(bool startQuotes, unsigned count) {
    enyx_hw_a2c_stream* stream = OpenStream(0, 0);
    if (stream == nullptr) return errno;
    if (startQuotes) {
        enyx_hw_core* core = OpenRegisters(0);
        for (std::uint32_t row = 0; row < 50; ++row) SetMask(core, row, 1);
        Write(core, card_reg::kDecodeSwitch, 3);
    }
    unsigned received = 0;
    while (received < count)
        if (enyx_hw_a2c_stream_poll_once(stream, Count, &received) == 0) usleep(100);
    enyx_hw_a2c_stream_destroy(stream);
    return 0;
}

int KeepOwnFile(const char* path) {
    const int own = open(path, O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (OpenRegisters(0) == nullptr) return errno;
    return lseek(own, 0, SEEK_END) == 0 ? 0 : 1;
}

// The host may come and go meanwhile: then it waits for the next one, as its register space is the dead card's.
[[noreturn]] void Abuse(unsigned seed) {
    std::mt19937 random(seed);
    for (;;) {
        enyx_hw_core* core = OpenRegisters(0);
        std::uint64_t value = 0;
        while (core != nullptr && Read(core, card_reg::kHardwareVersion, value) == 0) {
            UseRegisters(core, random);
            UseStream(random);
        }
        usleep(1000);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string what = argc > 1 ? argv[1] : "";
    if (what == "abuse" && argc == 3) Abuse(Number(argv[2]));
    if (what == "hold" && argc == 3 && OpenStream(0, Number(argv[2])) != nullptr) Keep();
    if (what == "take-turns" && argc == 3) return TakeTurns(Number(argv[2]));
    if ((what == "quotes" || what == "receive") && argc == 3) return Receive(what == "quotes", Number(argv[2]));
    if (what == "stop-locked") return StopLocked();
    if (what == "go-on" && argc == 3) return GoOn(argv[2]);
    if (what == "log" && argc == 3) return KeepOwnFile(argv[2]);
    enyx_hw_core* core = OpenRegisters(0);
    if (core == nullptr) return errno;
    if (what == "write" && argc == 4) return Write(core, Number(argv[2]), Number(argv[3])) == 0 ? 0 : errno;
    if (what != "lock" || enyx_hw_core_lock(core) != 0) return 2;
    std::puts("locked");
    std::fflush(stdout);
    Keep();
}
