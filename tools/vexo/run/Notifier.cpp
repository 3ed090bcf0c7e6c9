#include "tools/vexo/run/Notifier.h"

#include <unistd.h>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "tools/vexo/Failure.h"

namespace vexo::run {

Notifier::Notifier(const char* address) {
    if (address == nullptr || *address == '\0') return;
    const std::size_t length = std::strlen(address);
    if ((*address != '/' && *address != '@') || length >= sizeof m_address.sun_path)
        throw Failure(kUsage, std::string("NOTIFY_SOCKET=") + address + ": no address of a socket of this machine");
    m_address.sun_family = AF_UNIX;
    std::memcpy(m_address.sun_path, address, length);
    const bool isAbstract = *address == '@';
    if (isAbstract) m_address.sun_path[0] = '\0';
    // The length of an abstract name counts; that of a path includes the zero byte.
    m_size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length + (isAbstract ? 0 : 1));
    m_socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_socket < 0) throw Failure(kFinding, std::string("no socket for NOTIFY_SOCKET: ") + std::strerror(errno));
}

Notifier::~Notifier() {
    if (m_socket >= 0) ::close(m_socket);
}

bool Notifier::send(const std::string& state) const {
    if (m_socket < 0) return true;
    const auto* const to = reinterpret_cast<const sockaddr*>(&m_address);
    return ::sendto(m_socket, state.data(), state.size(), MSG_NOSIGNAL, to, m_size) >= 0;
}

}  // namespace vexo::run
