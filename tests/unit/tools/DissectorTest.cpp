#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "capture/RegisterAccess.h"
#include "interface/CardRegisters.h"
#include "tests/support/TempDir.h"
#include "tests/unit/capture/CaptureSample.h"
#include "tests/unit/tools/LayoutSample.h"
#include "tests/unit/tools/Program.h"
#include "tools/data/LayoutFile.h"

using namespace capture;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

class Dissector : public ::testing::Test {
protected:
    void write(const BlockBuffer& blocks) { dir.Write("a.pcapng", text(blocks)); }

    /// What tshark prints of the file on its standard output; what it says of being root goes elsewhere.
    std::string tshark(const std::string& arguments) {
        const ProgramResult result = runProgram("exec 2>err; HOME=" + dir.Path() + " " + word(VEXO_TSHARK) +
                                                " -X lua_script:" + word(VEXO_DISSECTOR) + " -r a.pcapng " + arguments);
        EXPECT_EQ(result.status, 0) << dir.Read("err");
        EXPECT_THAT(dir.Read("err"), Not(HasSubstr("lua")));
        return result.output;
    }
    unsigned count(const std::string& filter) {
        const std::string lines = tshark("-Y '" + filter + "'");
        return static_cast<unsigned>(std::count(lines.begin(), lines.end(), '\n'));
    }

    test_support::TempDir dir;
};

BlockBuffer fileWith(std::uint16_t linkType, const std::string& bytes) {
    BlockBuffer blocks;
    appendSection(blocks, {});
    appendInterface(blocks, {linkType, "x", ""});
    appendPacket(blocks, 0, 1'736'906'400'000'000'000, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    return blocks;
}

// Bytes as hexadecimal digits, blanks between them as one likes.
std::string bytes(const std::string& digits) {
    std::string result;
    std::string pair;
    for (const char digit : digits) {
        if (digit == ' ') continue;
        pair += digit;
        if (pair.size() < 2) continue;
        result += static_cast<char>(std::stoi(pair, nullptr, 16));
        pair.clear();
    }
    return result;
}

std::string fileText(const char* path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

using Names = std::map<std::uint32_t, std::string>;

Names namesInDissector() {
    Names names;
    const std::string text = fileText(VEXO_DISSECTOR);
    const std::regex entry(R"re(\n    \[0x([0-9A-F]+)\] = "(\w+)",)re");
    for (std::sregex_iterator i(text.begin(), text.end(), entry), end; i != end; ++i) {
        names[static_cast<std::uint32_t>(std::stoul((*i)[1], nullptr, 16))] = (*i)[2];
    }
    return names;
}

// Registers of the map that stand for themselves: a line with address and direction, or a comment with it before.
Names namesInRegisterMap() {
    Names names;
    std::istringstream lines(fileText(VEXO_REGISTER_MAP));
    const std::regex constant(R"re(^inline constexpr std::uint32_t k(\w+)\s*= (0x[0-9A-Fa-f]+);)re");
    const std::regex direction(R"re(// (RO|WO|RW)\b)re");
    bool announced = false;
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        const bool hasDirection = std::regex_search(line, direction);
        if (std::regex_search(line, match, constant) && (hasDirection || announced)) {
            names[static_cast<std::uint32_t>(std::stoul(match[2], nullptr, 16))] = match[1];
        }
        announced = line.rfind("//", 0) == 0 && (hasDirection || announced);
    }
    return names;
}

void addOutput(Names& names, std::uint32_t base, const std::string& feed) {
    names[base + card_reg::kOutputSwitch] = feed + "OutputSwitch";
    names[base + card_reg::kOutputDstMac] = feed + "OutputDstMac";
    names[base + card_reg::kOutputDstMac + 1] = feed + "OutputDstMacLow";
    names[base + card_reg::kOutputDstIp] = feed + "OutputDstIp";
    names[base + card_reg::kOutputDstPort] = feed + "OutputDstPort";
    names[base + card_reg::kOutputSrcMac] = feed + "OutputSrcMac";
    names[base + card_reg::kOutputSrcMac + 1] = feed + "OutputSrcMacLow";
    names[base + card_reg::kOutputSrcIp] = feed + "OutputSrcIp";
    names[base + card_reg::kOutputSrcPort] = feed + "OutputSrcPort";
}

void addTable(Names& names, std::uint32_t table, const std::string& name) {
    names[card_reg::kTables[table].command] = name + "Command";
    names[card_reg::kTables[table].data] = name + "Data";
    names[card_reg::kTables[table].select] = name + "Select";
    names[card_reg::kTables[table].readBack] = name + "ReadBack";
}

}  // namespace

