// `vexo relay` over TLS: a server with a certificate of the test's own authority, which wants one of its clients.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "tests/relay/Listener.h"
#include "tests/relay/RelayFixture.h"

using hosted::Process;
using test_support::NatsServer;
using ::testing::HasSubstr;

namespace {

constexpr char kOpenssl[] = "/usr/bin/openssl";

class RelayWithTls : public RelayFixture {
protected:
    void SetUp() override {
        SKIP_WITHOUT_NATS_SERVER();
        if (::access(kOpenssl, X_OK) != 0) GTEST_SKIP() << "skipped: openssl is not installed";
        MakeCertificate("authority", {});
        MakeCertificate("stranger", {});
        MakeCertificate("server",
                        {"-CA", "authority.pem", "-CAkey", "authority.key", "-addext", "subjectAltName=IP:127.0.0.1"});
        MakeCertificate("client", {"-CA", "authority.pem", "-CAkey", "authority.key"});
        server = std::make_unique<NatsServer>("tls { cert_file: \"" + dir.Path("server.pem") + "\", key_file: \"" +
                                              dir.Path("server.key") + "\", ca_file: \"" + dir.Path("authority.pem") +
                                              "\", verify: true, timeout: 300 }");
        WriteCapture(100, 140, 0);
    }

    /// NAME.pem and NAME.key. Without an authority in @p more it is one itself.
    void MakeCertificate(const std::string& name, const std::vector<std::string>& more) {
        std::vector<std::string> command = {
            kOpenssl, "req",        "-x509", "-newkey", "ec",          "-pkeyopt", "ec_paramgen_curve:prime256v1",
            "-nodes", "-days",      "2",     "-subj",   "/CN=" + name, "-keyout",  name + ".key",
            "-out",   name + ".pem"};
        command.insert(command.end(), more.begin(), more.end());
        Process openssl(command, {}, dir.Path("openssl"));
        ASSERT_EQ(openssl.Wait(), 0) << dir.Read("openssl");
    }
    Process StartWith(const std::vector<std::string>& files) {
        std::vector<std::string> options = {"--channel", "3", "--to", server->Url()};
        options.insert(options.end(), files.begin(), files.end());
        return Start(Replaying("max"), options);
    }
    /// @return what a relay says that is refused
    std::string Refusal(const std::vector<std::string>& files) {
        EXPECT_EQ(StartWith(files).Wait(), 1);
        return Errors();
    }

    std::unique_ptr<NatsServer> server;
};

}  // namespace

TEST_F(RelayWithTls, WithACertificateOfTheAuthorityItRelays) {
    ::setenv("VEXO_NATS_TLS_CA", dir.Path("authority.pem").c_str(), 1);
    ::setenv("VEXO_NATS_TLS_CERT", dir.Path("client.pem").c_str(), 1);
    ::setenv("VEXO_NATS_TLS_KEY", dir.Path("client.key").c_str(), 1);
    const Listener listener(server->Url(), "vexo.local.0.3.stream");
    for (const char* name : {"VEXO_NATS_TLS_CA", "VEXO_NATS_TLS_CERT", "VEXO_NATS_TLS_KEY"}) ::unsetenv(name);
    Process relay = StartWith({"--tls-ca", "authority.pem", "--tls-cert", "client.pem", "--tls-key", "client.key"});
    ASSERT_TRUE(listener.Until([](const Listener::Account& account) { return account.packets == 100; })) << Errors();
    EXPECT_EQ(End(relay)["sent"], 100);
}

TEST_F(RelayWithTls, AServerOfAnotherAuthorityIsRefused) {
    EXPECT_THAT(Refusal({"--tls-ca", "stranger.pem", "--tls-cert", "client.pem", "--tls-key", "client.key"}),
                HasSubstr("unable to get local issuer certificate:depth=0:cert=/CN=server"));
    EXPECT_THAT(Refusal({}), HasSubstr("unable to get local issuer certificate:depth=0:cert=/CN=server"));
}

TEST_F(RelayWithTls, WithoutACertificateOfItsOwnTheServerRefusesIt) {
    EXPECT_THAT(Refusal({"--tls-ca", "authority.pem"}),
                HasSubstr("; the server may want a certificate of this program"));
    EXPECT_THAT(server->Log(), HasSubstr("client didn't provide a certificate"));
}

TEST_F(RelayWithTls, WithACertificateOfAnotherAuthorityTheServerRefusesIt) {
    EXPECT_THAT(Refusal({"--tls-ca", "authority.pem", "--tls-cert", "stranger.pem", "--tls-key", "stranger.key"}),
                HasSubstr("; the server may not accept this program's certificate"));
    EXPECT_THAT(server->Log(), HasSubstr("failed to verify client certificate"));
}

TEST_F(RelayWithTls, ACertificateNeedsItsOwnKey) {
    EXPECT_THAT(Refusal({"--tls-ca", "authority.pem", "--tls-cert", "client.pem"}),
                HasSubstr("vexo relay: a certificate needs its key: name both files\n"));
    EXPECT_THAT(Refusal({"--tls-ca", "authority.pem", "--tls-cert", "client.pem", "--tls-key", "stranger.key"}),
                HasSubstr("key values mismatch"));
}
