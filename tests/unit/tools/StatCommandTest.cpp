// vexo stat: what it makes of pages, hostile ones among them.

#include <VexoZceMdStats.h>
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <new>
#include <nlohmann/json.hpp>

#include "tests/hosted/HostProcess.h"
#include "tests/support/TempDir.h"
#include "tests/unit/tools/Program.h"
#include "tests/unit/tools/PrometheusCheck.h"
#include "tests/unit/tools/StatsPage.h"
#include "tools/vexo/stat/Listen.h"
#include "tools/vexo/stat/Pages.h"
#include "tools/vexo/stat/Views.h"

using namespace capture;
using namespace vexo::stat;
using hosted::Eventually;
using hosted::Process;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

namespace {

using stats_page::kClock;
using stats_page::Written;

Written busy() { return stats_page::Busy(); }

class StatCommand : public ::testing::Test {
protected:
    ProgramResult stat(const std::string& words) { return runProgram(word(VEXO_COMMAND) + " stat --dir . " + words); }
    // Under the name of its process, by its writer.
    void write(const Written& page) { write(page, page.name()); }
    void write(const Written& page, const std::string& name) { dir.Write(name, page.bytes()); }
    static Written byApplication(Written page) {
        page.process.writer = vexo_stats::kApplication;
        return page;
    }

    test_support::TempDir dir;
};

}  // namespace

TEST_F(StatCommand, ShowsWhatAPageSays) {
    write(busy());
    const ProgramResult result = stat("");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, HasSubstr("quotes " + std::to_string(::getpid()) + " of "));
    for (const char* text :
         {"counted by the tap, running for ", "  card 0 channel 3\n", "1,005, 140,000 bytes: type 2 5, type 17 1,000\n",
          "1,001,012: 1,000,000 idle, 7 failed\n", "half below 512 ns, 99 % below 512 ns, all below 1.05 ms\n",
          "4 gaps of 50 packets, 2 again or late, 0 restarts\n",
          "before the card 20, by the card 18, by the ring 20, by the tap -, by a relay -, "
          "by the application 10\n"}) {
        EXPECT_THAT(result.output, HasSubstr(text));
    }
}

TEST_F(StatCommand, OnePacketIsNoTimeBetweenPackets) {
    Written page = busy();
    std::memset(page.streams[0].gaps, 0, sizeof page.streams[0].gaps);
    page.streams[0].gaps[vexo_stats::kFirstBucket] = 1;
    write(page);
    const std::string output = stat("").output;
    EXPECT_THAT(output, AllOf(HasSubstr("last packet"), Not(HasSubstr("between packets"))));
}

// Several wrappers of an application that do not know their channels.
TEST_F(StatCommand, StreamsWithoutANameHaveRatesAndLabelsByTheirPlaceInThePage) {
    Written written = byApplication({});
    for (const std::uint64_t packets : {1000, 10}) written.add(vexo_stats::kUnknown).packets[17] = packets;
    for (vexo_stats::Stream& stream : written.streams) stream.card = vexo_stats::kUnknown;
    const std::string file = dir.Write(written.name(), written.bytes());
    vexo::stat::Page before;
    ASSERT_EQ(vexo::stat::readPage(file, before), "");
    before.readClock = written.process.startClock;
    written.streams[1].packets[17] += 30;
    dir.Write(written.name(), written.bytes());
    vexo::stat::Page now;
    ASSERT_EQ(vexo::stat::readPage(file, now), "");
    now.readClock = before.readClock + 2 * kClock;
    now.rate = static_cast<double>(kClock);
    const std::string text = vexo::stat::asText({now}, {before});
    EXPECT_THAT(text, AllOf(HasSubstr(" 0 packets a second"), HasSubstr(" 15 packets a second")));
    // One that has been taken over counts anew.
    before.streams[1].packets[17] = 1'000'000;
    EXPECT_THAT(vexo::stat::asText({now}, {before}), Not(HasSubstr(" 15 packets a second")));
    EXPECT_THAT(vexo::stat::asText({now}, {before}), Not(HasSubstr("00000 packets a second")));

    // A wrapper is about to take the first block over.
    written.streams[0].state = vexo_stats::kPreparing;
    dir.Write(written.name(), written.bytes());
    ASSERT_EQ(vexo::stat::readPage(file, now), "");
    now.life = vexo::stat::Life::kRunning;
    ASSERT_EQ(now.streams.size(), 1U);
    EXPECT_EQ(vexo::stat::packetsOf(*vexo::stat::sameStream(now, 0, before)), 1'000'000U);
    EXPECT_THAT(vexo::stat::asPrometheus({now}), AllOf(HasSubstr("stream=\"1\""), Not(HasSubstr("stream=\"0\""))));
}

