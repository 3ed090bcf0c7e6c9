#include "sim/remote/Subjects.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace vexo_sim::remote {
namespace {

std::vector<std::string> Servers(const std::string& text) {
    std::string error;
    std::vector<std::string> servers = serversOf(text, error);
    EXPECT_EQ(servers.empty(), !error.empty()) << error;
    return servers;
}

std::string ErrorOf(const std::string& text) {
    std::string error;
    EXPECT_THAT(serversOf(text, error), IsEmpty()) << text;
    return error;
}

TEST(Subjects, AChannelOfASiteHasItsOwn) {
    const Place place{"colo-1", 2, 13};
    EXPECT_EQ(streamSubject(place), "vexo.colo-1.2.13.stream");
    EXPECT_EQ(helloSubject(place), "vexo.colo-1.2.13.hello");
    EXPECT_EQ(contractSubject(place, 17, "SR505"), "vexo.colo-1.2.13.q.17.SR505");
    EXPECT_EQ(streamSubject({}), "vexo.local.0.0.stream");
}

TEST(Subjects, AllOfRelaysHaveTheSameFirstWord) {
    for (const char* subject : {"vexo.local.0.3.stream", "vexo.colo-1.2.13.q.17.SR505", "vexo."})
        EXPECT_TRUE(isOfRelays(subject)) << subject;
    for (const char* subject : {"", "vexo", "vexor.local", "_INBOX.vexo.local.0.3.stream"})
        EXPECT_FALSE(isOfRelays(subject)) << subject;
}

TEST(Subjects, ASiteIsOneWordThatMeansNothingElse) {
    EXPECT_TRUE(isSite("a"));
    EXPECT_TRUE(isSite("Colo_1-b"));
    EXPECT_TRUE(isSite(std::string(32, 'x')));
    for (const char* site : {"", "a.b", "*", ">", "a b", "a\n"}) EXPECT_FALSE(isSite(site)) << site;
    EXPECT_FALSE(isSite(std::string(33, 'x')));
}

TEST(Servers, AreSeparatedByCommas) {
    EXPECT_THAT(Servers("nats://a:4222"), ElementsAre("nats://a:4222"));
    EXPECT_THAT(Servers("nats://a:4222,tls://b.example:4223"), ElementsAre("nats://a:4222", "tls://b.example:4223"));
    EXPECT_THAT(Servers("10.0.0.1:4222,[::1]:4222"), ElementsAre("nats://10.0.0.1:4222", "nats://[::1]:4222"));
}

TEST(Servers, OneThatCannotBeIsNamed) {
    EXPECT_THAT(ErrorOf("http://a:1"), HasSubstr("\"http://a:1\""));
    EXPECT_THAT(ErrorOf("nats://"), HasSubstr("names no host"));
    EXPECT_THAT(ErrorOf(""), HasSubstr("names no host"));
    EXPECT_THAT(ErrorOf("nats://a,,nats://b"), HasSubstr("names no host"));
    EXPECT_THAT(ErrorOf("nats://a b"), HasSubstr("names no host"));
}

TEST(Servers, APasswordInAnAddressIsRefusedAndNotRepeated) {
    const std::string error = ErrorOf("nats://alice:secret@a:4222");
    EXPECT_THAT(error, HasSubstr("VEXO_NATS_USER_FILE"));
    EXPECT_THAT(error, Not(HasSubstr("secret")));
}

}  // namespace
}  // namespace vexo_sim::remote
