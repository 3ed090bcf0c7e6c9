#include "tools/vexo/stat/Listen.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>

#include "tools/vexo/Failure.h"

namespace vexo::stat {
namespace {

using Text = std::function<std::string()>;
constexpr unsigned kMostConnections = 16;
constexpr unsigned kTimeoutSeconds = 10;

MHD_Result answer(MHD_Connection* connection, unsigned status, const std::string& body, const char* type) {
    MHD_Response* const response = MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()),
                                                                   MHD_RESPMEM_MUST_COPY);
    if (response == nullptr) return MHD_NO;
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, type);
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
    errno = 0;
    const std::unique_ptr<MHD_Daemon, void (*)(MHD_Daemon*)> server(
        MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD, port, nullptr, nullptr, &serve, const_cast<Text*>(&text),
                         MHD_OPTION_SOCK_ADDR, reinterpret_cast<sockaddr*>(&address), MHD_OPTION_CONNECTION_LIMIT,
                         kMostConnections, MHD_OPTION_CONNECTION_TIMEOUT, kTimeoutSeconds, MHD_OPTION_END),
        &MHD_stop_daemon);
    if (server == nullptr) {
        throw Failure(kFinding, "cannot listen on port " + std::to_string(port) + " of 127.0.0.1" +
                                    (errno != 0 ? std::string(": ") + std::strerror(errno) : ""));
    }
    const MHD_DaemonInfo* const info = MHD_get_daemon_info(server.get(), MHD_DAEMON_INFO_BIND_PORT);
    std::printf("http://127.0.0.1:%u/metrics\n", info != nullptr ? info->port : port);
    std::fflush(stdout);
    int signal = 0;
    ::sigwait(&ends, &signal);
}

}  // namespace vexo::stat
