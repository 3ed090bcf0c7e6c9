#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "capture/CaptureFiles.h"
#include "sim/card/CardState.h"

namespace vexo_sim {

/// The host's own record: every packet that the card puts into a stream, in a capture file, one interface a channel.
/// Nothing of it depends on what becomes of the packet: to be compared with what a reader received. Between two calls
/// of collect() the card has room for one ring of packets a stream, however fast the reader is.
class CardRecorder {
public:
    /// Another name is taken when @p path exists. What goes wrong is told on standard error.
    CardRecorder(const std::string& path, CardState& s);
    ~CardRecorder();
    CardRecorder(const CardRecorder&) = delete;
    CardRecorder& operator=(const CardRecorder&) = delete;

    /// False when the first file could not be made.
    bool isRecording() const { return m_files.files() > 0; }
    /// Takes what was put since the last call. To be called while the card's state is locked, after each advance.
    void collect(CardState& s);
    /// Puts into the file what was collected. Not to be called while the state is locked: disks are slow.
    void write();

private:
    struct Packet {
        std::uint32_t channel;
        std::uint32_t size;
        std::uint64_t timeNs;
    };

    capture::CaptureFiles m_files;
    std::vector<Packet> m_packets;       // collected
    std::vector<unsigned char> m_bytes;  // of them, one after another
};

}  // namespace vexo_sim
