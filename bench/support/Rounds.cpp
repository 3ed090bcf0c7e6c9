// time_TOPIC --out FILE [--turns N] [--seconds S] [CASE]...
//
// Measures each case whose name begins with one of the names: for a tenth of S seconds, and on until N turns had no
// involuntary context switch, but no longer than S seconds. Writes one JSON object a case. bench/run.py starts it and
// judges.

#include "bench/support/Rounds.h"

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>
#include <x86intrin.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include "bench/support/Counters.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    std::FILE* out = nullptr;
    unsigned long turns = 31;
    double seconds = 30;
    std::vector<std::string> wanted;
};

struct Round {
    std::int64_t nanoseconds;
    std::uint64_t tsc;
    std::uint64_t switches;
    std::optional<Counters::Values> counted;
};

std::FILE* g_out = nullptr;
std::vector<std::pair<std::string, double>> g_numbers;

// Before the first pinning, which leaves only one of them.
const std::vector<unsigned int>& allowedCpus() {
    static const std::vector<unsigned int> allowed = [] {
        cpu_set_t set;
        CPU_ZERO(&set);
        std::vector<unsigned int> cpus;
        if (::sched_getaffinity(0, sizeof set, &set) != 0) std::exit(2);
        for (unsigned int n = 0; n < CPU_SETSIZE; ++n) {
            if (CPU_ISSET(n, &set)) cpus.push_back(n);
        }
        return cpus;
    }();
    return allowed;
}

// What the thread has waited for a CPU, because others had it.
std::uint64_t waitedNanoseconds() {
    std::FILE* file = std::fopen("/proc/thread-self/schedstat", "re");
    unsigned long long ran = 0;
    unsigned long long waited = 0;
    if (file == nullptr || std::fscanf(file, "%llu %llu", &ran, &waited) != 2) waited = 0;
    if (file != nullptr) std::fclose(file);
    return waited;
}

// What the kernel tells of the CPUs, in seconds since it started.
struct CpuTimes {
    double stolen = 0;  // what the machine below a virtual one has taken from the measuring CPU
    double busy = 0;    // of all CPUs together
};

CpuTimes cpuTimes() {
    enum { kUser, kNice, kSystem, kIdle, kIoWait, kInterrupt, kSoftInterrupt, kStolen, kFields };
    const auto second = static_cast<double>(::sysconf(_SC_CLK_TCK));
    const std::string measuring = "cpu" + std::to_string(measuringCpu());
    CpuTimes times;
    std::ifstream stat("/proc/stat");
    for (std::string line; std::getline(stat, line);) {
        std::istringstream fields(line);
        std::string cpu;
        double ticks[kFields] = {};
        fields >> cpu;
        for (double& one : ticks) fields >> one;
        if (cpu == "cpu") times.busy = (ticks[kUser] + ticks[kNice] + ticks[kSystem] + ticks[kStolen]) / second;
        if (cpu == measuring) times.stolen = ticks[kStolen] / second;
    }
    return times;
}

std::uint64_t allSwitches(const Case& one) {
    return involuntarySwitches() + (one.elsewhere ? one.elsewhere().involuntarySwitches : 0);
}

double allCpuSeconds(const Case& one) {
    std::timespec own{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &own);
    return static_cast<double>(own.tv_sec) + static_cast<double>(own.tv_nsec) / 1e9 +
           (one.elsewhere ? one.elsewhere().cpuSeconds : 0);
}

Round measure(const Case& one, const Role& role, const Counters& counters) {
    pinTo(measuringCpu());  // an earlier round may have started a library that pins its thread itself
    role.prepare();
    Round round{};
    const std::uint64_t switches = allSwitches(one);
    const std::optional<Counters::Values> begin = counters.read();
    const Clock::time_point start = Clock::now();
    const std::uint64_t tsc = __rdtsc();
    role.run();
    round.tsc = __rdtsc() - tsc;
    round.nanoseconds = std::chrono::nanoseconds(Clock::now() - start).count();
    const std::optional<Counters::Values> end = counters.read();
    round.switches = allSwitches(one) - switches;
    if (begin && end) {
        round.counted = {end->cycles - begin->cycles, end->instructions - begin->instructions,
                         end->mispredicts - begin->mispredicts};
    }
    if (role.finish) role.finish();
    return round;
}

void write(const Round& round) {
    std::fprintf(g_out, "[%lld,%llu,%llu", static_cast<long long>(round.nanoseconds),
                 static_cast<unsigned long long>(round.tsc), static_cast<unsigned long long>(round.switches));
    if (round.counted) {
        std::fprintf(g_out, ",%llu,%llu,%llu]", static_cast<unsigned long long>(round.counted->cycles),
                     static_cast<unsigned long long>(round.counted->instructions),
                     static_cast<unsigned long long>(round.counted->mispredicts));
    } else {
        std::fprintf(g_out, ",null,null,null]");
    }
}

