// `vexo relay` as a user of the servers whose permissions are narrow.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "sim/remote/Wire.h"
#include "tests/relay/RelayFixture.h"

using hosted::Process;
using test_support::NatsServer;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

class RelayWithPermissions : public RelayFixture {
protected:
    void SetUp() override {
        SKIP_WITHOUT_NATS_SERVER();
        dir.Write("user", "relay\nof the relay\n", 0600);
        WriteCapture(10, 140, 0);
    }

    /// The relay may publish and subscribe to these subjects alone. A stranger may do everything.
    void StartServer(const std::string& publish, const std::string& subscribe) {
        server = std::make_unique<NatsServer>(
            "authorization { timeout: 300, users: [ { user: stranger, password: stranger }, "
            "{ user: relay, password: \"of the relay\", permissions: { publish: [" +
            publish + "], subscribe: [" + subscribe + "] } } ] }");
    }
    Process StartRelay(const std::vector<std::string>& more = {}, const std::string& name = "relay") {
        std::vector<std::string> options = {"--channel", "3", "--to", server->Url(), "--user-file", dir.Path("user")};
        options.insert(options.end(), more.begin(), more.end());
        return Start(Replaying("max"), options, name);
    }

    /// A client that nobody wrote for this: it asks the relay who it is, and wants the answer at that subject.
    void AskAsStranger(const std::string& reply) const {
        const std::vector<unsigned char> request = vexo_sim::wire::encodeHelloRequest();
        const std::string url = server->Url();
        const int connection = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(url.substr(url.rfind(':') + 1))));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(::connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        const std::string text =
            "CONNECT {\"verbose\":false,\"user\":\"stranger\",\"pass\":\"stranger\"}\r\n"
            "PUB vexo.local.0.3.hello " +
            reply + " " + std::to_string(request.size()) + "\r\n" + std::string(request.begin(), request.end()) +
            "\r\nPING\r\n";
        EXPECT_EQ(::write(connection, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        std::string answer;
        for (char byte = 0; answer.find("PONG") == std::string::npos && ::read(connection, &byte, 1) == 1;)
            answer += byte;
        EXPECT_THAT(answer, HasSubstr("PONG"));
        ::close(connection);
    }

    std::unique_ptr<NatsServer> server;
};

}  // namespace

TEST_F(RelayWithPermissions, WithoutTheOneToPublishItsStreamItSaysSoAndEndsWithStatus1) {
    StartServer(R"("vexo.local.0.3.hello")", R"(">")");
    EXPECT_EQ(StartRelay().Wait(), 1);
    EXPECT_THAT(Errors(), HasSubstr("vexo relay: the servers refuse what this relay needs: Permissions Violation for "
                                    "Publish to \"vexo.local.0.3.stream\"\n"));
    EXPECT_EQ(Result()["confirmed"], false);
}

TEST_F(RelayWithPermissions, WithoutTheOneToSubscribeItSaysSoAndEndsWithStatus1) {
    StartServer(R"(">")", R"("_INBOX.>")");
    EXPECT_EQ(StartRelay().Wait(), 1);
    EXPECT_THAT(Errors(), HasSubstr("vexo relay: the servers refuse what this relay needs: Permissions Violation for "
                                    "Subscription to \"vexo.local.0.3.hello\"\n"));
}

TEST_F(RelayWithPermissions, WithoutTheOneToAnswerFromItsArchiveItSaysSoAndEndsWithStatus1) {
    StartServer(R"(">")", R"("_INBOX.>", "vexo.local.0.3.hello")");
    std::filesystem::create_directory(dir.Path("archive"));
    EXPECT_EQ(StartRelay({"--archive", dir.Path("archive")}).Wait(), 1);
    EXPECT_THAT(Errors(), HasSubstr("vexo relay: the servers refuse what this relay needs: Permissions Violation for "
                                    "Subscription to \"vexo.local.0.3.history\"\n"));
}

TEST_F(RelayWithPermissions, AStrangersSubjectForTheAnswerDoesNotEndIt) {
    StartServer(R"("vexo.local.0.3.stream", "vexo.local.0.3.hello", "_INBOX.>")",
                R"("vexo.local.0.3.hello", "_INBOX.>")");
    Process relay = StartRelay();
    ASSERT_TRUE(IsRelaying(relay)) << Errors();
    AskAsStranger("x\"vexo.local.0.3.stream\"");
    for (int subject = 0; subject < 100; ++subject) AskAsStranger("stranger" + std::to_string(subject));
    EXPECT_TRUE(hosted::Eventually([&] { return Errors().find("stranger0") != std::string::npos; }));
    End(relay);
    EXPECT_THAT(Errors(),
                HasSubstr("vexo relay: the servers refuse: Permissions Violation for Publish to \"stranger0\"\n"));
    EXPECT_THAT(Errors(), Not(HasSubstr("needs")));
    EXPECT_THAT(Errors(), Not(HasSubstr("stranger99")));
}

TEST_F(RelayWithPermissions, ItsAnswersDoNotGoWhereRelaysPublish) {
    StartServer(R"("vexo.local.0.3.>", "_INBOX.>")", R"(">")");
    Process relay = StartRelay();
    ASSERT_TRUE(IsRelaying(relay)) << Errors();
    AskAsStranger("vexo.other.0.3.stream");
    AskAsStranger("somewhere");
    EXPECT_TRUE(hosted::Eventually([&] { return server->Log().find("Subject \"somewhere\"") != std::string::npos; }));
    EXPECT_THAT(server->Log(), Not(HasSubstr("vexo.other.0.3.stream")));
    End(relay);
}

TEST_F(RelayWithPermissions, ThoseOfThePageLetItRelayAndRefuseASecondOne) {
    server = std::make_unique<NatsServer>(test_support::AuthorizationOf(VEXO_MANY_MACHINES));
    dir.Write("user", "relay\nchange this one\n", 0600);
    std::filesystem::create_directory(dir.Path("archive"));
    Process first = StartRelay({"--archive", dir.Path("archive"), "--by-contract"});
    ASSERT_TRUE(IsRelaying(first)) << Errors();
    Process second = StartRelay({}, "second");
    EXPECT_EQ(second.Wait(), 1);
    EXPECT_THAT(Errors("second"), HasSubstr("vexo relay: vexo.local.0.3 is taken: "));
    EXPECT_EQ(End(first)["sent"], 10);
    EXPECT_THAT(server->Log(), Not(HasSubstr("Violation")));
}
