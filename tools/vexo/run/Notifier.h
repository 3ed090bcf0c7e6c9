#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <string>

namespace vexo::run {

/// Tells the service manager how a service is: the datagrams of sd_notify.
class Notifier {
public:
    /// @param address  of NOTIFY_SOCKET: a path, or "@name" for an abstract name. Null or empty: nobody is told. Throws
    ///                 Failure when no socket can have such an address.
    explicit Notifier(const char* address);
    ~Notifier();
    Notifier(const Notifier&) = delete;
    Notifier& operator=(const Notifier&) = delete;

    /// @param state  such as "READY=1"
    /// @return false when the manager cannot take it now: try again. True also when nobody is to be told.
    bool send(const std::string& state) const;

private:
    int m_socket = -1;
    sockaddr_un m_address{};
    socklen_t m_size = 0;
};

}  // namespace vexo::run
