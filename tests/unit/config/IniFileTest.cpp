// The library's own reading of ini files against iniparser_load: the same dictionary, and the same words for a
// malformed file.

#include "src/config/IniFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iniparser/iniparser.h>

#include <filesystem>
#include <iterator>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/CaptureOutput.h"
#include "tests/support/TempDir.h"

namespace {

using Dictionary = std::unique_ptr<dictionary, void (*)(dictionary*)>;

/// What a reader makes of a file.
struct Outcome {
    bool loaded = false;
    std::vector<std::pair<std::string, std::optional<std::string>>> entries = {};
    std::string errors = {};

    bool operator==(const Outcome& other) const {
        return loaded == other.loaded && entries == other.entries && errors == other.errors;
    }
};

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
    out << (outcome.loaded ? "loaded\n" : "refused\n") << outcome.errors;
    for (const auto& [key, value] : outcome.entries) out << '<' << key << ">=<" << value.value_or("(none)") << ">\n";
    return out;
}

Outcome OutcomeOf(dictionary* loaded, const std::string& errors) {
    const Dictionary dict(loaded, &iniparser_freedict);
    Outcome outcome{loaded != nullptr, {}, errors};
    for (int i = 0; loaded != nullptr && i < loaded->n; ++i) {
        EXPECT_EQ(loaded->hash[i], dictionary_hash(loaded->key[i]));
        const char* value = loaded->val[i];
        outcome.entries.emplace_back(loaded->key[i],
                                     value != nullptr ? std::optional<std::string>(value) : std::nullopt);
    }
    return outcome;
}

class IniFile : public testing::Test {
protected:
    static Outcome Ours(const std::string& path) {
        test_support::CaptureOutput errors(2);
        dictionary* const loaded = LoadOurs(path);
        return OutcomeOf(loaded, errors.Stop());
    }
    static Outcome Theirs(const std::string& path) {
        test_support::CaptureOutput errors(2);
        dictionary* const loaded = iniparser_load(path.c_str());
        return OutcomeOf(loaded, errors.Stop());
    }
    /// @return how many of the texts were loaded
    std::size_t ExpectSame(const std::vector<std::string>& texts) {
        std::vector<std::string> paths;  // each its own: to overwrite a file makes some file systems write it to disk
        for (const std::string& text : texts) paths.push_back(dir.Write(std::to_string(paths.size()) + ".ini", text));
        std::string errors[2];
        std::vector<Outcome> outcomes[2];
        for (const bool ours : {true, false}) {
            test_support::CaptureOutput output(2);
            for (const std::string& path : paths) {
                outcomes[ours].push_back(OutcomeOf(ours ? LoadOurs(path) : iniparser_load(path.c_str()), ""));
            }
            errors[ours] = output.Stop();
        }
        EXPECT_EQ(errors[true], errors[false]);
        std::size_t loaded = 0;
        for (std::size_t i = 0; i < texts.size(); ++i) {
            EXPECT_EQ(outcomes[true][i], outcomes[false][i]) << "of the text\n" << texts[i];
            loaded += outcomes[true][i].loaded ? 1 : 0;
        }
        return loaded;
    }

    test_support::TempDir dir;

private:
    static dictionary* LoadOurs(const std::string& path) {
        const char* refusal = nullptr;
        dictionary* const loaded = loadIniFile(path, refusal);
        EXPECT_EQ(refusal, nullptr);
        return loaded;
    }
};

TEST_F(IniFile, EveryKindOfLineIsReadAsIniparserReadsIt) {
    // Packed by hand, else it is one long column.
    // clang-format off
    const char* const texts[] = {
        "", "\n", "a", "a\n", "=", "=a\n", "a=\n", "a=b", "a=b\n", " a = b \n", "a==\n", "a==b\n", "a=b=c\n",
        "A=B\n", "[S]\nA=B\n", "[ S p ]\nA b=B\n", "[]\na=b\n", "[ ]\na=b\n", "[section]\n[]\na=b\n",
        "[section]\n[]]\na=b\n", "[s]x\n", "[s]=x\n", "[s] ; comment\n", "[a]b]\nk=v\n", "[a][b]\nk=v\n",
        "[s\nk=v\n", "; a=b\n", "# a=b\n", "  ; a=b\n", "a=;b\n", "a=#b\n", "a= ;b\n", "a=b;c\n", "a=b #c\n",
        "a;b=c\n", "a=\"b\"\n", "a=\" b \" c\n", "a=\"b;c\" ; d\n", "a=\"b\n", "a=\"\n", "a=\"\"\n", "a=\"\" ; c\n",
        "a=\"\"b\n", "a='b'\n", "a=' b ' c\n", "a='b#c' # d\n", "a='b\n", "a='\n", "a=''\n", "a='' # c\n", "a=''b\n",
        "a=\"'b'\"\n", "a='\"b\"'\n", "a=b \"c\"\n", "a=\"\\\"b\\\"\"\n", "a=1\na=2\n", "[s]\na=1\n[S]\nA=2\n",
        "[s]\na=1\n[s:a]\n", "[s:a]\n[s]\na=1\n", "a=b\\\nc\n", "a=b \\\n c\n", "a=b\\\n\nc=d\n", "a=b\\\n\\\nc\n",
        "a=b\\", "a=b\\\n", "\\\na=b\n", "\\\\\na=b\n", "\\\n\\\n", "; c\\\na=b\n", "a=b\\ \nc\n", "a=b\r\nc=d\r\n",
        "\ta\t=\tb\t\n", "\v\fa=b\n", "a\xE4=\xC4\n", "\xEF\xBB\xBF[config]\na=b\n", "no equals\na=b\n",
        "one\ntwo\nthree\n", "a=b\n\n\n  \nc=d"
    };
    // clang-format on

    EXPECT_GT(ExpectSame({std::begin(texts), std::end(texts)}), std::size(texts) / 2);
}