TEST_F(Dissector, NamesTheRegistersOfTheRegisterMap) {
    Names expected = namesInRegisterMap();
    EXPECT_EQ(expected.size(), 15U);  // the rest of the map stands in blocks, by offset
    addOutput(expected, card_reg::kL5Output, "L5");
    addOutput(expected, card_reg::kL1Output, "L1");
    unsigned counter = 0;
    for (const std::uint32_t word : card_reg::kParserCounters) {
        expected[word] = "ParserCounters" + std::to_string(counter++);
    }
    addTable(expected, card_reg::kSingleLegTable, "SingleLeg");
    addTable(expected, card_reg::kCombinationTable, "Combination");
    EXPECT_EQ(namesInDissector(), expected);
}

TEST_F(Dissector, ShowsEveryPacketThatAProgramOnTheSimulatedCardReceived) {
    const ProgramResult program = runProgram(tapSettings("ignored") + "VEXO_SIM_DIR=" + word(dir.Path()) + " " +
                                             word(VEXO_COMMAND) + " sim run --embedded -- " + word(VEXO_COMMAND) +
                                             " tap --registers --output a.pcapng -- " + word(VEXO_SIM_APP));
    ASSERT_EQ(program.status, 0) << program.output;
    std::map<std::string, unsigned> received;
    std::map<std::string, unsigned> shown;
    const std::regex line(R"re((?:^|\n)type (\d+) (\d+))re");
    for (std::sregex_iterator i(program.output.begin(), program.output.end(), line), end; i != end; ++i) {
        received[(*i)[1]] = static_cast<unsigned>(std::stoul((*i)[2]));
    }
    std::istringstream types(tshark("-Y vexo -T fields -e vexo.type"));
    for (std::string type; std::getline(types, type);) ++shown[type];
    EXPECT_EQ(shown, received);
    EXPECT_EQ(shown.size(), 5U);
    EXPECT_EQ(count("vexo.simulated == 1"), received["17"] + received["18"] + received["19"] + received["20"]);
    EXPECT_EQ(count("vexo.map.count && vexo.map.id"), received["2"]);
    EXPECT_EQ(count("vexo.type == 18 && vexo.quote.level == 5 && vexo.quote.row == 7 && "
                    "vexo.quote.last >= vexo.quote.lower_limit && vexo.quote.last <= vexo.quote.upper_limit"),
              received["18"]);
    EXPECT_EQ(count("vexo_reg.name == \"MapTransmit\" && vexo_reg.value == 1 && vexo_reg.kind == 1"), 1U);
    EXPECT_EQ(count("vexo_reg"), 6U);
    EXPECT_EQ(count("vexo.broken || vexo_reg.broken"), 0U);
    EXPECT_EQ(count("frame.interface_name == \"channel 0\" && !vexo"), 0U);
}

TEST_F(Dissector, ShowsTheMessagesOfAContractMap) {
    write(fileWith(kStreamLink, bytes("02000000 28000000 01000000 001a"
                                      "000e 00000fa0 00 0102 5352353031"
                                      "000c 01 0003 53504420414243")));
    EXPECT_EQ(tshark("-T fields -E aggregator=, -e vexo.type -e vexo.length -e vexo.sequence -e vexo.map.count "
                     "-e vexo.map.table -e vexo.map.row -e vexo.map.id"),
              "2\t40\t1\t4000\t0,1\t258,3\tSR501,SPD ABC\n");
    EXPECT_THAT(tshark(""), HasSubstr("VEXO 40 Contract map, 2 messages"));
}

TEST_F(Dissector, SaysWhereAContractMapIsBroken) {
    write(fileWith(kStreamLink, bytes("02000000 1a000000 01000000 000c 000e 00000fa0 00 0102 535235")));
    EXPECT_THAT(tshark("-V"), HasSubstr("A message of 14 bytes at byte 14"));
    write(fileWith(kStreamLink, bytes("02000000 1a000000 01000000 0fff 000c 00000fa0 00 0102 535235")));
    EXPECT_THAT(tshark("-V"), HasSubstr("The message area reaches past the packet"));
}

