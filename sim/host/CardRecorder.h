#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "capture/CaptureFiles.h"
#include "sim/card/CardState.h"

namespace vexo_sim {

/// Records every packet that the card puts into a stream, in a capture file with one interface a channel. The record
/// does not depend on the readers, so it can be compared with what a reader received. Between two calls of collect()
/// the card can send one ring of packets a stream, however fast its reader is.
class CardRecorder {
public:
    /// Uses another name when @p path exists. Reports failures on standard error.
    CardRecorder(const std::string& path, CardState& s);
    ~CardRecorder();
    CardRecorder(const CardRecorder&) = delete;
    CardRecorder& operator=(const CardRecorder&) = delete;

    /// False when the first file could not be made.
    bool isRecording() const { return m_files.files() > 0; }
    /// Takes the packets since the last call. Call it after each advance, with the card's state locked.
    void collect(CardState& s);
    /// Writes the collected packets. Do not call it with the state locked: disks are slow.
    void write();

private:
    struct Packet {
        std::uint32_t channel;
        std::uint32_t size;
        std::uint64_t timeNs;
    };

    capture::CaptureFiles m_files;
    std::vector<Packet> m_packets;       // collected
    std::vector<unsigned char> m_bytes;  // of these packets, one after another
};

}  // namespace vexo_sim
