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
#include <nlohmann/json.hpp>

#include "tests/support/TempDir.h"
#include "tests/unit/tools/Program.h"
#include "tests/unit/tools/PrometheusCheck.h"
#include "tools/vexo/stat/Pages.h"
#include "tools/vexo/stat/Views.h"

using namespace capture;
using namespace vexo::stat;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

namespace {

constexpr std::uint64_t kClock = 2'000'000'000;

// A page as this test's own process would have it.
struct Written {
    vexo_stats::Process process{};
    std::vector<vexo_stats::Stream> streams;

    Written() {
        vexo_stats::describe(process, vexo_stats::kTap);
        process.clockPerSecond = kClock;
        std::strcpy(process.program, "quotes");
    }
    vexo_stats::Stream& add(std::uint64_t channel) {
        vexo_stats::Stream stream{};
        vexo_stats::describe(stream, 0, channel);
        stream.pollsKnown = 1;
        streams.push_back(stream);
        return streams.back();
    }
    std::string bytes() const {
        std::string all(vexo_stats::kPageBytes, '\0');
        all.replace(0, sizeof process, reinterpret_cast<const char*>(&process), sizeof process);
        for (std::size_t i = 0; i < streams.size(); ++i) {
            all.replace((i + 1) * vexo_stats::kBlockBytes, sizeof streams[i],
                        reinterpret_cast<const char*>(&streams[i]), sizeof streams[i]);
        }
        return all;
    }
};

Written busy() {
    Written page;
    vexo_stats::Stream& stream = page.add(3);
    stream.packets[2] = 5;
    stream.packets[17] = 1000;
    stream.bytes[17] = 140'000;
    stream.idlePolls = 1'000'000;
    stream.failedPolls = 7;
    stream.firstPacket = page.process.startClock;
    stream.lastPacket = page.process.startClock + 3 * kClock;
    stream.callbacks[9] = 1000;
    stream.callbacks[20] = 5;
    stream.callbackClock = 2 * kClock;
    stream.gaps[20] = 1004;
    stream.gaps[vexo_stats::kFirstBucket] = 1;
    stream.sequenceKnown = 1;
    stream.sequenceGaps = 4;
    stream.sequenceLost = 50;
    stream.sequenceLate = 2;
    stream.backPressure = 30;
    stream.backPressureInCallbacks = 10;
    stream.lostBeforeCard = 20;
    stream.fifoErrors = 17;
    stream.errors = 1;
    return page;
}

class StatCommand : public ::testing::Test {
protected:
    ProgramResult stat(const std::string& words) { return runProgram(word(VEXO_COMMAND) + " stat --dir . " + words); }
    void write(const Written& page, const std::string& name = "1.tap.page") { dir.Write(name, page.bytes()); }

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

TEST_F(StatCommand, APageOfTheFirstVersionDoesNotKnowWhatItLacks) {
    Written page = busy();
    page.process.version = 1;
    page.streams[0].cardPackets = page.streams[0].lostByTap = page.streams[0].lostByRelay = 0;
    write(page);
    const auto json = nlohmann::json::parse(stat("--json").output);
    EXPECT_EQ(json["streams"].at(0)["lost"]["before_card"], 20);
    EXPECT_TRUE(json["streams"].at(0)["lost"]["by_tap"].is_null());
    EXPECT_TRUE(json["streams"].at(0)["lost"]["by_relay"].is_null());
    EXPECT_TRUE(json["streams"].at(0)["card_packets"].is_null());
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
    write(Written(), "2.app.page");
    const std::string text = stat("--json").output;
    std::istringstream lines(text);
    std::string line;
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
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_TRUE(nlohmann::json::parse(line)["streams"].empty());
    EXPECT_FALSE(std::getline(lines, line));
}

TEST_F(StatCommand, MetricsAreAsPrometheusWantsThem) {
    Written page = busy();
    page.streams.push_back(page.streams[0]);
    page.streams[1].channel = 4;
    page.streams.push_back(page.streams[0]);
    page.streams[2].card = page.streams[2].channel = vexo_stats::kUnknown;
    page.streams.push_back(page.streams[2]);  // two streams that nobody can tell apart by card and channel
    write(page);
    Written odd = busy();
    std::strcpy(odd.process.program, "a\"b\\c\nd");
    odd.process.writer = vexo_stats::kApplication;
    write(odd, "2.app.page");
    const ProgramResult result = stat("--prometheus -");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(prometheus::Faults(result.output), IsEmpty());
    const std::string labels = "{program=\"quotes\",pid=\"" + std::to_string(::getpid()) +
                               "\",writer=\"tap\",card=\"0\",channel=\"3\"";
    for (const char* text : {",type=\"17\"} 1000\n", ",result=\"idle\"} 1000000\n", ",cause=\"application\"} 10\n",
                             ",kind=\"fifo\"} 17\n", ",le=\"+Inf\"} 1005\n"}) {
        EXPECT_THAT(result.output, HasSubstr(labels + text));
    }
    EXPECT_THAT(result.output, HasSubstr("vexo_packet_gap_seconds_sum" + labels + "} 3\n"));
    EXPECT_THAT(result.output, HasSubstr("vexo_packet_gap_seconds_count" + labels + "} 1004\n"));
    EXPECT_THAT(result.output, HasSubstr("vexo_callback_seconds_sum" + labels + "} 2\n"));
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
    Written dead = busy();
    dead.process.processStart = 1;
    write(dead, "2.tap.page");
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
    write(busy(), "9.tap.page");
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
    std::filesystem::create_symlink("9.tap.page", "8.tap.page");
    const ProgramResult result = stat("");
    EXPECT_EQ(result.status, 0);
    for (const char* text : {"./1.tap.page: this is no statistics page\n", "./2.tap.page: this is no statistics page\n",
                             "./3.tap.page: its layout is number 3, this vexo knows number 2\n",
                             "./4.tap.page: it is damaged\n", "./5.tap.page: it is damaged\n",
                             "./6.tap.page: it is cut off\n", "./7.tap.page: this is no statistics page\n",
                             "./8.tap.page: Too many levels of symbolic links\n", "type 17 1,000\n"}) {
        EXPECT_THAT(result.output, HasSubstr(text));
    }
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

std::string httpGet(std::uint16_t port, const std::string& request) {
    const int connection = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string answer;
    if (::connect(connection, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::send(connection, request.data(), request.size(), MSG_NOSIGNAL) > 0) {
        char part[4096];
        for (ssize_t n; (n = ::recv(connection, part, sizeof part, 0)) > 0;)
            answer.append(part, static_cast<std::size_t>(n));
    }
    ::close(connection);
    return answer;
}

}  // namespace

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