TEST_F(StatCommand, TheTableOfLossesHasALineForEachStream) {
    Written page = busy();
    page.streams[0].lostByTap = 11;
    page.add(4).lostByRelay = 12;
    write(page);
    const std::string process = "quotes " + std::to_string(::getpid());
    const std::string pad(process.size() - 7, ' ');
    const std::string head =
        "  card  channel  packets  before the card  by the card  by the ring  by the tap  by a relay  "
        "by the application\n";
    EXPECT_EQ(stat("--loss").output,
              "program" + pad + head + process +
                  "     0        3     1005               20           18           20          11           -  "
                  "                10\n" +
                  process +
                  "     0        4        0                -            -            -           -          12  "
                  "                 -\n");
}

TEST_F(StatCommand, ATableWithoutALineSaysWhy) {
    write(Written());
    const ProgramResult result = stat("--loss");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, testing::EndsWith("\nno stream has been opened yet: the table has a line for each\n"));
    write(busy());
    EXPECT_THAT(stat("--loss").output, Not(HasSubstr("no stream")));
}

TEST_F(StatCommand, APageThatIsMissingIsNamed) {
    EXPECT_EQ(stat("").output,
              "vexo: no statistics page in .; a program gets one by: vexo tap --stats-only -- PROGRAM\n");
    EXPECT_THAT(stat("--pid 1").output, HasSubstr("vexo: no statistics page of process 1; a program gets one by"));
    write(busy());
    const ProgramResult other = stat("--pid 1");
    EXPECT_EQ(other.status, 1);
    EXPECT_THAT(other.output, HasSubstr("no statistics page of process 1; there are those of " +
                                        std::to_string(::getpid()) + "; a program"));
    dir.Write("file", "");
    const ProgramResult file = runProgram(word(VEXO_COMMAND) + " stat --dir file");
    EXPECT_EQ(file.status, 2);
    EXPECT_THAT(file.output, HasSubstr("vexo: --dir: file is no directory\n"));
}

TEST_F(StatCommand, JsonIsALineForEachProcess) {
    write(busy());
    write(byApplication(Written()));
    const std::string text = stat("--json").output;
    std::istringstream lines(text);
    std::string first;
    std::string line;
    ASSERT_TRUE(std::getline(lines, first));  // of the application
    ASSERT_TRUE(std::getline(lines, line));
    const auto json = nlohmann::json::parse(line);
    EXPECT_EQ(json["program"], "quotes");
    EXPECT_EQ(json["state"], "running");
    const auto& stream = json["streams"].at(0);
    EXPECT_EQ(stream["types"]["17"]["packets"], 1000);
    EXPECT_EQ(stream["polls"]["failed"], 7);
    EXPECT_EQ(stream["lost"]["before_card"], 20);
    EXPECT_EQ(stream["lost"]["by_application"], 10);
    EXPECT_NEAR(stream["callback_seconds"], 2.0, 1e-9);
    ASSERT_THAT(stream["callbacks"], SizeIs(2));
    EXPECT_NEAR(stream["callbacks"].at(0)["below_seconds"], 512e-9, 1e-12);
    EXPECT_EQ(stream["callbacks"].at(0)["count"], 1000);
    EXPECT_TRUE(nlohmann::json::parse(first)["streams"].empty());
    EXPECT_FALSE(std::getline(lines, line));
}

