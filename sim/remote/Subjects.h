#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// Names on the message engine: where a relay publishes, and which servers to connect to.
namespace vexo_sim::remote {

/// One channel of one card of one site.
struct Place {
    std::string site = "local";
    std::uint32_t bus = 0;
    std::uint32_t channel = 0;
};

/// 1 to 32 letters, digits, '_' or '-'.
bool isSite(const std::string& text);

/// "vexo.SITE.BUS.CHANNEL"
std::string subjectOf(const Place& place);
/// All packets of the channel.
std::string streamSubject(const Place& place);
/// Where the relay answers who it is.
std::string helloSubject(const Place& place);
/// Where the relay's archive answers.
std::string historySubject(const Place& place);
/// Packets of one contract. @p key must have no blank, '.', '*' or '>'.
std::string contractSubject(const Place& place, std::uint32_t type, const std::string& key);

/// Whether relays use such a subject, of whatever site.
bool isOfRelays(const std::string& subject);

/// Splits "nats://host:4222,tls://other:4222". A word without a scheme gets "nats://".
/// @param error  one line when a word is no server, or carries a user or password, which every user of the machine
///               could read from the command line
/// @return empty on failure
std::vector<std::string> serversOf(const std::string& text, std::string& error);

}  // namespace vexo_sim::remote
