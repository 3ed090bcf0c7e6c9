#include "sim/hw/RemoteSettings.h"

#include <cstdlib>
#include <ctime>

#include "sim/hw/Cards.h"
#include "sim/remote/Moment.h"

namespace vexo_sim {
namespace {

std::string environment(const char* variable) {
    const char* value = ::secure_getenv(variable);
    return value != nullptr ? value : "";
}

bool readSite(RemoteSettings& settings, std::string& error) {
    const std::string text = environment("VEXO_SIM_REMOTE_SITE");
    if (text.empty()) return true;
    settings.site = text;
    if (remote::isSite(text)) return true;
    error = "VEXO_SIM_REMOTE_SITE is \"" + text + "\", it must be 1 to 32 letters, digits, - or _";
    return false;
}

bool readBus(RemoteSettings& settings, std::string& error) {
    const std::string text = environment("VEXO_SIM_REMOTE_BUS");
    if (text.empty()) return true;
    if (text.size() == 1 && text[0] >= '0' && static_cast<std::uint32_t>(text[0] - '0') < kMaxCards) {
        settings.bus = static_cast<std::uint32_t>(text[0] - '0');
        return true;
    }
    error = "VEXO_SIM_REMOTE_BUS is \"" + text + "\", it must be 0 to " + std::to_string(kMaxCards - 1);
    return false;
}

bool readRegisters(RemoteSettings& settings, std::string& error) {
    const std::string text = environment("VEXO_SIM_REMOTE_REGISTERS");
    settings.ownRegisters = text == "own";
    if (text.empty() || settings.ownRegisters) return true;
    error = "VEXO_SIM_REMOTE_REGISTERS is \"" + text + "\", it must be own or not set";
    return false;
}

bool readSince(RemoteSettings& settings, std::string& error) {
    const std::string text = environment("VEXO_SIM_REMOTE_SINCE");
    if (text.empty()) return true;
    std::timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const auto nowNs = static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
    settings.sinceNs = remote::pastMomentOf(text, nowNs);
    if (settings.sinceNs) return true;
    error = "VEXO_SIM_REMOTE_SINCE is \"" + text + "\": " + remote::kMomentForms;
    return false;
}

}  // namespace

std::optional<RemoteSettings> readRemoteSettings(std::string& error) {
    RemoteSettings settings;
    const std::string servers = environment("VEXO_SIM_REMOTE");
    if (servers.empty()) {
        error = "VEXO_SIM_CARD is \"remote\", but VEXO_SIM_REMOTE names no server, such as nats://host:4222";
        return std::nullopt;
    }
    settings.servers = remote::serversOf(servers, error);
    if (settings.servers.empty()) {
        error = "VEXO_SIM_REMOTE: " + error;
        return std::nullopt;
    }
    if (!readSite(settings, error) || !readBus(settings, error) || !readRegisters(settings, error) ||
        !readSince(settings, error))
        return std::nullopt;
    return settings;
}

}  // namespace vexo_sim
