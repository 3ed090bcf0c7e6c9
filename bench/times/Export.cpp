// Quotes of a capture as a table: vexo export writes CSV, tshark with the dissector prints the same fields. Each round
// is a whole run of the program, on the measuring CPU.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "bench/support/Rounds.h"
#include "capture/Blocks.h"
#include "tests/unit/tools/QuoteSample.h"

namespace {

constexpr unsigned int kFewQuotes = 8000;  // a run of tshark over them takes a second or two
constexpr unsigned int kManyQuotes = 200'000;
constexpr char kCapture[] = "quotes.pcapng";
constexpr char kTable[] = "quotes.csv";
constexpr char kFields[] = "fields.txt";

[[noreturn]] void Fail(const std::string& what) {
    std::fprintf(stderr, "export: %s\n", what.c_str());
    std::_Exit(2);
}

void WriteCapture(unsigned int quotes) {
    std::mt19937_64 random(20261122);
    capture::BlockBuffer blocks;
    capture::appendSection(blocks, {});
    capture::appendInterface(blocks, {capture::kStreamLink, "channel 0", ""});
    for (std::uint64_t i = 0; i < quotes; ++i) {
        const std::string packet = capture::randomQuote(random).packet();
        capture::appendPacket(blocks, 0, 1'736'902'800'000'000'000 + i * 1000, packet.data(),
                              static_cast<std::uint32_t>(packet.size()));
    }
    std::ofstream file(kCapture, std::ios::binary);
    file.write(reinterpret_cast<const char*>(blocks.data()), static_cast<std::streamsize>(blocks.size()));
    if (!file.flush()) Fail("the capture cannot be written");
}

void Run(const std::vector<std::string>& command, const char* output) {
    std::vector<char*> words;
    for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    const pid_t process = ::fork();
    if (process == 0) {
        const int out = ::open(output, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(out, STDOUT_FILENO);
        ::dup2(null, STDERR_FILENO);
        ::execvp(words[0], words.data());
        ::_exit(127);
    }
    int status = -1;
    if (process < 0 || ::waitpid(process, &status, 0) != process || status != 0) Fail(command[0] + " failed");
}

void RequireRows(const char* file, unsigned int rows) {
    std::ifstream in(file);
    unsigned int found = 0;
    for (std::string line; std::getline(in, line);) ++found;
    if (found != rows) Fail(std::string(file) + " has " + std::to_string(found) + " lines");
}

std::vector<std::string> TsharkCommand() {
    std::vector<std::string> command = {VEXO_TSHARK, "-X",    "lua_script:" VEXO_DISSECTOR, "-r", kCapture,
                                        "-T",        "fields"};
    for (const char* field : {"frame.time_epoch", "frame.interface_name", "vexo.type"}) {
        command.insert(command.end(), {"-e", field});
    }
    for (const char* field :
         {"sequence", "id", "row", "table", "level", "date", "time", "millis", "last", "upper_limit", "lower_limit",
          "turnover", "volume", "open_interest", "bid_price", "ask_price", "bid_volume", "ask_volume"}) {
        command.insert(command.end(), {"-e", std::string("vexo.quote.") + field});
    }
    return command;
}

const std::vector<std::string> kOurs = {VEXO_COMMAND, "export", kCapture, "--to", "csv"};

std::vector<bench::Role> StartAlone() {
    WriteCapture(kManyQuotes);
    Run(kOurs, kTable);
    RequireRows(kTable, kManyQuotes + 1);
    return {bench::plainRole("ours", [] { Run(kOurs, kTable); })};
}

std::vector<bench::Role> StartWithTshark() {
    ::setenv("HOME", ".", 1);  // no settings of a user
    WriteCapture(kFewQuotes);
    Run(kOurs, kTable);
    Run(TsharkCommand(), kFields);
    RequireRows(kTable, kFewQuotes + 1);
    RequireRows(kFields, kFewQuotes);
    return {bench::plainRole("ours", [] { Run(kOurs, kTable); }),
            bench::plainRole("tshark", [] { Run(TsharkCommand(), kFields); })};
}

// No run of a program is without a context switch, so those of the programs do not count. What others take still shows,
// as their use of the machine.
bench::Usage OfPrograms() {
    rusage used{};
    ::getrusage(RUSAGE_CHILDREN, &used);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return {0, seconds(used.ru_utime) + seconds(used.ru_stime)};
}

}  // namespace

std::vector<bench::Case> bench::cases() {
    const std::string tshark = VEXO_TSHARK;
    return {
        {"export/tshark", kFewQuotes, StartWithTshark, OfPrograms, {}, tshark.empty() ? "tshark is not installed" : ""},
        {"export/alone", kManyQuotes, StartAlone, OfPrograms}};
}