TEST_F(StatCommand, MetricsAreAsPrometheusWantsThem) {
    Written page = busy();
    page.streams.push_back(page.streams[0]);
    page.streams[1].channel = 4;
    page.streams.push_back(page.streams[0]);
    page.streams[2].card = page.streams[2].channel = vexo_stats::kUnknown;
    page.streams.push_back(page.streams[2]);  // two streams that nobody can tell apart by card and channel
    page.streams.push_back(page.streams[0]);
    page.streams[4].card = vexo_stats::kUnknown;
    page.streams.push_back(page.streams[4]);  // two wrappers with the same channel, of two cards
    write(page);
    Written odd = byApplication(busy());
    std::strcpy(odd.process.program, "a\"b\\c\nd");
    write(odd);
    const ProgramResult result = stat("--prometheus -");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(prometheus::Faults(result.output), IsEmpty());
    const std::string labels = "{program=\"quotes\",pid=\"" + std::to_string(::getpid()) + "\",writer=\"tap\",user=\"" +
                               std::to_string(::geteuid()) + "\",stream=\"0\",card=\"0\",channel=\"3\"";
    for (const char* text : {",type=\"17\"} 1000\n", ",result=\"idle\"} 1000000\n", ",cause=\"application\"} 10\n",
                             ",kind=\"fifo\"} 17\n", ",le=\"+Inf\"} 1005\n"}) {
        EXPECT_THAT(result.output, HasSubstr(labels + text));
    }
    EXPECT_THAT(result.output, HasSubstr("vexo_packet_gap_seconds_sum" + labels + "} 3\n"));
    EXPECT_THAT(result.output, HasSubstr("vexo_packet_gap_seconds_count" + labels + "} 1004\n"));
    EXPECT_THAT(result.output, HasSubstr("vexo_callback_seconds_sum" + labels + "} 2\n"));
}

// The rate is worked out at each look, and never twice the same.
TEST_F(StatCommand, SumsOfTimesDoNotFollowTheRateOfTheClock) {
    const std::string file = dir.Write(busy().name(), busy().bytes());
    vexo::stat::Page page;
    ASSERT_EQ(vexo::stat::readPage(file, page), "");
    const auto sums = [&page](double rate) {
        page.rate = rate;
        std::istringstream lines(asPrometheus({page}));
        std::string found;
        for (std::string line; std::getline(lines, line);)
            if (line.find("_sum{") != std::string::npos) found += line + "\n";
        return found;
    };
    const std::string first = sums(1.9999999e9);
    EXPECT_THAT(first, AllOf(HasSubstr("vexo_callback_seconds_sum"), HasSubstr("vexo_packet_gap_seconds_sum")));
    EXPECT_EQ(first, sums(2.0000001e9));
}

// The check itself.
TEST(PrometheusCheck, FindsWhatPromtoolFinds) {
    const std::string good = "# HELP a_total Things.\n# TYPE a_total counter\na_total{b=\"c\"} 1\n";
    EXPECT_THAT(prometheus::Faults(good), IsEmpty());
    for (const char* bad : {"a_total 1\n", "# HELP a Things.\n# TYPE a counter\na 1\n",
                            "# HELP a_total Things.\n# TYPE a_total gauge\na_total 1\n",
                            "# HELP a_ms Things.\n# TYPE a_ms gauge\na_ms 1\n", "# TYPE a_seconds gauge\na_seconds 1\n",
                            "# HELP a_total X.\n# TYPE a_total counter\na_total{b=\"c\"} 1\na_total{b=\"c\"} 2\n",
                            "# HELP a_total X.\n# TYPE a_total counter\na_total{b=\"c} 1\n",
                            "# HELP a_total X.\n# TYPE a_total counter\na_total x\n",
                            "# HELP a_s X.\n# TYPE a_s histogram\na_s_bucket{le=\"1\"} 2\na_s_bucket{le=\"+Inf\"} 1\n"
                            "a_s_sum 1\na_s_count 1\n",
                            "# HELP aB_total X.\n# TYPE aB_total counter\naB_total 1\n"}) {
        EXPECT_THAT(prometheus::Faults(bad), Not(IsEmpty())) << bad;
    }
}

