#pragma once

#include <cstdint>
#include <string>

#include "capture/CaptureFiles.h"
#include "card/CardState.h"

namespace vexo_sim {

/// The host's own record: every packet that the card puts into a stream, in a capture file, one interface a channel.
/// Nothing of it depends on what becomes of the packet: to be compared with what a reader received. Between two calls of
/// collect() the card has room for one ring of packets a stream, however fast the reader is.
class Recorder {
public:
    /// @p path must not exist; another name is taken if it does. What goes wrong is told on standard error.
    Recorder(const std::string& path, CardState& s);
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    /// Takes what was put since the last call. To be called while the card's state is locked, after each advance.
    void collect(CardState& s);
    /// Puts into the file what was collected.
    void flush() { m_files.flush(); }

private:
    capture::CaptureFiles m_files;
};

}  // namespace vexo_sim
