#include "tools/vexo/stat/Listen.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <map>
#include <memory>
#include <mutex>

#include "tools/vexo/Failure.h"

namespace vexo::stat {
namespace {

using Text = std::function<std::string()>;
constexpr unsigned kMostConnections = 16;
constexpr auto kLongestConnection = std::chrono::seconds(5);

/// Ends old connections. The server itself only counts how long a client sends nothing: some that send a byte now and
/// then could take all places for ever.
class Connections {
public:
    // Called by the server's thread, before it closes the socket of a connection that has ended.
    static void note(void* context, MHD_Connection* connection, void**, MHD_ConnectionNotificationCode what) {
        auto& self = *static_cast<Connections*>(context);
        const std::lock_guard<std::mutex> lock(self.m_mutex);
        if (what == MHD_CONNECTION_NOTIFY_CLOSED) {
            self.m_open.erase(connection);
            return;
        }
        const MHD_ConnectionInfo* const info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
        if (info != nullptr) self.m_open[connection] = {info->connect_fd, Clock::now()};
    }
    void endOld() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& [connection, one] : m_open) {
            if (Clock::now() - one.begun >= kLongestConnection) ::shutdown(one.socket, SHUT_RDWR);
        }
    }

private:
    using Clock = std::chrono::steady_clock;
    struct Open {
        MHD_socket socket;
        Clock::time_point begun;
    };

    std::mutex m_mutex;
    std::map<MHD_Connection*, Open> m_open;
};

MHD_Result answer(MHD_Connection* connection, unsigned status, const std::string& body, const char* type) {
    MHD_Response* const response = MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()),
                                                                   MHD_RESPMEM_MUST_COPY);
    if (response == nullptr) return MHD_NO;
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, type);
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
    const MHD_Result queued = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return queued;
}

MHD_Result serve(void* context, MHD_Connection* connection, const char* path, const char* method, const char*,
                 const char*, std::size_t*, void**) {
    constexpr char kPlain[] = "text/plain; charset=utf-8";
    if (std::strcmp(method, MHD_HTTP_METHOD_GET) != 0)
        return answer(connection, MHD_HTTP_METHOD_NOT_ALLOWED, "GET only\n", kPlain);
    if (std::strcmp(path, "/metrics") != 0) return answer(connection, MHD_HTTP_NOT_FOUND, "See /metrics\n", kPlain);
    // No exception passes through the server's library.
    try {
        return answer(connection, MHD_HTTP_OK, (*static_cast<const Text*>(context))(),
                      "text/plain; version=0.0.4; charset=utf-8");
    } catch (const std::exception&) {
        return answer(connection, MHD_HTTP_INTERNAL_SERVER_ERROR, "The pages cannot be shown\n", kPlain);
    }
}

}  // namespace

void listen(std::uint16_t port, const Text& text) {
    // The server's thread inherits the mask, so the signals come here.
    sigset_t ends;
    ::sigemptyset(&ends);
    ::sigaddset(&ends, SIGINT);
    ::sigaddset(&ends, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Connections connections;
    errno = 0;
    const std::unique_ptr<MHD_Daemon, void (*)(MHD_Daemon*)> server(
        MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD, port, nullptr, nullptr, &serve, const_cast<Text*>(&text),
                         MHD_OPTION_SOCK_ADDR, reinterpret_cast<sockaddr*>(&address), MHD_OPTION_CONNECTION_LIMIT,
                         kMostConnections, MHD_OPTION_NOTIFY_CONNECTION, &Connections::note, &connections,
                         MHD_OPTION_END),
        &MHD_stop_daemon);
    if (server == nullptr) {
        throw Failure(kFinding, "cannot listen on port " + std::to_string(port) + " of 127.0.0.1" +
                                    (errno != 0 ? std::string(": ") + std::strerror(errno) : ""));
    }
    const MHD_DaemonInfo* const info = MHD_get_daemon_info(server.get(), MHD_DAEMON_INFO_BIND_PORT);
    std::printf("http://127.0.0.1:%u/metrics\n", info != nullptr ? info->port : port);
    std::fflush(stdout);
    const timespec second = {1, 0};
    while (::sigtimedwait(&ends, nullptr, &second) < 0) connections.endOld();
}

}  // namespace vexo::stat
