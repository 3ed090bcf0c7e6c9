#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "capture/CaptureFiles.h"
#include "enyx-sim/md_payload.h"
#include "tests/relay/RelayFixture.h"

/// The whole way: a card that replays quotes, a relay, a server, and quote_printer.
class EndToEnd : public RelayFixture {
protected:
    // The campaign asks for a million; see scripts/soak/remote.sh.
    static std::uint32_t FromEnvironment(const char* name, std::uint32_t usual) {
        const char* const value = std::getenv(name);
        return value != nullptr ? static_cast<std::uint32_t>(std::stoul(value)) : usual;
    }
    inline static const std::uint32_t kQuotes = FromEnvironment("VEXO_END_TO_END_QUOTES", 30'000);
    inline static const std::uint64_t kEveryNs = FromEnvironment("VEXO_END_TO_END_EVERY_NS", 20'000);
    /// The campaign may give the program of an earlier release.
    static std::string PrinterProgram() {
        const char* const given = std::getenv("VEXO_END_TO_END_PRINTER");
        return given != nullptr ? given : VEXO_QUOTE_PRINTER;
    }

    void SetUp() override {
        SKIP_WITHOUT_NATS_SERVER();
        WriteQuotes();
        dir.Write("third.ini",
                  "[config]\ndevice = xilinx0:3\nBIN_DELAY_TIME = 0\nL5_IPA = 239.3.50.1\nL5_IPB = 239.3.51.1\n"
                  "L5_PORT = 18501\nL1_IPA = 239.3.10.1\nL1_IPB = 239.3.11.1\nL1_PORT = 18101\n"
                  "[version]\n1.1.2.12 = 11\n1.1.2.13 = 12\n[channel3]\ninsts = SR\noptions = norecv\n");
    }

    /// A capture of quotes that differ, for channel 3.
    void WriteQuotes(std::uint64_t everyNs = kEveryNs) {
        std::filesystem::remove(dir.Path("day.pcapng"));
        packets.clear();
        capture::CaptureFiles::Settings settings;
        settings.path = dir.Path("day.pcapng");
        settings.report = [](const std::string&) {};
        capture::CaptureFiles files(settings);
        const std::uint32_t stream = files.addInterface({capture::kStreamLink, "channel 3", ""}, 0);
        struct [[gnu::packed]] {
            enyx_sim::PacketHead head;
            enyx_sim::Level1Quote quote;
        } packet{};
        std::strcpy(packet.quote.common.id, "SR505");
        for (std::uint32_t n = 1; n <= kQuotes; ++n) {
            packet.head = {17, sizeof packet, n};
            packet.quote.common.sequence = n;
            packet.quote.common.totalVolume = n;
            packet.quote.common.lastPrice = 50'000'000 + 10'000 * (n % 97);
            files.addPacket(stream, n * everyNs, &packet, sizeof packet);
            packets.emplace_back(reinterpret_cast<const char*>(&packet), sizeof packet);
        }
        files.close(kQuotes * everyNs);
        dir.Write("replay.ini", "[replay]\nfile = day.pcapng\n");
    }

    /// Starts COMMAND -- quote_printer, which prints all quotes as JSON.
    hosted::Process Printer(std::vector<std::string> command, const std::string& name) {
        command.insert(command.end(), {"--", PrinterProgram(), "third.ini", "--json", "--quotes", "1000000000"});
        return hosted::Process(command, dir.Path(name + ".out"), dir.Path(name + ".err"));
    }
    /// The printer writes a line of totals each second, also when nothing comes any more.
    bool HasTotal(const std::string& name, std::uint32_t quotes) const {
        constexpr std::streamoff kTail = 4096;
        std::ifstream file(dir.Path(name + ".out"), std::ios::ate | std::ios::binary);
        file.seekg(std::max<std::streamoff>(0, file.tellg() - kTail));
        const std::string tail(std::istreambuf_iterator<char>(file), {});
        return tail.find("\"all\":" + std::to_string(quotes) + ",") != std::string::npos;
    }
    bool HasAllQuotes(hosted::Process& printer, const std::string& name) const {
        return hosted::Eventually([&] { return HasTotal(name, kQuotes) || !printer.IsRunning(); }) &&
               HasTotal(name, kQuotes);
    }
    /// It has received all quotes; or some are lost, and for half a minute none has come.
    bool IsOver(const std::string& name) const {
        constexpr std::streamoff kTail = 8192;
        constexpr int kQuietLines = 30;
        std::ifstream file(dir.Path(name + ".out"), std::ios::ate | std::ios::binary);
        file.seekg(std::max<std::streamoff>(0, file.tellg() - kTail));
        std::string last;
        int times = 0;
        for (std::string line; std::getline(file, line) && !file.eof();) {
            times = line == last ? times + 1 : 1;
            last = line;
        }
        if (last.find("{\"kind\":\"totals\"") != 0) return false;
        const std::uint64_t received = NumberBehind(last, "\"all\":");
        return received >= kQuotes || (received > 0 && times >= kQuietLines);
    }
    static std::uint64_t NumberBehind(const std::string& text, const std::string& words) {
        const std::size_t at = text.find(words);
        return at == std::string::npos ? 0 : std::strtoull(text.c_str() + at + words.size(), nullptr, 10);
    }
    /// Ends the printer when all has come. @return its lines of quotes
    std::vector<std::string> QuotesOf(hosted::Process& printer, const std::string& name) const {
        EXPECT_TRUE(hosted::Eventually([&] { return IsOver(name) || !printer.IsRunning(); })) << Errors(name);
        printer.Signal(SIGINT);
        printer.Wait();
        std::vector<std::string> quotes;
        std::istringstream lines(dir.Read(name + ".out"));
        for (std::string line; std::getline(lines, line);)
            if (line.find("\"kind\":\"quote\"") != std::string::npos) quotes.push_back(line);
        return quotes;
    }

    std::vector<std::string> packets;  // of the capture
};
