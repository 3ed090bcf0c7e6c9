#include "tools/vexo/ServerOptions.h"

#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "sim/remote/Subjects.h"
#include "tools/vexo/Command.h"

namespace vexo {
namespace {

void checkFile(const char* option, std::string& file) {
    if (file.empty()) return;
    if (::access(file.c_str(), R_OK) != 0)
        throw Failure(kUsage, std::string(option) + " " + file + ": " + std::strerror(errno));
    file = std::filesystem::absolute(file).string();
}

}  // namespace

void addServerOptions(CLI::App& subcommand, ServerOptions& options, const std::string& servers,
                      const std::string& what) {
    subcommand.add_option(servers, options.servers, what)->type_name("nats://HOST:PORT[,...]")->required();
    subcommand.add_option("--site", options.site, "Name of the site that the card is in: letters, digits, - and _")
        ->type_name("SITE")
        ->capture_default_str();
    subcommand.add_option("--creds", options.creds, "File with the servers' credentials of this user")
        ->type_name("FILE");
    subcommand
        .add_option("--user-file", options.userFile,
                    "File with the user in its first line and the password in its second, or with a token alone")
        ->type_name("FILE");
    subcommand.add_option("--tls-ca", options.tlsCa, "Certificates to trust, PEM; the connection is then encrypted")
        ->type_name("FILE");
    CLI::Option* const certificate =
        subcommand.add_option("--tls-cert", options.tlsCert, "Certificate of this program, PEM")->type_name("FILE");
    CLI::Option* const key =
        subcommand.add_option("--tls-key", options.tlsKey, "Key of that certificate, PEM")->type_name("FILE");
    certificate->needs(key);
    key->needs(certificate);
}

void checkServerOptions(ServerOptions& options) {
    std::string error;
    if (vexo_sim::remote::serversOf(options.servers, error).empty()) throw Failure(kUsage, error);
    if (!vexo_sim::remote::isSite(options.site))
        throw Failure(kUsage, "--site " + options.site + ": it must be 1 to 32 letters, digits, - or _");
    checkFile("--creds", options.creds);
    checkFile("--user-file", options.userFile);
    checkFile("--tls-ca", options.tlsCa);
    checkFile("--tls-cert", options.tlsCert);
    checkFile("--tls-key", options.tlsKey);
}

}  // namespace vexo