TEST_F(StatCommand, MetricsOfProcessesThatHaveEndedAreLeftOut) {
    Written page = busy();
    page.process.steps[vexo_stats::kEnded] = page.process.startClock;
    write(page);
    Written dead = byApplication(busy());
    dead.process.processStart = 1;
    write(dead);
    EXPECT_EQ(stat("--prometheus -").output, "");
    EXPECT_THAT(stat("").output, HasSubstr("ended after "));
    EXPECT_THAT(stat("").output, HasSubstr("died\n"));
}

TEST_F(StatCommand, TheFileOfMetricsIsReplacedAsAWhole) {
    write(busy());
    dir.Write("m.prom", "old");
    struct ::stat before {
    }, after{};
    ASSERT_EQ(::stat("m.prom", &before), 0);
    EXPECT_EQ(stat("--prometheus m.prom").status, 0);
    ASSERT_EQ(::stat("m.prom", &after), 0);
    EXPECT_NE(before.st_ino, after.st_ino);
    EXPECT_EQ(after.st_mode & 0777, 0644U);
    EXPECT_THAT(prometheus::Faults(dir.Read("m.prom")), IsEmpty());
    EXPECT_THAT(dir.Read("m.prom"), HasSubstr("vexo_packets_total"));
    std::size_t files = 0;
    for ([[maybe_unused]] const auto& file : std::filesystem::directory_iterator(".")) ++files;
    EXPECT_EQ(files, 2U);
    EXPECT_EQ(stat("--prometheus none/m.prom").status, 2);
}

TEST_F(StatCommand, AFileThatCannotBeWrittenForAWhileIsWrittenAgain) {
    const std::vector<std::string> words = {VEXO_COMMAND,   "stat",       "--dir",   ".",
                                            "--prometheus", "out/m.prom", "--watch", "0.1"};
    EXPECT_EQ(Process(words, "said", "wrong").Wait(), 2) << "a wrong name is told at once";
    EXPECT_THAT(dir.Read("wrong"), HasSubstr("vexo: out/m.prom: "));
    const auto exists = [](const char* name) { return std::filesystem::exists(name); };
    std::filesystem::create_directory("out");
    Process watch(words, "said", "errors");
    ASSERT_TRUE(Eventually([&] { return exists("out/m.prom") || !watch.IsRunning(); }));
    std::filesystem::rename("out", "away");
    EXPECT_TRUE(Eventually([&] { return !dir.Read("errors").empty() || !watch.IsRunning(); }));
    std::filesystem::create_directory("out");
    EXPECT_TRUE(Eventually([&] { return exists("out/m.prom") || !watch.IsRunning(); }));
    EXPECT_TRUE(watch.IsRunning());
    EXPECT_EQ(dir.Read("errors"), "vexo: out/m.prom: there is no directory out; it will be tried again\n");
    watch.Signal(SIGTERM);
    EXPECT_EQ(watch.Wait(), 128 + SIGTERM);
}

TEST_F(StatCommand, MetricsReplaceNothingButAFile) {
    write(busy());
    ASSERT_EQ(::symlink("elsewhere", "link"), 0);
    ASSERT_EQ(::mkfifo("pipe", 0600), 0);
    for (const char* name : {"link", "pipe", "."})
        EXPECT_EQ(stat(std::string("--prometheus ") + name).status, 2) << name;
    EXPECT_TRUE(std::filesystem::is_symlink("link"));
    EXPECT_TRUE(std::filesystem::is_fifo("pipe"));
}

