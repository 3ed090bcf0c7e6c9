#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace vexo {

/// Options of a subcommand that uses message servers. Secrets are only named by their files.
struct ServerOptions {
    std::string servers;
    std::string site = "local";
    std::string creds;
    std::string userFile;
    std::string tlsCa;
    std::string tlsCert;
    std::string tlsKey;
};

/// @param servers  the name of the option for the servers: "--from"
/// @param what     the help of that option
void addServerOptions(CLI::App& subcommand, ServerOptions& options, const std::string& servers,
                      const std::string& what);

/// Throws a Failure, with status 2, when servers or site cannot be used, or a file cannot be read. Otherwise makes the
/// paths of the files absolute.
void checkServerOptions(ServerOptions& options);

}  // namespace vexo