// @return whether no round of the turn had an involuntary context switch
bool measureTurn(const Case& one, const std::vector<Role>& roles, const Counters& counters, bool backwards,
                 std::vector<Round>& rounds) {
    bool clean = true;
    for (std::size_t n = 0; n < roles.size(); ++n) {
        const std::size_t role = backwards ? roles.size() - 1 - n : n;
        rounds[role] = measure(one, roles[role], counters);
        clean = clean && rounds[role].switches == 0;
    }
    return clean;
}

void measureCase(const Case& one, const Options& options) {
    if (!one.cannot.empty()) {
        std::fprintf(g_out, "{\"case\":\"%s\",\"cannot\":\"%s\"}\n", one.name.c_str(), one.cannot.c_str());
        return;
    }
    pinTo(measuringCpu());
    const std::vector<Role> roles = one.start();
    std::vector<Round> rounds(roles.size());
    const Counters counters;
    measureTurn(one, roles, counters, false, rounds);  // a warm-up

    std::fprintf(g_out, "{\"case\":\"%s\",\"times\":%llu,\"roles\":[", one.name.c_str(),
                 static_cast<unsigned long long>(one.times));
    for (std::size_t n = 0; n < roles.size(); ++n)
        std::fprintf(g_out, "%s\"%s\"", n > 0 ? "," : "", roles[n].name.c_str());
    std::fprintf(g_out,
                 "],\"columns\":[\"ns\",\"tsc\",\"switches\",\"cycles\",\"instructions\",\"mispredicts\"],"
                 "\"turns\":[");
    const Clock::time_point start = Clock::now();
    const std::uint64_t waited = waitedNanoseconds();
    const CpuTimes before = cpuTimes();
    const double own = allCpuSeconds(one);
    std::chrono::duration<double> took{};
    unsigned long clean = 0;
    const auto goesOn = [&] {
        return took.count() < options.seconds / 10 || (clean < options.turns && took.count() < options.seconds);
    };
    for (unsigned long turn = 0; turn == 0 || goesOn(); ++turn) {
        if (measureTurn(one, roles, counters, turn % 2 == 1, rounds)) ++clean;
        for (std::size_t n = 0; n < rounds.size(); ++n) {
            std::fputs(n > 0 ? "," : turn > 0 ? ",\n[" : "[", g_out);
            write(rounds[n]);
        }
        std::fputc(']', g_out);
        took = Clock::now() - start;
    }
    const CpuTimes after = cpuTimes();
    std::fprintf(g_out, "],\"seconds\":%.3f,\"waited\":%.3f,\"stolen\":%.3f,\"others\":%.3f,\"cpus\":%ld}\n",
                 took.count(), static_cast<double>(waitedNanoseconds() - waited) / 1e9, after.stolen - before.stolen,
                 after.busy - before.busy - (allCpuSeconds(one) - own), ::sysconf(_SC_NPROCESSORS_ONLN));
    if (one.end) one.end();
    for (const auto& [name, value] : g_numbers)
        std::fprintf(g_out, "{\"number\":\"%s\",\"value\":%.6g}\n", name.c_str(), value);
    g_numbers.clear();
}

[[noreturn]] void usage() {
    std::fprintf(stderr, "usage: time_TOPIC --out FILE [--turns N] [--seconds S] [CASE]...\n");
    std::exit(2);
}

Options parse(int argc, char** argv) {
    Options options;
    for (int n = 1; n < argc; ++n) {
        const std::string argument = argv[n];
        if (argument.rfind("--", 0) != 0) {
            options.wanted.push_back(argument);
            continue;
        }
        if (n + 1 >= argc) usage();
        const char* const value = argv[++n];
        if (argument == "--out") {
            options.out = std::fopen(value, "we");
        } else if (argument == "--turns") {
            options.turns = std::strtoul(value, nullptr, 10);
        } else if (argument == "--seconds") {
            options.seconds = std::strtod(value, nullptr);
        } else {
            usage();
        }
    }
    if (options.out == nullptr) usage();
    return options;
}

bool isWanted(const std::string& name, const std::vector<std::string>& wanted) {
    for (const std::string& begin : wanted) {
        if (name.rfind(begin, 0) == 0) return true;
    }
    return wanted.empty();
}

}  // namespace

void tellNumber(const std::string& name, double value) { g_numbers.emplace_back(name, value); }

std::uint64_t involuntarySwitches() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<std::uint64_t>(usage.ru_nivcsw);
}

unsigned int measuringCpu() { return allowedCpus().back(); }

std::optional<unsigned int> otherCpu() {
    if (allowedCpus().size() < 2) return std::nullopt;
    return allowedCpus()[allowedCpus().size() - 2];
}

void pinTo(unsigned int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    if (::sched_setaffinity(0, sizeof set, &set) != 0) {
        std::perror("benchmark: pinning to a CPU");
        std::exit(2);
    }
}

}  // namespace bench

int main(int argc, char** argv) {
    const bench::Options options = bench::parse(argc, argv);
    bench::g_out = options.out;
    for (const bench::Case& one : bench::cases()) {
        if (bench::isWanted(one.name, options.wanted)) bench::measureCase(one, options);
    }
    return std::fclose(options.out) == 0 ? 0 : 2;
}