TEST_F(Dissector, ShowsPacketsOfAnotherCardWithoutGuessingAtTheirPayload) {
    write(fileWith(kStreamLink, bytes("11000000 0102030405060708 aabbcc")));
    EXPECT_EQ(tshark("-T fields -e vexo.type -e vexo.unread -e vexo.payload -e vexo.simulated -e vexo.length"),
              "17\t0102030405060708\taabbcc\t\t\n");
}

// A quote of the simulated card, by its lengths and its marks, whose other bytes are all the same.
std::string quoteOf(char type, char filler) {
    const bool isLevel5 = type == 18 || type == 20;
    std::string packet(isLevel5 ? 12 + 224 : 12 + 128, filler);
    packet.replace(0, 8, std::string({type, 0, 0, 0, static_cast<char>(packet.size()), 0, 0, 0}));
    packet[12 + 42] = type >= 19 ? 1 : 0;
    packet[12 + 43] = isLevel5 ? 5 : 1;
    return packet;
}

// A card of another make: what its payload has is in a layout file.
constexpr char kOtherLayout[] =
    "[layout]\nname = other\nmeaning = Another card\nid_field = name\n"
    "[type 17]\nmeaning = Quote\nsize = 40\nfields = all\nfixed = mark 0x0102\n"
    "[fields all]\n"
    "mark = 0, u16be, 1, Mark\n"
    "side = 2, u8, 1, Side\n"
    "last = 4, i32be[2], 100, Last price\n"
    "name = 12, char[8], 1, Name\n"
    "ratio = 20, f64, 1, Ratio\n"
    "big = 28, u64be, 1, Number\n"
    "rest = 36, bytes[4], 1, Rest\n"
    "[values side]\n1 = bid\n2 = ask\n";
constexpr char kOtherPacket[] =
    "11000000 0000000000000000 0102 02 00 00000bb8 ffffffff 53523730 31004142 "
    "000000000000f83f 0000000000000102 deadbeef";

TEST_F(Dissector, ShowsThePayloadOfAnotherCardByTheLayoutThatTheVariableNames) {
    dir.Write("other.ini", kOtherLayout);
    write(fileWith(kStreamLink, bytes(kOtherPacket)));
    const std::string fields =
        "-T fields -E aggregator=, -e vexo.layout -e vexo.simulated -e vexo.quote.mark -e vexo.quote.last "
        "-e vexo.quote.name -e vexo.quote.ratio -e vexo.quote.big -e vexo.quote.rest -e vexo.payload";
    ::setenv("VEXO_LAYOUT", "simulated:other.ini", 1);
    EXPECT_EQ(tshark(fields), "other\t\t258\t30,-0.01\tSR701\t1.5\t258\tdeadbeef\t\n");
    EXPECT_THAT(tshark("-V"), HasSubstr("Side: ask (2)"));
    EXPECT_THAT(tshark(""), HasSubstr("Level-1, single-leg, SR701\n"));
    write(fileWith(kStreamLink, quoteOf(17, 'A')));
    EXPECT_EQ(tshark("-T fields -e vexo.layout -e vexo.simulated -e vexo.quote.id"),
              "simulated\t1\t" + std::string(32, 'A') + "\n");
    ::setenv("VEXO_LAYOUT", "other.ini", 1);
    EXPECT_EQ(tshark("-T fields -e vexo.layout -e vexo.simulated"), "\t\n");
    ::unsetenv("VEXO_LAYOUT");
}

TEST_F(Dissector, ALayoutThatCannotBeReadIsNamedAndThePayloadShownAsBytes) {
    write(fileWith(kStreamLink, bytes("11000000 0102030405060708 aabbcc")));
    dir.Write("broken.ini", "[layout]\nname = broken\nwhat is this\n");
    for (const std::string file : {"broken.ini", "none.ini"}) {
        const ProgramResult result = runProgram("VEXO_LAYOUT=" + file + " HOME=" + dir.Path() + " " +
                                                word(VEXO_TSHARK) + " -X lua_script:" + word(VEXO_DISSECTOR) +
                                                " -r a.pcapng -V");
        EXPECT_EQ(result.status, 0);
        EXPECT_THAT(result.output, HasSubstr("vexo.lua: " + file + ":"));
        EXPECT_THAT(result.output, HasSubstr("Payload, of no known layout: aabbcc"));
    }
}

