#pragma once

#include <cstddef>
#include <string>

namespace relay {

/// What messages go out through. Used by one thread.
class Network {
public:
    virtual ~Network() = default;
    /// @return false when the message is lost: there is no connection, and no room to keep it until there is one
    virtual bool publish(const std::string& subject, const void* data, std::size_t size) = 0;
};

}  // namespace relay
