#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// Between the card's library and libvexo-remote.so, which it loads when it is asked for a remote card. So only a
/// process with a remote card has the message engine in it.
namespace vexo_sim::remote {

/// Both sides must have the same; a change of this header is a new number.
inline constexpr std::uint32_t kTransportVersion = 2;
inline constexpr char kTransportLibrary[] = "libvexo-remote.so";
inline constexpr char kTransportEntry[] = "vexo_remote_transport";

enum class LineState { kLost, kBack, kClosed, kSlow, kNotPermitted };

/// Called on threads of the transport, which block all signals.
class MessageSink {
public:
    /// @param opening  as given to subscribe(): tells the messages of an earlier opening of the channel from this one's
    virtual void receive(std::uint32_t channel, std::uint32_t opening, const void* data, std::size_t size) = 0;
    /// @param words  the server; with kNotPermitted what it says, which names the subject
    virtual void tell(LineState state, const std::string& words) = 0;
    /// The process ends: receive() must not wait any longer.
    virtual void end() = 0;

protected:
    ~MessageSink() = default;
};

enum class Answer { kTaken, kNobody, kNone };
using TakeAnswer = std::function<bool(const void* data, std::size_t size)>;

/// Any thread may call it. Of no use in a child of fork().
class Transport {
public:
    /// Connects, once. @p sink must live as long as the process.
    virtual bool open(const std::vector<std::string>& servers, MessageSink& sink, std::string& error) = 0;
    /// The messages of @p subject go to the sink, until unsubscribe(); one that is on its way may come after that.
    virtual bool subscribe(const std::string& subject, std::uint32_t channel, std::uint32_t opening) = 0;
    virtual void unsubscribe(std::uint32_t channel) = 0;
    /// Sends a request to each subject, and passes the answers to @p take until it returns true.
    virtual Answer ask(const std::vector<std::string>& subjects, const void* data, std::size_t size,
                       std::chrono::milliseconds wait, const TakeAnswer& take) = 0;

protected:
    ~Transport() = default;
};

/// What the library exports under kTransportEntry. Null when it has another version; otherwise the one transport of the
/// process, which is never destroyed.
using TransportEntry = Transport* (*)(std::uint32_t version);

}  // namespace vexo_sim::remote
