#include "tests/hosted/HostProcess.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace hosted {
namespace {

void Redirect(const std::string& path, int target) {
    if (path.empty()) return;
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (file >= 0) dup2(file, target);
}

std::vector<char*> Arguments(const std::vector<std::string>& command) {
    std::vector<char*> arguments;
    for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    return arguments;
}

int ExitCode(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

}  // namespace

CardDirectory::CardDirectory() {
    // Several tests run at once, each with cards. A container's /dev/shm may be too small for that, or read-only.
    constexpr std::uint64_t kRoom = 256U << 20;
    struct statvfs memory {};
    const bool fits = statvfs("/dev/shm", &memory) == 0 && std::uint64_t{memory.f_bavail} * memory.f_bsize >= kRoom;
    for (const std::string parent : {"/dev/shm", "/tmp"}) {
        if (parent == "/dev/shm" && !fits) continue;
        m_path = parent + "/vexo-test-XXXXXX";
        if (mkdtemp(m_path.data()) != nullptr) {
            setenv("VEXO_SIM_DIR", m_path.c_str(), 1);
            return;
        }
    }
    throw std::runtime_error("no directory for cards in /dev/shm, nor in /tmp");
}

CardDirectory::~CardDirectory() {
    unsetenv("VEXO_SIM_DIR");
    std::filesystem::remove_all(m_path);
}

std::vector<std::string> CardDirectory::Files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_path)) names.push_back(entry.path().filename());
    return names;
}

Process::Process(const std::vector<std::string>& command, const std::string& output, const std::string& errors) {
    std::vector<char*> arguments = Arguments(command);
    m_pid = fork();
    if (m_pid != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that crashes leaves nothing running
    Redirect(output, STDOUT_FILENO);
    Redirect(errors, STDERR_FILENO);
    execv(arguments[0], arguments.data());
    _exit(127);
}

Process::~Process() {
    if (!IsRunning()) return;
    Signal(SIGKILL);
    Wait();
}

Process& Process::operator=(Process&& other) noexcept {
    std::swap(m_pid, other.m_pid);
    std::swap(m_status, other.m_status);
    return *this;
}

bool Process::IsRunning() {
    if (m_pid == 0 || m_status != -1) return false;
    return waitpid(m_pid, &m_status, WNOHANG) == 0 ? (m_status = -1, true) : false;
}

void Process::Signal(int signal) const { kill(m_pid, signal); }

int Process::Wait() {
    if (m_status == -1) waitpid(m_pid, &m_status, 0);
    return ExitCode(m_status);
}

Process StartHost(const std::vector<std::string>& options) {
    std::vector<std::string> command = {VEXO_SIMCARD, "--quiet"};
    command.insert(command.end(), options.begin(), options.end());
    Process host(command);
    std::uint32_t bus = 0;
    for (std::size_t n = 0; n + 1 < options.size(); ++n)
        if (options[n] == "--bus") bus = static_cast<std::uint32_t>(std::stoul(options[n + 1]));
    const std::string own = "\"pid\": " + std::to_string(host.Id()) + ",";
    Eventually([&] { return !host.IsRunning() || StatusJson(bus).find(own) != std::string::npos; });
    if (!host.IsRunning()) throw std::runtime_error("the host ended with " + std::to_string(host.Wait()));
    return host;
}

std::string StatusJson(std::uint32_t bus) {
    const std::string command = "'" VEXO_SIMCARD "' --json --bus " + std::to_string(bus) + " 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    std::string text;
    char buffer[4096];
    while (const std::size_t length = fread(buffer, 1, sizeof buffer, pipe)) text.append(buffer, length);
    pclose(pipe);
    return text;
}

std::string UserName() { return getpwuid(geteuid())->pw_name; }

std::string GroupName() { return getgrgid(getegid())->gr_name; }

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

void ShortPause() {
    const timespec duration{0, 5'000'000};
    nanosleep(&duration, nullptr);
}

}  // namespace hosted
