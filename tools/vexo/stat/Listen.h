#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace vexo::stat {

/// Answers GET /metrics over HTTP with what @p text returns, on 127.0.0.1 alone, until SIGINT or SIGTERM.
/// @param port  0: any that is free; standard output tells which
void listen(std::uint16_t port, const std::function<std::string()>& text);

}  // namespace vexo::stat
