#include "sim/remote/nats/ConnectionOptions.h"

#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace vexo_sim::remote {
namespace {

constexpr std::int64_t kReconnectWaitMs = 100;
constexpr std::int64_t kReconnectJitterMs = 100;
constexpr std::int64_t kPingMs = 3000;  // two without an answer, and a server that is gone counts as lost
constexpr int kMaxPings = 2;
constexpr std::int64_t kWriteDeadlineMs = 5000;

void fillFromEnvironment(std::string& file, const char* variable) {
    const char* value = ::secure_getenv(variable);
    if (file.empty() && value != nullptr) file = value;
}

// Without the line feed, and without a carriage return before it.
std::string lineOf(std::istream& file) {
    std::string line;
    std::getline(file, line);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

bool isReadable(const std::string& file, std::string& error) {
    if (file.empty() || ::access(file.c_str(), R_OK) == 0) return true;
    error = file + ": " + std::strerror(errno);
    return false;
}

bool setUser(natsOptions* options, const std::string& userFile, std::string& error) {
    std::ifstream file(userFile);
    const std::string user = lineOf(file);
    const std::string password = lineOf(file);
    if (user.empty()) {
        error = userFile + ": the first line must be the user, the second the password; or a token alone";
        return false;
    }
    if (password.empty()) return natsOptions_SetToken(options, user.c_str()) == NATS_OK;
    return natsOptions_SetUserInfo(options, user.c_str(), password.c_str()) == NATS_OK;
}

bool setServers(natsOptions* options, const std::vector<std::string>& servers) {
    std::vector<const char*> texts;
    texts.reserve(servers.size());
    for (const std::string& server : servers) texts.push_back(server.c_str());
    return natsOptions_SetServers(options, texts.data(), static_cast<int>(texts.size())) == NATS_OK;
}

bool wantsTls(const ConnectionSettings& settings) {
    const auto isTls = [](const std::string& server) { return server.compare(0, 6, "tls://") == 0; };
    return !settings.tlsCaFile.empty() || !settings.tlsCertFile.empty() ||
           std::any_of(settings.servers.begin(), settings.servers.end(), isTls);
}

// Whether a step went well; otherwise @p error names the file.
bool isDone(natsStatus status, const std::string& file, std::string& error) {
    if (status != NATS_OK) error = file + ": " + reasonOf(status);
    return status == NATS_OK;
}

bool setTls(natsOptions* options, const ConnectionSettings& settings, std::string& error) {
    if (!wantsTls(settings)) return true;
    if (!isDone(natsOptions_SetSecure(options, true), "TLS", error)) return false;
    const std::string& ca = settings.tlsCaFile;
    const std::string& certificate = settings.tlsCertFile;
    if (!ca.empty() && !isDone(natsOptions_LoadCATrustedCertificates(options, ca.c_str()), ca, error)) return false;
    if (certificate.empty()) return true;
    return isDone(natsOptions_LoadCertificatesChain(options, certificate.c_str(), settings.tlsKeyFile.c_str()),
                  certificate, error);
}

bool areFilesReadable(const ConnectionSettings& settings, std::string& error) {
    for (const std::string* file :
         {&settings.credsFile, &settings.userFile, &settings.tlsCaFile, &settings.tlsCertFile, &settings.tlsKeyFile})
        if (!isReadable(*file, error)) return false;
    if (settings.tlsCertFile.empty() == settings.tlsKeyFile.empty()) return true;
    error = "a certificate needs its key: name both files";
    return false;
}

// These fail for values that cannot be, and there are none.
void setManner(natsOptions* options, const ConnectionSettings& settings) {
    const auto servers = static_cast<std::int64_t>(std::max<std::size_t>(1, settings.servers.size()));
    natsOptions_SetName(options, settings.name.c_str());
    natsOptions_SetTimeout(options, std::max<std::int64_t>(100, settings.wait.count() / servers));
    natsOptions_SetAllowReconnect(options, true);
    natsOptions_SetMaxReconnect(options, -1);
    natsOptions_SetReconnectWait(options, kReconnectWaitMs);
    natsOptions_SetReconnectJitter(options, kReconnectJitterMs, kReconnectJitterMs);
    natsOptions_SetReconnectBufSize(options, settings.reconnectBytes);
    natsOptions_SetPingInterval(options, kPingMs);
    natsOptions_SetMaxPingsOut(options, kMaxPings);
    natsOptions_SetWriteDeadline(options, kWriteDeadlineMs);
    natsOptions_SetSendAsap(options, settings.sendsAtOnce);
}

}  // namespace

void ConnectionSettings::readEnvironment() {
    fillFromEnvironment(credsFile, "VEXO_NATS_CREDS");
    fillFromEnvironment(userFile, "VEXO_NATS_USER_FILE");
    fillFromEnvironment(tlsCaFile, "VEXO_NATS_TLS_CA");
    fillFromEnvironment(tlsCertFile, "VEXO_NATS_TLS_CERT");
    fillFromEnvironment(tlsKeyFile, "VEXO_NATS_TLS_KEY");
}

OptionsPointer makeOptions(const ConnectionSettings& settings, std::string& error) {
    if (!areFilesReadable(settings, error)) return nullptr;
    natsOptions* made = nullptr;
    const natsStatus status = natsOptions_Create(&made);
    OptionsPointer options(made);
    if (status != NATS_OK || !setServers(made, settings.servers)) {
        error = "cannot prepare a connection: " + reasonOf(status);
        return nullptr;
    }
    setManner(made, settings);
    if (!setTls(made, settings, error)) return nullptr;
    if (!settings.userFile.empty() && !setUser(made, settings.userFile, error)) return nullptr;
    if (!settings.credsFile.empty()) natsOptions_SetUserCredentialsFromFiles(made, settings.credsFile.c_str(), nullptr);
    return options;
}

std::string reasonOf(natsStatus status) {
    natsStatus last = NATS_OK;
    const char* words = nats_GetLastError(&last);
    const std::string text = natsStatus_GetText(status);
    return words != nullptr && *words != '\0' && last == status ? text + " (" + words + ")" : text;
}

}  // namespace vexo_sim::remote
