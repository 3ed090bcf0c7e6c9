#include "tests/remote/RemoteUser.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace remote_tests {

RemoteUser::RemoteUser(const Environment& environment, std::string errors) : m_errors(std::move(errors)) {
    int input[2];
    int output[2];
    if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(output, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    m_pid = ::fork();
    if (m_pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::dup2(input[0], STDIN_FILENO);
        ::dup2(output[1], STDOUT_FILENO);
        ::dup2(::open(m_errors.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
        for (const auto& [name, value] : environment) ::setenv(name.c_str(), value.c_str(), 1);
        ::execl(VEXO_REMOTE_USER, VEXO_REMOTE_USER, nullptr);
        ::_exit(127);
    }
    ::close(input[0]);
    ::close(output[1]);
    m_input = input[1];
    m_output = output[0];
}

RemoteUser::~RemoteUser() {
    End();
    ::close(m_output);
}

std::string RemoteUser::Ask(const std::string& line) {
    const std::string text = line + "\n";
    std::string answer;
    if (::write(m_input, text.data(), text.size()) < 0) return "ended";
    for (char c = 0; ::read(m_output, &c, 1) == 1;) {
        if (c == '\n') return answer;
        answer += c;
    }
    return "ended";
}

int RemoteUser::End() {
    if (m_pid == 0) return m_status;
    ::close(m_input);
    int status = 0;
    while (::waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    m_pid = 0;
    return m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string RemoteUser::Errors() const {
    std::ifstream file(m_errors);
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace remote_tests
