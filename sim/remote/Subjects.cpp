#include "sim/remote/Subjects.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace vexo_sim::remote {
namespace {

constexpr std::size_t kMaxSite = 32;
constexpr std::string_view kFirstWord = "vexo.";

bool isSiteLetter(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '-'; }

bool isHostLetter(char c) { return isSiteLetter(c) || c == '.' || c == ':' || c == '[' || c == ']' || c == '%'; }

// Empty when @p word is no server.
std::string serverOf(const std::string& word, std::string& error) {
    const std::size_t colon = word.find("://");
    const std::string scheme = colon == std::string::npos ? "nats" : word.substr(0, colon);
    const std::string host = colon == std::string::npos ? word : word.substr(colon + 3);
    // The word is not repeated: it may hold the password.
    if (word.find('@') != std::string::npos) {
        error =
            "a server's address must not carry a user or a password: name a file with them in "
            "VEXO_NATS_USER_FILE or VEXO_NATS_CREDS";
    } else if (scheme != "nats" && scheme != "tls") {
        error = "\"" + word + "\" is not nats://HOST:PORT or tls://HOST:PORT";
    } else if (host.empty() || !std::all_of(host.begin(), host.end(), isHostLetter)) {
        error = "\"" + word + "\" names no host; write nats://HOST:PORT";
    } else {
        return scheme + "://" + host;
    }
    return {};
}

}  // namespace

bool isSite(const std::string& text) {
    return !text.empty() && text.size() <= kMaxSite && std::all_of(text.begin(), text.end(), isSiteLetter);
}

std::string subjectOf(const Place& place) {
    return std::string(kFirstWord) + place.site + "." + std::to_string(place.bus) + "." + std::to_string(place.channel);
}

std::string streamSubject(const Place& place) { return subjectOf(place) + ".stream"; }

std::string helloSubject(const Place& place) { return subjectOf(place) + ".hello"; }

std::string historySubject(const Place& place) { return subjectOf(place) + ".history"; }

std::string contractSubject(const Place& place, std::uint32_t type, const std::string& key) {
    return subjectOf(place) + ".q." + std::to_string(type) + "." + key;
}

bool isOfRelays(const std::string& subject) { return subject.compare(0, kFirstWord.size(), kFirstWord) == 0; }

std::vector<std::string> serversOf(const std::string& text, std::string& error) {
    std::vector<std::string> servers;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find(',', begin), text.size());
        servers.push_back(serverOf(text.substr(begin, end - begin), error));
        if (servers.back().empty()) return {};
        begin = end + 1;
    }
    return servers;
}

}  // namespace vexo_sim::remote
