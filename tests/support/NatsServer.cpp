#include "tests/support/NatsServer.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace test_support {
namespace {

namespace fs = std::filesystem;

// Debian puts it where the PATH of an ordinary user does not look.
std::string Program() {
    std::istringstream folders(std::string(std::getenv("PATH") != nullptr ? std::getenv("PATH") : "") +
                               ":/usr/sbin:/usr/local/bin");
    for (std::string folder; std::getline(folders, folder, ':');) {
        const std::string program = folder + "/nats-server";
        if (!folder.empty() && ::access(program.c_str(), X_OK) == 0) return program;
    }
    return {};
}

std::string ReadAll(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string NewDirectory() {
    const char* parent = std::getenv("TMPDIR");
    std::string path = std::string(parent != nullptr ? parent : "/tmp") + "/vexo-nats-XXXXXX";
    if (::mkdtemp(path.data()) == nullptr) throw std::system_error(errno, std::generic_category(), path);
    return path;
}

pid_t Launch(const std::string& program, const std::string& config, const std::string& log) {
    const char* const arguments[] = {program.c_str(), "-c", config.c_str(), nullptr};
    const pid_t pid = ::fork();
    if (pid < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (pid > 0) return pid;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that crashes leaves nothing running
    const int file = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    ::dup2(file, STDOUT_FILENO);
    ::dup2(file, STDERR_FILENO);
    ::execv(program.c_str(), const_cast<char* const*>(arguments));
    ::_exit(127);
}

}  // namespace

bool NatsServer::IsInstalled() { return !Program().empty(); }

NatsServer::NatsServer(std::string config, int port)
    : m_directory(NewDirectory()), m_config(std::move(config)), m_port(port) {
    Start();
}

NatsServer::~NatsServer() {
    End(SIGKILL);
    std::error_code ignored;
    fs::remove_all(m_directory, ignored);
}

std::string NatsServer::Url() const { return "nats://127.0.0.1:" + std::to_string(m_port); }

// The server writes a file with its port when it takes connections.
void NatsServer::Start() {
    const std::string config = m_directory + "/server.conf";
    std::ofstream(config) << "listen: \"127.0.0.1:" << (m_port != 0 ? m_port : -1) << "\"\nports_file_dir: \""
                          << m_directory << "\"\n"
                          << m_config << "\n";
    m_pid = Launch(Program(), config, m_directory + "/log");
    for (;;) {
        const std::string port = FindPort();
        if (!port.empty()) {
            m_port = std::stoi(port);
            return;
        }
        int status = 0;
        if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_pid = 0;
            throw std::runtime_error("nats-server ended instead of starting:\n" + Log());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

std::string NatsServer::FindPort() const {
    const std::string text = ReadAll(m_directory + "/nats-server_" + std::to_string(m_pid) + ".ports");
    const std::string before = "nats://127.0.0.1:";
    const std::size_t at = text.find(before);
    const std::size_t end = text.find('"', at);
    if (at == std::string::npos || end == std::string::npos) return {};
    return text.substr(at + before.size(), end - at - before.size());
}

void NatsServer::End(int signal) {
    if (m_pid == 0) return;
    ::kill(m_pid, signal);
    while (::waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    m_pid = 0;
}

void NatsServer::Kill() { End(SIGKILL); }

void NatsServer::Freeze() const { ::kill(m_pid, SIGSTOP); }

void NatsServer::Thaw() const { ::kill(m_pid, SIGCONT); }

std::string NatsServer::Log() const { return ReadAll(m_directory + "/log"); }

}  // namespace test_support
