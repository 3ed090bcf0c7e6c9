#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/FakeTime.h"
#include "tests/support/QuoteCallbacks.h"
#include "tests/support/TempDir.h"

namespace scenario {

/// How a process of its own ended, and what it wrote.
struct Outcome {
    int exitStatus = -1;  ///< -1 when a signal ended it
    int signal = 0;
    std::string out;
    std::string err;

    /// Log lines as "INFO text", in order, without the time.
    std::vector<std::string> Log() const;
    /// The log as in the file, the time masked.
    std::string MaskedLog() const;
    bool Logged(const std::string& line) const;
    std::size_t CountLogged(const std::string& line) const;
};

/// Runs @p body in a child process with an empty working directory and captured output, because the library keeps state
/// for the life of its process and ends it on failure. The exit status is what @p body returns; an assertion of the
/// test framework that fails in there makes it 99.
Outcome RunInChild(const std::function<int()>& body);

/// An ini file in the working directory. @p extra is added at the end, @p device is the card and channel.
std::string WriteIni(const std::string& extra, const std::string& device = "xilinx0:0");

/// The day file of the fake date, in a directory of its own instead of /tmp: other runs of the same test do not see it.
/// One at a time. The library finds it in the programs that link vexo_day_files_of_tests.
class DayFile {
public:
    DayFile(int year, int month, int day, bool evening);
    ~DayFile();
    DayFile(const DayFile&) = delete;
    DayFile& operator=(const DayFile&) = delete;
    void Write(const std::string& content) const;
    std::string Read() const;

private:
    const test_support::TempDir m_directory;
    std::string m_path;
};

/// Keeps every payload that it is called with.
class PayloadSpi : public QuoteCallbacks {
public:
    explicit PayloadSpi(std::size_t payloadSize = 8) : m_size(payloadSize) {}
    struct Packet {
        int type;
        std::string payload;
    };
    std::vector<Packet> packets;

private:
    int OnQuote(int type, const unsigned char* data) override {
        packets.push_back({type, std::string(reinterpret_cast<const char*>(data), m_size)});
        return 0;
    }
    std::size_t m_size;
};

/// Bytes of a market-data packet: 12-byte head, then the payload.
std::string MarketDataPacket(std::uint32_t type, const std::string& payload);

/// Bytes of a contract-map packet with these (id, index) pairs.
std::string ContractMapPacket(const std::vector<std::pair<std::string, std::uint16_t>>& instruments);

/// Puts a packet into a stream of card 0.
void Push(std::uint32_t channel, const std::string& packet);

/// Switches the card off and on with a small list of instruments, nothing sent by itself, and the first read of the
/// clock as the moment of power-on.
void SmallCard(const std::vector<std::pair<std::string, std::uint16_t>>& oneLeg,
               const std::vector<std::pair<std::string, std::uint16_t>>& combine);

/// The calls that reach the hardware library, one line each, as they come. What one core lock encloses is one line;
/// long runs of the same access with a rising row are one line too.
class HardwareCalls {
public:
    HardwareCalls();
    ~HardwareCalls();
    HardwareCalls(const HardwareCalls&) = delete;
    HardwareCalls& operator=(const HardwareCalls&) = delete;
    std::string Text();

private:
    struct Fold;
    Fold* m_fold;
};

/// Compares @p text with tests/golden/@p name; writes it there instead when VEXO_UPDATE_GOLDEN is set.
void ExpectGolden(const std::string& text, const std::string& name);

}  // namespace scenario
