#include "tests/support/NatsServer.h"

#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <stdexcept>
#include <vector>

namespace test_support {
namespace {

namespace fs = std::filesystem;

// Debian has it in /usr/sbin, which the path of an ordinary user lacks.
std::string Program() {
    for (const char* path : {"/usr/sbin/nats-server", "/usr/bin/nats-server", "/usr/local/bin/nats-server"})
        if (::access(path, X_OK) == 0) return path;
    return {};
}

std::string NewDirectory() {
    const char* const parent = std::getenv("TMPDIR");
    std::string path = std::string(parent != nullptr && *parent != '\0' ? parent : "/tmp") + "/vexo-nats-XXXXXX";
    if (::mkdtemp(path.data()) == nullptr) throw std::runtime_error("no directory for the server: " + path);
    return path;
}

}  // namespace

bool NatsServer::isInstalled() { return !Program().empty(); }

NatsServer::NatsServer(const std::string& more) : m_directory(NewDirectory()), m_more(more) { Start(); }

NatsServer::~NatsServer() {
    m_process.reset();
    std::error_code error;
    fs::remove_all(m_directory, error);
}

std::string NatsServer::Log() const { return hosted::ReadFile(m_directory + "/log"); }

void NatsServer::Kill() {
    m_process->Signal(SIGKILL);
    m_process->Wait();
}

// The server chooses the port at its first start, so no other test can take it in between.
void NatsServer::Start() {
    const std::string config = m_directory + "/server.conf";
    hosted::WriteFile(
        config, "listen: \"127.0.0.1:" + m_port + "\"\nports_file_dir: \"" + m_directory + "\"\n" + m_more + "\n");
    for (const fs::directory_entry& entry : fs::directory_iterator(m_directory))
        if (entry.path().extension() == ".ports") fs::remove(entry.path());
    m_process = std::make_unique<hosted::Process>(std::vector<std::string>{Program(), "--config", config},
                                                  m_directory + "/log", m_directory + "/log");
    hosted::Eventually([&] { return !m_process->IsRunning() || !readPorts("nats").empty(); });
    m_port = readPorts("nats");
    m_clusterPort = readPorts("cluster");
    if (m_port.empty()) throw std::runtime_error("nats-server ended: " + Log());
}

// From {"nats": ["nats://127.0.0.1:4222"], "cluster": [...]}; empty until the file is whole.
std::string NatsServer::readPorts(const std::string& kind) const {
    for (const fs::directory_entry& entry : fs::directory_iterator(m_directory)) {
        if (entry.path().extension() != ".ports") continue;
        const std::string text = hosted::ReadFile(entry.path().string());
        std::smatch port;
        const std::regex wanted("\"" + kind + "\"\\s*:\\s*\\[\\s*\"[^\"]*:([0-9]+)\"");
        if (text.find('}') != std::string::npos && std::regex_search(text, port, wanted)) return port[1];
    }
    return {};
}

std::string AuthorizationOf(const std::string& page) {
    const std::string text = hosted::ReadFile(page);
    const std::string opening = "\nauthorization {";
    const std::size_t begin = text.find(opening);
    const std::size_t end = text.find("\n```", begin);
    if (begin == std::string::npos || end == std::string::npos) throw std::runtime_error(page + " shows no users");
    const std::size_t inside = begin + opening.size();
    return "authorization {\n  timeout: 300" + text.substr(inside, end - inside);
}

}  // namespace test_support
