// The relay beside an unmodified application, which receives from its own channel and shares what it receives.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/relay/Listener.h"
#include "tests/relay/LockedCatalogue.h"
#include "tests/remote/EndToEndFixture.h"

using hosted::Process;
using test_support::NatsServer;
using ::testing::HasSubstr;

namespace {

constexpr char kStream[] = "vexo.local.0.3.stream";

class Beside : public EndToEnd {
protected:
    /// An application that shares its packets, on a card of its own that replays the capture.
    Process Application(const std::string& name = "application", std::vector<std::string> tap = {}) {
        std::vector<std::string> command = {VEXO_COMMAND, "sim", "run"};
        const std::vector<std::string> card = Replaying("real");
        command.insert(command.end(), card.begin(), card.end());
        command.insert(command.end(), {"--", VEXO_COMMAND, "tap", "--share"});
        command.insert(command.end(), tap.begin(), tap.end());
        return Printer(command, name);
    }
    /// A relay that needs no card: its library is not even found.
    Process BesideRelay(const NatsServer& server, const std::string& name = "relay",
                        const std::vector<std::string>& options = {}) {
        std::vector<std::string> command = {VEXO_COMMAND, "relay", "--beside", "--json",
                                            "--channel",  "3",     "--to",     server.Url()};
        command.insert(command.end(), options.begin(), options.end());
        return Process(command, dir.Path(name + ".out"), dir.Path(name + ".err"));
    }
    /// Somebody who may write to the ring fills it with bytes that mean nothing.
    void SpoilRing() const {
        const std::string path = dir.Path("VEXO_SHARE_DIR/0.3.ring");
        const std::uintmax_t size = std::filesystem::file_size(path);
        std::fstream(path, std::ios::in | std::ios::out | std::ios::binary) << std::string(size, '\xFF');
    }
    /// How often the relay has said it.
    int Told(const std::string& text) const {
        const std::string errors = Errors();
        int times = 0;
        for (std::size_t at = 0; (at = errors.find(text, at)) != std::string::npos; ++at) ++times;
        return times;
    }
    bool HasTheWholeCaptureLast(const Listener& listener) const {
        const std::vector<std::string> received = listener.Packets();
        return received.size() >= packets.size() && std::equal(packets.rbegin(), packets.rend(), received.rbegin());
    }
    bool IsWaiting(Process& relay, const std::string& name = "relay") const {
        const auto waits = [&] { return Errors(name).find("waiting for: vexo tap --share") != std::string::npos; };
        return hosted::Eventually([&] { return waits() || !relay.IsRunning(); }) && waits();
    }
};

auto Has(std::uint64_t packets) {
    return [packets](const Listener::Account& account) { return account.packets + account.missing >= packets; };
}

}  // namespace

TEST_F(Beside, ARemoteCardReceivesTheApplicationsPacketsByteForByte) {
    const NatsServer server;
    const Listener listener(server.Url(), kStream, true);
    Process relay = BesideRelay(server);
    ASSERT_TRUE(IsWaiting(relay)) << Errors();
    Process remote = Printer({VEXO_COMMAND, "remote", "run", "--from", server.Url()}, "remote");
    ASSERT_TRUE(hosted::Eventually([&] {
        return !remote.IsRunning() || Errors("remote").find("the stream is idle") != std::string::npos;
    })) << Errors("remote");
    Process application = Application();
    const std::vector<std::string> expected = QuotesOf(application, "application");
    EXPECT_EQ(expected.size(), kQuotes);
    EXPECT_TRUE(QuotesOf(remote, "remote") == expected);
    const nlohmann::json result = End(relay);
    EXPECT_TRUE(listener.Packets() == packets);
    EXPECT_EQ(listener.Now().head.flags & vexo_sim::wire::kSimulated, vexo_sim::wire::kSimulated);
    EXPECT_EQ(result["packets"], kQuotes);
    EXPECT_EQ(result["sent"], kQuotes);
    EXPECT_EQ(result["lost"]["relay"], 0);
    EXPECT_EQ(result["lost"]["ring"], 0);
    EXPECT_THAT(Errors(), HasSubstr("vexo relay: channel 3 of card 0 comes from quote_printer (process " +
                                    std::to_string(application.Id()) + ")\n"));
}