TEST_F(StatCommand, AHostilePageIsNamedAndHidesNoOther) {
    const std::string good = busy().name();
    write(busy());
    dir.Write("1.tap.page", "");
    dir.Write("2.tap.page", std::string(vexo_stats::kPageBytes, 'x'));
    Written version, streams, clock, cut;
    version.process.version = 3;
    write(version, "3.tap.page");
    streams.process.streams = 0xFFFFFFFF;
    write(streams, "4.tap.page");
    clock.process.clockPerSecond = 0;
    write(clock, "5.tap.page");
    dir.Write("6.tap.page", cut.bytes().substr(0, 5000));
    ASSERT_EQ(::mkfifo("7.tap.page", 0600), 0);
    std::filesystem::create_symlink(good, "8.tap.page");
    write(busy(), "9.tap.page");
    for (const char* name : {"0.tap.page", "01.tap.page", "99999999999.tap.page", "1.tap.page.page", "x.page",
                             ".tap.page", "1.other.page", "-1.app.page"}) {
        dir.Write(name, "no page");
    }
    const ProgramResult result = stat("");
    EXPECT_EQ(result.status, 0);
    for (const char* text :
         {"./1.tap.page: this is no statistics page\n", "./2.tap.page: this is no statistics page\n",
          "./3.tap.page: its layout is number 3, this vexo knows number 2\n", "./4.tap.page: it is damaged\n",
          "./5.tap.page: it is damaged\n", "./6.tap.page: it is cut off\n",
          "./7.tap.page: this is no statistics page\n", "./8.tap.page: Too many levels of symbolic links\n",
          "./9.tap.page: it is the page of process ", "type 17 1,000\n"}) {
        EXPECT_THAT(result.output, HasSubstr(text));
    }
    for (const char* text : {"01.tap", "x.page", "1.other", "-1.app"}) EXPECT_THAT(result.output, Not(HasSubstr(text)));
    EXPECT_THAT(prometheus::Faults(stat("--prometheus - 2>/dev/null").output), IsEmpty());
}