namespace {

std::string faultOfProgramsIn(const std::string& path) {
    try {
        vexo::data::readLayout(path);
        return "";
    } catch (const vexo::data::LayoutError& error) {
        return error.what();
    }
}

// A sound layout with a few bytes changed. Bytes of other alphabets are shown differently in messages.
std::string spoiledLayout(std::mt19937& random) {
    static const std::string bytes = "0123456789[],=\n\t\r bexuicharfield_;#\x01";
    std::string text = layout_sample::kSound;
    for (auto changes = 1 + random() % 3; changes > 0; --changes) {
        const std::size_t at = random() % text.size();
        if (random() % 3 == 0) text.erase(at, 1 + random() % 20);
        text.insert(std::min(at, text.size()), 1, bytes[random() % bytes.size()]);
    }
    return text;
}

}  // namespace

// Anybody may have written a layout file.
TEST_F(Dissector, RefusesTheLayoutsThatTheProgramsRefuseAndSaysTheSame) {
    std::vector<std::string> texts = {"", std::string((1U << 20) + 1, '\n'), "[layout]\nname = a\nmeaning = b\n",
                                      std::string(1U << 19, ' ') + "x" + std::string(1U << 18, ' ') + "y"};
    for (const auto& refused : layout_sample::Mistakes()) texts.push_back(refused.text);
    for (const auto& refused : layout_sample::TooMuch()) texts.push_back(refused.text);
    std::mt19937 random(20261122);
    for (int i = 0; i < 400; ++i) texts.push_back(spoiledLayout(random));

    std::string names;
    std::string faults;
    for (std::size_t i = 0; i < texts.size(); ++i) {
        const std::string name = std::to_string(i) + ".ini";
        dir.Write(name, texts[i]);
        names += (names.empty() ? "" : ":") + name;
        const std::string fault = faultOfProgramsIn(name);
        if (!fault.empty()) faults += "vexo.lua: " + fault + "; payloads are shown without this layout\n";
    }
    write(fileWith(kStreamLink, bytes("11000000 0102030405060708 aabbcc")));
    const ProgramResult result = runProgram("VEXO_LAYOUT=" + names + ":. HOME=" + dir.Path() + " " + word(VEXO_TSHARK) +
                                            " -X lua_script:" + word(VEXO_DISSECTOR) + " -r a.pcapng -V 2>err");
    EXPECT_THAT(result.output, HasSubstr("Payload, of no known layout: aabbcc"));
    std::istringstream lines(dir.Read("err"));
    std::string said;
    for (std::string line; std::getline(lines, line);) {
        if (line.find("lua") != std::string::npos) said += line + "\n";
    }
    EXPECT_EQ(said, faults +
                        "vexo.lua: .: this is a directory, not a layout file; payloads are shown without this "
                        "layout\n");
}

TEST_F(Dissector, TakesALayoutThatHasAsMuchAsItMay) {
    dir.Write("most.ini", layout_sample::TheMost());
    std::string packet(12 + 65536, '\0');
    packet[0] = '\x7F';
    packet[12 + 1023] = '\x05';
    write(fileWith(kStreamLink, packet));
    ::setenv("VEXO_LAYOUT", "most.ini", 1);
    EXPECT_EQ(tshark("-T fields -e vexo.layout -e vexo.quote.f1023"), "x\t5\n");
    ::unsetenv("VEXO_LAYOUT");
}

TEST_F(Dissector, WithoutTheFolderOfLayoutsItShowsPayloadsAsBytesAndSaysWhy) {
    std::filesystem::copy_file(VEXO_DISSECTOR, dir.Path("vexo.lua"));
    write(fileWith(kStreamLink, bytes("11000000 0102030405060708 aabbcc")));
    const ProgramResult result = runProgram("HOME=" + dir.Path() + " " + word(VEXO_TSHARK) +
                                            " -X lua_script:vexo.lua -r a.pcapng -V");
    EXPECT_THAT(result.output,
                HasSubstr("vexo.lua: simulated: there is no folder layouts beside this script; copy it"));
    EXPECT_THAT(result.output, HasSubstr("Payload, of no known layout: aabbcc"));
}

TEST_F(Dissector, NoLengthOfAPacketMakesItStumble) {
    BlockBuffer blocks;
    appendSection(blocks, {});
    appendInterface(blocks, {kStreamLink, "channel 0", ""});
    appendInterface(blocks, {kRegisterLink, "registers", ""});
    std::uint64_t packets = 0;
    for (const char type : {'\x02', '\x11', '\x12', '\x13', '\x14', '\x15'}) {
        std::string packet(260, '\1');
        packet.replace(0, 4, std::string({type, 0, 0, 0}));
        for (std::uint32_t size = 0; size <= packet.size(); ++size) {
            appendPacket(blocks, 0, packets++, packet.data(), size);
            appendPacket(blocks, 1, packets++, packet.data(), size);
        }
    }
    write(blocks);
    EXPECT_THAT(tshark("-V"), AllOf(HasSubstr("Too short for a packet's head"), Not(HasSubstr("Lua Error"))));
    EXPECT_EQ(count("vexo || vexo_reg"), packets);
}