TEST_F(Beside, AKilledRelayCostsTheApplicationNothingAndTheNextOneGoesOn) {
    WriteQuotes(200'000);  // six seconds
    const NatsServer server;
    const Listener listener(server.Url(), kStream);
    Process first = BesideRelay(server);
    ASSERT_TRUE(IsWaiting(first)) << Errors();
    Process application = Application("application");
    ASSERT_TRUE(listener.Until(Has(1000)));
    first.Signal(SIGKILL);
    first.Wait();
    Process second = BesideRelay(server, "second");
    ASSERT_TRUE(IsRelaying(second, "second")) << Errors("second");
    ASSERT_TRUE(listener.Until([](const Listener::Account& a) { return a.epochs == 2 && a.packets > 0; }));
    EXPECT_EQ(QuotesOf(application, "application").size(), kQuotes);
    const nlohmann::json result = End(second, "second");
    EXPECT_LT(result["packets"].get<std::uint64_t>(), kQuotes);
    EXPECT_EQ(result["sent"], result["packets"]);
    EXPECT_EQ(listener.Now().packets, result["packets"].get<std::uint64_t>());
}

TEST_F(Beside, WhatAStalledRelayCannotTakeIsItsLossToThePacketAndNotTheApplications) {
    WriteQuotes(100'000);
    const NatsServer server;
    const Listener listener(server.Url(), kStream);
    ::setenv("VEXO_STATS_KEEP", "1", 1);
    Process relay = BesideRelay(server);
    ASSERT_TRUE(IsWaiting(relay)) << Errors();
    Process application = Application("application", {"--ring", "1", "--", VEXO_COMMAND, "tap", "--stats-only"});
    ::unsetenv("VEXO_STATS_KEEP");
    ASSERT_TRUE(listener.Until(Has(1000)));
    relay.Signal(SIGSTOP);
    const bool hasAll = HasAllQuotes(application, "application");
    relay.Signal(SIGCONT);
    ASSERT_TRUE(hasAll) << Errors("application");
    ASSERT_TRUE(listener.Until(Has(kQuotes)));
    const nlohmann::json result = End(relay);
    EXPECT_EQ(QuotesOf(application, "application").size(), kQuotes);
    const Listener::Account account = listener.Now();
    EXPECT_EQ(account.packets + account.missing, kQuotes);
    EXPECT_EQ(result["packets"], kQuotes);
    EXPECT_GT(result["lost"]["relay"], 0);
    EXPECT_EQ(result["lost"]["relay"], account.missing);
    EXPECT_EQ(result["lost"]["ring"], 0);
    std::istringstream pages(Shown({"stat", "--json"}));
    for (std::string line; std::getline(pages, line);) {
        const nlohmann::json page = nlohmann::json::parse(line);
        const nlohmann::json& stream = page["streams"][0];
        EXPECT_EQ(stream["packets"], kQuotes) << line;
        EXPECT_EQ(stream["lost"]["by_ring"], 0) << line;
        EXPECT_EQ(stream["lost"]["by_application"], 0) << line;
        const bool isRelay = page["writer"] == "relay";
        EXPECT_EQ(stream["lost"]["by_relay"], isRelay ? result["lost"]["relay"] : nlohmann::json(nullptr)) << line;
    }
}

TEST_F(Beside, AKilledApplicationIsFollowedByTheNextOneAndTheNumbersGoOn) {
    const NatsServer server;
    const Listener listener(server.Url(), kStream, true);
    Process relay = BesideRelay(server);
    ASSERT_TRUE(IsWaiting(relay)) << Errors();
    Process first = Application("first");
    ASSERT_TRUE(listener.Until(Has(1000)));
    first.Signal(SIGKILL);
    first.Wait();
    ASSERT_TRUE(hosted::Eventually([&] {
        return Errors().find("(process " + std::to_string(first.Id()) +
                             ") shares channel 3 of card 0 no more; waiting for the next one\n") != std::string::npos;
    })) << Errors();
    const std::uint64_t before = listener.Now().packets;
    Process second = Application("second");
    EXPECT_EQ(QuotesOf(second, "second").size(), kQuotes);
    const nlohmann::json result = End(relay);
    const Listener::Account account = listener.Now();
    EXPECT_EQ(account.epochs, 1U);
    EXPECT_EQ(account.missing, 0U);
    EXPECT_EQ(account.packets, result["packets"].get<std::uint64_t>());
    EXPECT_GE(account.packets, before + kQuotes);
    EXPECT_TRUE(HasTheWholeCaptureLast(listener));
    EXPECT_THAT(Errors(), HasSubstr("comes from quote_printer (process " + std::to_string(second.Id()) + ")\n"));
}

// The application is stopped meanwhile: otherwise it might write over the damage before the relay sees it.
TEST_F(Beside, ADamagedRingIsToldOfAtOnceAndTheNextApplicationIsRelayed) {
    const NatsServer server;
    const Listener listener(server.Url(), kStream, true);
    Process relay = BesideRelay(server);
    ASSERT_TRUE(IsWaiting(relay)) << Errors();
    Process first = Application("first");
    ASSERT_TRUE(listener.Until(Has(1000)));
    first.Signal(SIGSTOP);
    SpoilRing();
    const std::string damage = "quote_printer (process " + std::to_string(first.Id()) + "): its ring is damaged, ";
    EXPECT_TRUE(hosted::Eventually([&] { return Told(damage) > 0; })) << Errors();
    const std::string before = dir.Read("first.out");
    first.Signal(SIGCONT);  // its ring is whole again from now on, but for what is written once
    ASSERT_TRUE(hosted::Eventually([&] { return dir.Read("first.out") != before || !first.IsRunning(); }));
    first.Signal(SIGKILL);
    first.Wait();
    Process second = Application("second");
    EXPECT_EQ(QuotesOf(second, "second").size(), kQuotes);
    const nlohmann::json result = End(relay);
    EXPECT_EQ(result["lost"]["ring"], 0);
    EXPECT_EQ(Told(damage), 1) << Errors();
    EXPECT_EQ(Told("comes from quote_printer (process " + std::to_string(first.Id()) + ")\n"), 1) << Errors();
    EXPECT_TRUE(HasTheWholeCaptureLast(listener));
}

TEST_F(Beside, ARelayThatComesLaterHasNoPacketBeforeItsBegin) {
    WriteQuotes(1'000'000);  // half a minute: the relay has time to come
    const NatsServer server;
    const Listener listener(server.Url(), kStream);
    Process application = Application();
    ASSERT_TRUE(hosted::Eventually([&] { return !application.IsRunning() || !dir.Read("application.out").empty(); }));
    ::setenv("VEXO_STATS_KEEP", "1", 1);
    Process relay = BesideRelay(server);
    ::unsetenv("VEXO_STATS_KEEP");
    ASSERT_TRUE(listener.Until(Has(100)));
    const nlohmann::json result = End(relay);
    const nlohmann::json page = nlohmann::json::parse(Shown({"stat", "--json"}));
    const nlohmann::json& stream = page["streams"][0];
    EXPECT_GE(page["steps"]["first_packet"], page["steps"]["stream_opened"]);
    EXPECT_GE(stream["first_packet"], page["steps"]["stream_opened"]);
    std::uint64_t gaps = 0;
    for (const nlohmann::json& bucket : stream["gaps"]) gaps += bucket["count"].get<std::uint64_t>();
    EXPECT_EQ(gaps + 1, result["packets"].get<std::uint64_t>());
}

TEST_F(Beside, WithoutAnApplicationItsTimeEndsIt) {
    const NatsServer server;
    Process relay = BesideRelay(server, "relay", {"--seconds", "0.2"});
    EXPECT_EQ(relay.Wait(), 0) << Errors();
    EXPECT_EQ(Result()["packets"], 0);
    EXPECT_EQ(Result()["confirmed"], true);
}

TEST_F(Beside, WithoutAnApplicationASignalEndsItInOrder) {
    const NatsServer server;
    Process relay = BesideRelay(server);
    ASSERT_TRUE(IsWaiting(relay)) << Errors();
    relay.Signal(SIGTERM);
    EXPECT_EQ(relay.Wait(), 0) << Errors();
    EXPECT_EQ(Result()["packets"], 0);
    EXPECT_EQ(Result()["confirmed"], true);
}

TEST_F(Beside, ASignalThatComesTogetherWithTheApplicationEndsItBeforeItBegins) {
    const NatsServer server;
    Process relay = BesideRelay(server);
    ASSERT_TRUE(IsWaiting(relay)) << Errors();
    relay.Signal(SIGSTOP);
    Process application = Application();
    ASSERT_TRUE(hosted::Eventually([&] { return !application.IsRunning() || !dir.Read("application.out").empty(); }));
    relay.Signal(SIGTERM);
    relay.Signal(SIGCONT);
    EXPECT_EQ(relay.Wait(), 0) << Errors();
    EXPECT_EQ(Result()["packets"], 0);
    EXPECT_EQ(Told(", subject vexo.local.0.3.stream"), 0) << Errors();
}

TEST_F(Beside, ASignalEndsItAtOnceWhileItsArchiveStarts) {
    const NatsServer server;
    std::filesystem::create_directory(dir.Path("archive"));
    const LockedCatalogue locked(dir.Path("archive/catalogue.sqlite"), dir.Path("locked"));
    Process relay = BesideRelay(server, "relay", {"--archive", dir.Path("archive")});
    ASSERT_TRUE(IsWaiting(relay)) << Errors();
    Process application = Application();
    ASSERT_TRUE(HasOpened(relay, locked.Path())) << Errors();
    relay.Signal(SIGTERM);
    EXPECT_EQ(relay.Wait(), 128 + SIGTERM) << Errors();
    EXPECT_EQ(QuotesOf(application, "application").size(), kQuotes);
}

TEST_F(Beside, WithoutAnApplicationItEndsWhenTheServersRefuseIt) {
    NatsServer server;
    Process relay = BesideRelay(server);
    ASSERT_TRUE(IsWaiting(relay)) << Errors();
    server.Kill();
    server.Start("authorization { user: desk, password: s3cret, timeout: 300 }");
    EXPECT_EQ(relay.Wait(), 1);
    EXPECT_EQ(Told("vexo relay: the servers refuse this user\n"), 1) << Errors();
    EXPECT_EQ(Result()["confirmed"], false);
}

TEST_F(Beside, AStoppedSubscriberCostsTheApplicationNothing) {
    const NatsServer server;
    Process stopped({VEXO_RELAY_LISTENER, server.Url(), kStream}, dir.Path("stopped.out"));
    ASSERT_TRUE(hosted::Eventually([&] { return dir.Read("stopped.out") == "subscribed\n"; }));
    stopped.Signal(SIGSTOP);
    Process relay = BesideRelay(server);
    ASSERT_TRUE(IsWaiting(relay)) << Errors();
    Process application = Application("application", {"--", VEXO_COMMAND, "tap", "--stats-only", "--keep-page"});
    EXPECT_EQ(QuotesOf(application, "application").size(), kQuotes);
    EXPECT_EQ(End(relay)["packets"], kQuotes);
    const nlohmann::json page = nlohmann::json::parse(Shown({"stat", "--json"}));
    const nlohmann::json& stream = page["streams"][0];
    EXPECT_EQ(page["writer"], "tap");
    EXPECT_EQ(stream["packets"], kQuotes);
    EXPECT_EQ(stream["polls"]["failed"], 0);
    EXPECT_EQ(stream["back_pressure"], 0);
}

TEST_F(Beside, ASecondRelayOfTheSameSiteIsRefusedAlsoWhileBothWait) {
    const NatsServer server;
    Process first = BesideRelay(server);
    ASSERT_TRUE(IsWaiting(first)) << Errors();
    Process second = BesideRelay(server, "second");
    EXPECT_EQ(second.Wait(), 1);
    EXPECT_THAT(Errors("second"),
                HasSubstr("vexo relay: channel 3 of card 0 of site local: another vexo relay --beside "
                          "has it; name this site with --site\n"));
}

TEST_F(Beside, ASecondApplicationOfTheSameChannelRunsUnshared) {
    const NatsServer server;
    Process first = Application("first");
    ASSERT_TRUE(hosted::Eventually([&] { return !first.IsRunning() || !dir.Read("first.out").empty(); }));
    Process second = Application("second");
    EXPECT_EQ(QuotesOf(second, "second").size(), kQuotes);
    EXPECT_THAT(Errors("second"), HasSubstr("vexo tap: channel 3 is not shared: "));
    EXPECT_THAT(Errors("second"), HasSubstr("0.3.ring: another process shares this channel\n"));
    EXPECT_EQ(QuotesOf(first, "first").size(), kQuotes);
}
