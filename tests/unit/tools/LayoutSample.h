#pragma once

#include <cstddef>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

/// Layout files for tests: a sound one, and those that have to be refused.
namespace layout_sample {

// A layout with one of everything. Line numbers matter.
inline constexpr char kSound[] =
    "; comment\n"                             // 1
    "[layout]\n"                              // 2
    "name = card7\n"                          // 3
    "meaning = A card, with \"marks\"\n"      // 4
    "length_at = 8\n"                         // 5
    "id_field = id\n"                         // 6
    "time_field = clock\n"                    // 7
    "\n"                                      // 8
    "[type 17]\n"                             // 9
    "meaning = One\n"                         // 10
    "size = 0x40\n"                           // 11
    "fields = a , b\n"                        // 12
    "fixed = mark 0x55AA\n"                   // 13
    "[fields a]\n"                            // 14
    "id = 0, char[8], 1, Id, with a comma\n"  // 15
    "mark = 8, u16be, 1, Mark\n"              // 16
    "clock = 10, char[12], 1, Time\n"         // 17
    "[fields b]\n"                            // 18
    "price = 32, i32be[2], 100, Prices\n"     // 19
    "ratio = 24, f64, 1, Ratio\n"             // 20
    "rest = 40, bytes[24], 1, Rest\n"         // 21
    "[values mark]\n"                         // 22
    "0x55aa = sound\n";                       // 23

inline std::string LinesOf(unsigned number, const std::string& replacement) {
    std::istringstream lines(kSound);
    std::string text;
    unsigned at = 0;
    for (std::string line; std::getline(lines, line);) text += (++at == number ? replacement : line) + "\n";
    return text;
}

/// A text that is no layout, and what is said of it.
struct Refused {
    std::string text;
    std::string fault;
};

inline std::vector<Refused> Mistakes() {
    const std::vector<std::pair<std::pair<unsigned, std::string>, std::string>> lines = {
        {{1, "name = x"}, ":1: a key before the first section; begin with [layout]"},
        {{2, "[layout"}, ":2: the section's line does not end with ]"},
        {{2, "[layout 7]"}, ":2: the section's name is missing, or too much"},
        {{2, "[lay out]"}, ":2: unknown section; there are [layout], [type N], [fields NAME], [values FIELD]"},
        {{3, "name = Card 7"}, ":3: the name of the layout has a-z, 0-9 and _, begins with a letter"},
        {{3, "; none"}, ":2: the section has no name; add the key"},
        {{4, "meaning"}, ":4: no KEY = VALUE; begin a comment with ; or #"},
        {{4, "meaning ="}, ":4: key or value is missing; write KEY = VALUE"},
        {{4, "name = two"}, ":4: name is in this section twice; remove one of the two lines"},
        {{5, "length_at = 9"}, ":5: the byte of the packet's length is a number from 4 to 8, not 9"},
        {{5, "sequence_at = 3"}, ":5: the byte of the packet's number is a number from 4 to 8, not 3"},
        {{5, "length_at = 6\nsequence_at = 8"}, ":6: sequence_at and length_at lie on the same bytes; correct one"},
        {{5, "sequence_at = 8\nsequence_scope = type"}, ":6: sequence_at counts all packets of a stream; leave out"},
        {{5, "sequence_scope = day\nsequence_field = mark"}, ":5: the numbers count in the whole stream or for each"},
        {{5, "sequence_scope = type"}, ":5: there are no numbers; add sequence_field, or leave out sequence_scope"},
        {{5, "sequence_field = price"}, ":5: price has a type that sequence_field cannot have; it is one unsigned"},
        {{6, "id_feld = id"}, ":6: unknown key id_feld; this section has name, meaning, length_at, "},
        {{6, "id_field = name"}, ":6: type 17 has no field name; add it, or leave out id_field"},
        {{6, "id_field = mark"}, ":6: mark has a type that id_field cannot have; it is char[N]"},
        {{7, "time_field = ratio"},
         ":7: ratio has a type that time_field cannot have; it is one unsigned number HHMMSS, or"},
        {{7, "millis_field = clock"}, ":7: clock has a type that millis_field cannot have; it is one unsigned number"},
        {{8, "[type 0x11]\nmeaning = One\nsize = 64\nfields = a"}, ":12: the type is there twice; remove one section"},
        {{9, "[type]"}, ":9: the section's name is missing, or too much"},
        {{9, "[type seventeen]"}, ":9: the packet type is a number from 0 to 4294967295, not seventeen"},
        {{11, "size = 0"}, ":11: the size of the payload in bytes is a number from 1 to 65536, not 0"},
        {{11, "size = 99999999999999999999"}, ":11: the size of the payload in bytes is a number"},
        {{11, "size = 63"}, ":21: rest ends at byte 64, past the payload of type 17 with 63 bytes"},
        {{12, "fields = a, c"}, ":12: there is no section [fields c]; add it"},
        {{12, "fields = a"}, ":18: no type uses these fields; name the section in the fields of a type"},
        {{12, "fields = a, b, a"}, ":15: type 17 has two fields id; give them different names"},
        {{13, "fixed = mark"}, ":13: write FIELD VALUE, such as level 1, with a field of this type, not mark"},
        {{13, "fixed = level 5"}, ":13: write FIELD VALUE"},
        {{13, "fixed = price 5"}, ":13: price cannot be fixed; only one of u8, u16, u32 can"},
        {{13, "fixed = mark 65536"}, ":13: the value of mark is no number that the field can hold"},
        {{14, "[fields b]"}, ":18: the section [fields b] is there twice; join the two"},
        {{15, "Id = 0, char[8], 1, Id"}, ":15: the name of a field has a-z"},
        {{15, "id = 0, char[8], 1"}, ":15: write NAME = OFFSET, TYPE, SCALE, MEANING"},
        {{15, "id = -1, char[8], 1, Id"}, ":15: the offset is a number from 0 to 65536, not -1"},
        {{15, "id = 0, char, 1, Id"}, ":15: unknown type char; types are u8, u16"},
        {{15, "id = 0, char[0], 1, Id"}, ":15: the number in brackets is a number from 1 to 1024, not 0"},
        {{15, "id = 0, charbe[8], 1, Id"}, ":15: unknown type charbe[8]; types are"},
        {{15, "id = 0, char[8, 1, Id"}, ":15: unknown type char[8; types are"},
        {{15, "id = 0, char[9], 1, Id"},
         ":12: in type 17, id and mark lie on the same bytes; correct an offset or a type"},
        {{15, "id = 0, char[8], 10, Id"}, ":15: only whole numbers have a scale; write 1"},
        {{16, "mark = 8, u17, 1, Mark"}, ":16: unknown type u17; types are"},
        {{16, "mark = 8, u8be, 1, Mark"}, ":16: one byte has no order; leave out be"},
        {{19, "price = 32, i32be[65], 1, Prices"}, ":19: the number in brackets is a number from 1 to 64, not 65"},
        {{19, "price = 32, i32be[2], 50, Prices"}, ":19: the scale is 1, 10, 100 and so on, not 50"},
        {{19, "price = 32, i32be[2], 10000000000, Prices"}, ":19: the scale is a number from 1 to 1000000000, not"},
        {{22, "[values price]"}, ":22: there is no unsigned field price; correct the name"},
        {{23, "sound = 1"}, ":23: write VALUE = NAME, such as 0 = call"},
        {{23, "0 = a\x01"}, ":23: the line has control characters; a layout file is plain text"},
        {{9,
          "[type 18]\nmeaning = Two\nsize = 64\nfields = c\n[fields c]\nid = 0, u8, 1, Id\nclock = 1, u32, 1, Time\n"
          "[type 17]"},
         ":22: id has another type or scale in type 18; give one of them another name"},
    };
    std::vector<Refused> all;
    for (const auto& [line, fault] : lines) {
        const bool isIdOfNumber = line.second.find("[type 18]") == 0;
        std::string text = LinesOf(line.first, line.second);
        if (isIdOfNumber) text.replace(text.find("id_field = id"), 13, "; no id_field");
        all.push_back({text, fault});
    }
    return all;
}

inline std::string Repeated(std::size_t times, const std::function<std::string(std::string)>& line) {
    std::string text;
    for (std::size_t i = 0; i < times; ++i) text += line(std::to_string(i));
    return text;
}
inline constexpr char kHead[] = "[layout]\nname = x\nmeaning = x\n";
inline std::string TypeOf(const std::string& number, const std::string& fields) {
    return "[type " + number + "]\nmeaning = x\nsize = 65536\nfields = " + fields + "\n";
}
inline std::string OneByte(const std::string& number) { return "f" + number + " = " + number + ",u8,1,x\n"; }

/// Each of these takes minutes, or the memory of the machine, if it is read to its end.
inline std::vector<Refused> TooMuch() {
    const std::string head = kHead;
    const std::string all = "[fields all]\n";
    return {
        {head + Repeated(20'000, [](const std::string& n) { return "k" + n + "=1\n"; }), "more than 10000 keys"},
        {head + Repeated(2'000, [](const std::string& n) { return "[values v" + n + "]\n"; }),
         "more than 1000 sections"},
        {head + "k=" + std::string(5000, 'x'), ":4: the line is longer than 4096 bytes"},
        {head + TypeOf("1", "all") + all + Repeated(2000, OneByte), "more than 1024 fields in a type; leave some out"},
        {head + Repeated(300, [&](const std::string& n) { return TypeOf(n, "all"); }) + all + OneByte("0"),
         "more than 256 types; leave some out"},
        {head + TypeOf("1", "all") + all +
             Repeated(100,
                      [](const std::string& n) {
                          return "f" + n + " = " + std::to_string(64 * std::stoul(n)) + ",u8[64],1,x\n";
                      }),
         "more than 4096 columns; leave some out"},
        {head + TypeOf("1", "all" + Repeated(64, [](const std::string&) { return ",all"; })) + all,
         "more than 64 groups of fields in a type; leave some out"},
        {head + TypeOf("1", "all") + "fixed = f0 0" + Repeated(64, [](const std::string&) { return ",f0 0"; }) + "\n" +
             all + OneByte("0"),
         "more than 64 fixed values; leave some out"},
    };
}

/// As much as a layout may have.
inline std::string TheMost() {
    return kHead + Repeated(256, [](const std::string& n) { return TypeOf(n, "all"); }) + "[fields all]\n" +
           Repeated(1024, OneByte);
}

}  // namespace layout_sample
