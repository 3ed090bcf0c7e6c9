#include "tools/vexo/ServerOptions.h"

#include <string>

namespace vexo {
namespace {

void addFile(const cli::Command& subcommand, const char* name, std::string& value, const char* variable,
             const std::string& text) {
    subcommand.addOption(name, value, text + " (or $" + variable + ")").takes("FILE");
}

}  // namespace

void addServerFiles(const cli::Command& subcommand, vexo_sim::remote::ConnectionSettings& connection) {
    addFile(subcommand, "--creds", connection.credsFile, "VEXO_NATS_CREDS", "Credentials file of the user");
    addFile(subcommand, "--user-file", connection.userFile, "VEXO_NATS_USER_FILE",
            "File with a line of the user and a line of the password, or with a token alone");
    addFile(subcommand, "--tls-ca", connection.tlsCaFile, "VEXO_NATS_TLS_CA",
            "PEM file of the authority that signed the servers' certificates");
    addFile(subcommand, "--tls-cert", connection.tlsCertFile, "VEXO_NATS_TLS_CERT",
            "PEM file of this program's certificate");
    addFile(subcommand, "--tls-key", connection.tlsKeyFile, "VEXO_NATS_TLS_KEY", "PEM file of the certificate's key");
}

}  // namespace vexo