TEST_F(Dissector, AnIdWithoutAnEndIsShownToItsLastByteAndNoFurther) {
    write(fileWith(kStreamLink, quoteOf(17, 'A')));
    EXPECT_EQ(tshark("-T fields -e vexo.quote.id"), std::string(32, 'A') + "\n");
    EXPECT_THAT(tshark(""), HasSubstr(", " + std::string(32, 'A') + "\n"));
    std::string packet = quoteOf(18, 'B');
    packet[12 + 8 + 5] = 0;
    write(fileWith(kStreamLink, packet));
    EXPECT_EQ(tshark("-T fields -e vexo.quote.id"), "BBBBB\n");
}

TEST_F(Dissector, NoBytesOfAPacketMakeItStumble) {
    BlockBuffer blocks;
    appendSection(blocks, {});
    appendInterface(blocks, {kStreamLink, "channel 0", ""});
    appendInterface(blocks, {kRegisterLink, "registers", ""});
    std::mt19937 random(20250115);
    std::uint64_t packets = 0;
    for (int round = 0; round < 400; ++round) {
        for (const char type : {'\x11', '\x12', '\x13', '\x14', '\x02'}) {
            std::string packet = quoteOf(type, round % 2 == 0 ? '\xff' : '\x80');
            for (std::size_t i = 12; round > 1 && i < packet.size(); ++i) {
                const bool isMark = type != 2 && (i == 12 + 42 || i == 12 + 43);
                if (!isMark) packet[i] = static_cast<char>(random());
            }
            if (type == 2) packet[12] = 0;
            appendPacket(blocks, 0, packets++, packet.data(), static_cast<std::uint32_t>(packet.size()));
        }
        RegisterAccess access;
        std::string record(reinterpret_cast<const char*>(&access), sizeof access);
        for (std::size_t i = 6; i < record.size(); ++i) record[i] = static_cast<char>(round == 0 ? 0xFF : random());
        appendPacket(blocks, 1, packets++, record.data(), static_cast<std::uint32_t>(record.size()));
    }
    write(blocks);
    EXPECT_THAT(tshark("-V"), Not(HasSubstr("Lua Error")));
    EXPECT_EQ(count("vexo || vexo_reg"), packets);
}

TEST_F(Dissector, APacketThatWasCutIsShownWithWhatThereIs) {
    BlockBuffer blocks;
    appendSection(blocks, {});
    appendInterface(blocks, {kStreamLink, "channel 0", ""});
    const std::string packet = quoteOf(17, 'A');
    for (std::uint32_t size = 0; size <= packet.size(); ++size)
        appendPacket(blocks, 0, size, packet.data(), size, 9'000'000);
    write(blocks);
    EXPECT_THAT(tshark("-V"), Not(HasSubstr("Lua Error")));
    EXPECT_EQ(count("vexo && frame.len == 9000000"), packet.size() + 1);
}

TEST_F(Dissector, ShowsARegisterAccessWithItsName) {
    RegisterAccess access;
    access.kind = AccessKind::kWrite;
    access.card = 1;
    access.core = 474;
    access.byteAddress = std::uint64_t{card_reg::kTables[card_reg::kCombinationTable].command} * 4;
    access.bitWidth = 32;
    access.value = 8191 << 6 | 5;
    access.result = -1;
    access.error = 5;
    access.durationNs = 1234;
    write(fileWith(kRegisterLink, std::string(reinterpret_cast<const char*>(&access), sizeof access)));
    EXPECT_EQ(tshark("-T fields -e vexo_reg.kind -e vexo_reg.card -e vexo_reg.core -e vexo_reg.name "
                     "-e vexo_reg.register -e vexo_reg.bit_width -e vexo_reg.row -e vexo_reg.word "
                     "-e vexo_reg.result -e vexo_reg.errno -e vexo_reg.duration"),
              "1\t1\t474\tCombinationCommand\t0x00012000\t32\t8191\t5\t-1\t5\t1234\n");
    EXPECT_THAT(tshark(""), HasSubstr("write CombinationCommand (0x12000) = 0x000000000007ffc5, failed, errno 5"));
}