TEST_F(IniFile, LinesOfEveryLengthAroundTheLimitAreReadAsIniparserReadsThem) {
    std::vector<std::string> texts;
    for (std::size_t length = 1015; length <= 1030; ++length) {
        const std::string key = "k=";
        const std::string value(length - key.size(), 'v');
        for (const char* end : {"\n", "", "\r\n", "\\\n", "\\", "\\\nx\n", "\\\n\n", "\nx=y\n"}) {
            texts.push_back(key + value + end);
            texts.push_back("[" + value + "]" + end);
            texts.push_back("a=b\\\n" + value + end);
        }
        texts.push_back(std::string(length, ' ') + "\n");
        texts.push_back(std::string(length, '\\') + "\n" + std::string(length, '\\') + "\n");
    }

    EXPECT_GT(ExpectSame(texts), texts.size() / 4);
}

TEST_F(IniFile, ZeroBytesAreReadAsIniparserReadsThem) {
    using std::string_literals::operator""s;
    ExpectSame({"\0"s, "\0\n"s, "a\0=b\n"s, "a=b\0c\nd=e\n"s, "a=b\n\0\nc=d\n"s, "a=b\\\n\0c=d\ne=f\n"s, "a=b\0"s,
                "a=b\n\0\0\0c"s, std::string(5000, '\0')});
}

TEST_F(IniFile, RandomTextsAreReadAsIniparserReadsThem) {
    const std::vector<std::string> pieces = {"[",
                                             "]",
                                             "=",
                                             "\"",
                                             "'",
                                             ";",
                                             "#",
                                             " ",
                                             "\t",
                                             "\\",
                                             "\n",
                                             "\\\n",
                                             "\r\n",
                                             "config",
                                             "CONFIG",
                                             "device",
                                             "Key",
                                             "a",
                                             "12",
                                             ":",
                                             "[s]\n",
                                             "k=v\n",
                                             std::string(500, 'x'),
                                             std::string(1, '\0')};
    std::mt19937 random(20261121);
    std::vector<std::string> texts(3000);
    for (std::string& text : texts) {
        for (auto left = random() % 30; left > 0; --left) {
            // Long and zero pieces are rare, else hardly a text would be loaded.
            const std::size_t usual = pieces.size() - 2;
            text += pieces[random() % 50 == 0 ? random() % pieces.size() : random() % usual];
        }
    }

    const std::size_t loaded = ExpectSame(texts);

    EXPECT_GT(loaded, texts.size() / 10);
    EXPECT_LT(loaded, texts.size());
}

TEST_F(IniFile, TheExampleIsReadAsIniparserReadsIt) {
    const Outcome ours = Ours(EXAMPLE_INI);

    EXPECT_GT(ours.entries.size(), 10U);
    EXPECT_EQ(ours, Theirs(EXAMPLE_INI));
}

TEST_F(IniFile, AMissingFileIsReportedAsIniparserDoes) {
    EXPECT_EQ(Ours(dir.Path("missing")), Theirs(dir.Path("missing")));
}

TEST_F(IniFile, ADirectoryIsReadAsIniparserReadsIt) { EXPECT_EQ(Ours(dir.Path()), Theirs(dir.Path())); }

TEST_F(IniFile, TheDictionaryCanBeChangedAsOneOfIniparser) {
    std::string text = "[s]\n";
    for (int i = 0; i < 1000; ++i) text += "key" + std::to_string(i) + "=" + std::to_string(i) + "\n";
    const char* refusal = nullptr;
    const Dictionary dict(loadIniFile(dir.Write("zce.ini", text), refusal), &iniparser_freedict);

    for (int i = 0; i < 2000; ++i) iniparser_set(dict.get(), ("s:key" + std::to_string(i)).c_str(), "new");
    iniparser_unset(dict.get(), "s:key7");

    EXPECT_STREQ(iniparser_getstring(dict.get(), "s:key1999", nullptr), "new");
    EXPECT_EQ(iniparser_getstring(dict.get(), "s:key7", nullptr), nullptr);
    EXPECT_EQ(iniparser_getsecnkeys(dict.get(), "s"), 1999);
}

TEST_F(IniFile, AFileOfThousandsOfLinesThatAreNoneStopsBeingReported) {
    std::string text;
    for (int i = 0; i < 10000; ++i) text += "nothing\n";

    const Outcome outcome = Ours(dir.Write("zce.ini", text));

    EXPECT_FALSE(outcome.loaded);
    EXPECT_EQ(std::count(outcome.errors.begin(), outcome.errors.end(), '\n'), 200);  // two lines for each of 100
}

TEST_F(IniFile, NoDescriptorStaysOpenWhateverWasRead) {
    const auto open = [] {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    const std::vector<std::string> paths = {dir.Write("good.ini", "[s]\nkey=value\n"),
                                            dir.Write("bad.ini", "nothing\n"), dir.Path(), dir.Path("missing.ini")};
    const auto before = open();

    for (const std::string& path : paths) Ours(path);

    EXPECT_EQ(open(), before);
}

}  // namespace