TEST_F(StatCommand, ADirectoryWithTooManyFilesIsReadInPart) {
    write(busy());
    for (int n = 0; n < 10'001; ++n) std::ofstream("file" + std::to_string(n));
    const ProgramResult result = stat("");
    EXPECT_THAT(result.output, HasSubstr("vexo: .: there are too many files; not all of them were looked at\n"));
}

// The rate in a page has three digits: by itself it would be 14 seconds wrong after an hour.
TEST_F(StatCommand, TimesDoNotDrift) {
    const vexo_stats::ClockPair first = vexo_stats::readPair(CLOCK_MONOTONIC);
    ::usleep(50'000);
    const vexo_stats::ClockPair second = vexo_stats::readPair(CLOCK_MONOTONIC);
    const double rate = static_cast<double>(second.clock - first.clock) * 1e9 /
                        static_cast<double>(second.ns - first.ns);
    const vexo_stats::ClockPair now = vexo_stats::readPair(CLOCK_REALTIME);
    Written page = busy();
    page.process.clockPerSecond = static_cast<std::uint64_t>(rate * 1.004);
    page.process.clockIsEven = 1;
    page.process.startNs = now.ns - 3'600'000'000'000;
    page.process.startClock = now.clock - static_cast<std::uint64_t>(3600 * rate);
    page.streams[0].firstPacket = page.process.startClock;
    page.streams[0].lastPacket = now.clock;
    const auto last = [&] {
        write(page);
        return nlohmann::json::parse(stat("--json").output)["streams"][0]["last_packet"].get<double>();
    };
    EXPECT_NEAR(last(), static_cast<double>(now.ns) / 1e9, 1);
    // Of a process that has ended, the same for ever.
    page.process.steps[vexo_stats::kEnded] = now.clock;
    page.process.endNs = now.ns;
    page.process.boot = 1;
    EXPECT_NEAR(last(), static_cast<double>(now.ns) / 1e9, 1e-3);
    // Of another run of the machine, whose counter means nothing now.
    page.process.steps[vexo_stats::kEnded] = 0;
    EXPECT_NEAR(last(), static_cast<double>(now.ns) / 1e9 - 3600 * (1 - 1 / 1.004), 1);
}

// Taken between two words of the same packet.
TEST_F(StatCommand, ACopyWithAnOldLastPacketHasNoNegativeTimes) {
    Written page = busy();
    page.streams[0].lastPacket = page.streams[0].firstPacket - (std::uint64_t{1} << vexo_stats::kFirstBucket);
    page.streams[0].closedClock = kClock;
    write(page);
    const std::string metrics = stat("--prometheus -").output;
    EXPECT_THAT(metrics, HasSubstr("\",channel=\"3\"} 0\n"));  // the sum of the gaps
    EXPECT_THAT(prometheus::Faults(metrics), IsEmpty());
    EXPECT_NEAR(nlohmann::json::parse(stat("--json").output)["streams"][0]["last_packet"].get<double>(),
                static_cast<double>(page.process.startNs) / 1e9, 1e-3);
}

TEST_F(StatCommand, NumbersOfAnySizeAndTextsOfAnyKindDoNoHarm) {
    Written page;
    std::memset(page.process.program, '\x1b', sizeof page.process.program);
    std::memset(page.process.steps, 0xFF, sizeof page.process.steps);
    page.process.startNs = ~0ULL;
    page.process.writer = 99;
    vexo_stats::Stream stream;
    std::memset(&stream, 0xFF, sizeof stream);
    page.streams.assign(vexo_stats::kStreams, stream);
    page.process.steps[vexo_stats::kEnded] = 0;
    write(page);
    for (const char* words : {"", "--loss", "--json", "--prometheus -", "--watch 0.1 --json | head -n 3"}) {
        const ProgramResult result = stat(words);
        EXPECT_EQ(result.status, 0) << words;
        EXPECT_THAT(result.output, Not(HasSubstr("\x1b"))) << words;
    }
    EXPECT_THAT(prometheus::Faults(stat("--prometheus -").output), IsEmpty());
    std::istringstream lines(stat("--json").output);
    for (std::string line; std::getline(lines, line);) EXPECT_TRUE(nlohmann::json::accept(line));
}

TEST_F(StatCommand, WithoutAPageItSaysHowToGetOne) {
    const ProgramResult result = stat("");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, HasSubstr("vexo tap --stats-only -- PROGRAM"));
    write(busy());
    EXPECT_EQ(stat("--pid 1").status, 1);
    EXPECT_EQ(stat("--pid " + std::to_string(::getpid())).status, 0);
}

namespace {

// A connection to the server; -1 without one.
int connectTo(std::uint16_t port) {
    const int connection = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(connection, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return connection;
    ::close(connection);
    return -1;
}

std::string httpGet(std::uint16_t port, const std::string& request) {
    const int connection = connectTo(port);
    std::string answer;
    if (::send(connection, request.data(), request.size(), MSG_NOSIGNAL) > 0) {
        char part[4096];
        for (ssize_t n; (n = ::recv(connection, part, sizeof part, 0)) > 0;)
            answer.append(part, static_cast<std::size_t>(n));
    }
    ::close(connection);
    return answer;
}

/// What --listen does, in a process of its own.
class Server {
public:
    explicit Server(const std::function<std::string()>& text) {
        int said[2];
        EXPECT_EQ(::pipe(said), 0);
        std::fflush(stdout);  // or the server says it again
        m_pid = ::fork();
        if (m_pid == 0) {
            ::dup2(said[1], STDOUT_FILENO);
            listen(0, text);
            ::_exit(0);
        }
        ::close(said[1]);
        std::FILE* const lines = ::fdopen(said[0], "r");
        unsigned port = 0;
        EXPECT_EQ(std::fscanf(lines, "http://127.0.0.1:%u/metrics", &port), 1);
        m_port = static_cast<std::uint16_t>(port);
        std::fclose(lines);
    }
    ~Server() {
        EXPECT_EQ(::kill(m_pid, SIGTERM), 0);
        int status = -1;
        EXPECT_EQ(::waitpid(m_pid, &status, 0), m_pid);
        EXPECT_EQ(status, 0);
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    std::uint16_t Port() const { return m_port; }

private:
    pid_t m_pid;
    std::uint16_t m_port = 0;
};

}  // namespace

TEST_F(StatCommand, WithoutMemoryForAnAnswerItGoesOnServing) {
    const Server server([]() -> std::string { throw std::bad_alloc(); });
    for (int n = 0; n < 2; ++n) {
        EXPECT_THAT(httpGet(server.Port(), "GET /metrics HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n"),
                    HasSubstr("HTTP/1.1 500 "));
    }
}

// As many as the server takes, each with a byte now and then.
TEST_F(StatCommand, ClientsThatNeverFinishTheirRequestGiveWay) {
    const Server server([] { return std::string("metrics\n"); });
    std::vector<int> slow(16);
    for (int& connection : slow) {
        connection = connectTo(server.Port());
        ASSERT_GE(connection, 0);
    }
    // So many bytes take far longer than a request may.
    constexpr int kMostBytes = 300;
    int sent = 0;
    const auto sendsOne = [](int connection) { return ::send(connection, "G", 1, MSG_NOSIGNAL) == 1; };
    for (bool isOpen = true; isOpen && sent < kMostBytes; ++sent) {
        ::usleep(100'000);
        isOpen = false;
        for (const int connection : slow) isOpen = sendsOne(connection) || isOpen;
    }
    EXPECT_LT(sent, kMostBytes);
    EXPECT_THAT(httpGet(server.Port(), "GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n"),
                AllOf(HasSubstr("HTTP/1.1 200 OK\r\n"), testing::EndsWith("\r\n\r\nmetrics\n")));
    for (const int connection : slow) ::close(connection);
}

TEST_F(StatCommand, ServesMetricsOverHttp) {
    write(busy());
    std::FILE* server = ::popen(("exec " + word(VEXO_COMMAND) + " stat --dir . --listen 0 & echo $!; wait $!").c_str(),
                                "r");
    ASSERT_NE(server, nullptr);
    int pid = 0;
    unsigned port = 0;
    ASSERT_EQ(std::fscanf(server, "%d http://127.0.0.1:%u/metrics", &pid, &port), 2);
    const auto get = [&](const char* line) {
        return httpGet(static_cast<std::uint16_t>(port),
                       std::string(line) + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
    };
    const std::string metrics = get("GET /metrics");
    EXPECT_THAT(metrics, HasSubstr("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(metrics, HasSubstr("text/plain; version=0.0.4"));
    const std::size_t body = metrics.find("\r\n\r\n");
    ASSERT_NE(body, std::string::npos);
    EXPECT_THAT(metrics.substr(body), HasSubstr(",type=\"17\"} 1000\n"));
    EXPECT_THAT(prometheus::Faults(metrics.substr(body + 4)), IsEmpty());
    EXPECT_THAT(get("GET /"), HasSubstr("HTTP/1.1 404 "));
    EXPECT_THAT(get("POST /metrics"), HasSubstr("HTTP/1.1 405 "));
    EXPECT_EQ(::kill(pid, SIGTERM), 0);
    EXPECT_EQ(::pclose(server), 0);
}
