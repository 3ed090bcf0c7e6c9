#include "tests/relay/RelayFixture.h"

#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "capture/CaptureFiles.h"

using hosted::Process;

namespace {

// Statistics pages and shared rings of other tests, and of the user, are not seen.
constexpr const char* kDirectories[] = {"VEXO_STATS_DIR", "VEXO_SHARE_DIR"};

}  // namespace

RelayFixture::RelayFixture() {
    ::setenv("VEXO_LAYOUT", "simulated", 1);
    for (const char* variable : kDirectories) ::setenv(variable, dir.Path(variable).c_str(), 1);
}

RelayFixture::~RelayFixture() {
    ::unsetenv("VEXO_LAYOUT");
    for (const char* variable : kDirectories) ::unsetenv(variable);
}

std::string RelayFixture::Shown(std::vector<std::string> words) const {
    words.insert(words.begin(), VEXO_COMMAND);
    Process command(words, dir.Path("shown"), dir.Path("shown.err"));
    EXPECT_EQ(command.Wait(), 0) << dir.Read("shown.err");
    return dir.Read("shown");
}

std::vector<std::string> RelayFixture::WriteCapture(std::size_t packets, std::size_t size, std::uint64_t everyNs) {
    capture::CaptureFiles::Settings settings;
    settings.path = dir.Path("day.pcapng");
    settings.report = [](const std::string&) {};  // where it writes
    capture::CaptureFiles files(settings);
    constexpr std::uint64_t kBegin = 1'700'000'000'000'000'000;
    const std::uint32_t stream = files.addInterface({capture::kStreamLink, "channel 3", ""}, kBegin);
    std::vector<std::string> all;
    for (std::size_t n = 0; n < packets; ++n) {
        std::string packet(size, static_cast<char>('a' + n % 26));
        const std::string number = std::to_string(n);
        packet.replace(0, 4, std::string("\x11\0\0\0", 4));
        packet.replace(12, number.size(), number);
        files.addPacket(stream, kBegin + n * everyNs, packet.data(), static_cast<std::uint32_t>(packet.size()));
        all.push_back(packet);
    }
    files.close(kBegin + packets * everyNs);
    EXPECT_EQ(files.written(), packets);
    dir.Write("replay.ini", "[replay]\nfile = day.pcapng\n");
    return all;
}

std::vector<std::string> RelayFixture::Replaying(const std::string& pace) {
    return {"--embedded", "--scenario", "replay.ini", "--set", "pace.pace=" + pace};
}

hosted::Process RelayFixture::Start(const std::vector<std::string>& card, const std::vector<std::string>& options,
                                    const std::string& name) {
    std::vector<std::string> command = {VEXO_COMMAND, "sim", "run"};
    command.insert(command.end(), card.begin(), card.end());
    command.insert(command.end(), {"--", VEXO_COMMAND, "relay", "--json"});
    command.insert(command.end(), options.begin(), options.end());
    dir.Write(name + ".out", "");
    dir.Write(name + ".err", "");
    return hosted::Process(command, dir.Path(name + ".out"), dir.Path(name + ".err"));
}

bool RelayFixture::IsRelaying(hosted::Process& relay, const std::string& name) const {
    const auto hasBegun = [&] { return Errors(name).find("vexo relay: channel ") != std::string::npos; };
    return hosted::Eventually([&] { return hasBegun() || !relay.IsRunning(); }) && hasBegun();
}

bool RelayFixture::HasOpened(hosted::Process& relay, const std::string& path) {
    const auto hasOpened = [&] {
        std::error_code gone;
        std::filesystem::directory_iterator one("/proc/" + std::to_string(relay.Id()) + "/fd", gone);
        for (; !gone && one != std::filesystem::directory_iterator(); one.increment(gone)) {
            std::error_code closed;
            if (std::filesystem::read_symlink(one->path(), closed) == path) return true;
        }
        return false;
    };
    return hosted::Eventually([&] { return hasOpened() || !relay.IsRunning(); }) && relay.IsRunning();
}

nlohmann::json RelayFixture::End(hosted::Process& relay, const std::string& name) {
    relay.Signal(SIGINT);
    EXPECT_EQ(relay.Wait(), 0) << Errors(name);
    return Result(name);
}

nlohmann::json RelayFixture::Result(const std::string& name) const {
    return nlohmann::json::parse(dir.Read(name + ".out"), nullptr, false);
}
