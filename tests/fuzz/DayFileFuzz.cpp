// The text of a day file through the loader, against a model of the format. And back: what the writer has written, the
// loader loads.
//
// An input: a byte of switches, then the text.

#include <fcntl.h>
#include <unistd.h>
#include <cstdarg>
#include <cstring>
#include <map>
#include <vector>

#include "src/dayfile/DayFile.h"
#include "src/log/elog.h"
#include "tests/fuzz/Fuzz.h"
#include "tests/support/TempDir.h"

namespace {

const char* s_dayFile = nullptr;

}  // namespace

// Day files are files of the machine. This program has one of its own instead, whatever the time of day.
extern "C" int open(const char* path, int flags, ...) {
    va_list more;
    va_start(more, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(more, mode_t) : 0;
    va_end(more);
    const bool isDayFile = s_dayFile != nullptr && std::strncmp(path, "/tmp/.zce_", 10) == 0;
    return ::openat(AT_FDCWD, isDayFile ? s_dayFile : path, flags, mode);
}

namespace {

using Map = std::map<std::string, unsigned short>;

enum Switch : std::uint8_t {
    kWriteInstead = 1,  // the text is instruments for the writer, one a line
    kFull = 2,          // the map holds instruments already
};

std::vector<std::string> LinesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::string line;
    for (const char c : text) {
        if (c == '\n') {
            lines.push_back(line);
            line.clear();
        } else {
            line += c;
        }
    }
    if (!line.empty()) lines.push_back(line);
    return lines;
}

unsigned short NumberOf(const std::string& text) {
    unsigned long number = 0;
    for (std::size_t i = 0; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i)
        number = (number * 10 + static_cast<unsigned long>(text[i] - '0')) % 65536;
    return static_cast<unsigned short>(number);
}

/// What a load makes of the map. @return its result
int LoadPlainly(const std::string& text, Map& map) {
    bool tag = false;
    for (const std::string& line : LinesOf(text)) {
        const std::size_t comma = line.find(',');
        if (line == "bin_file_over_tag") tag = true;
        if (line == "inst_index,inst_id" || comma == std::string::npos) continue;
        map.emplace(line.substr(comma + 1), NumberOf(line.substr(0, comma)));
    }
    if (tag && !map.empty()) return 0;
    map.clear();
    return -1;
}

class Campaign {
public:
    Campaign() {
        fuzz::DropStandardOutput();
        elog_set_output_enabled(true);
        s_dayFile = m_path.c_str();
    }
    ~Campaign() { s_dayFile = nullptr; }
    Campaign(const Campaign&) = delete;
    Campaign& operator=(const Campaign&) = delete;

    void Run(fuzz::Input input) {
        const std::uint8_t switches = input.Byte();
        (switches & kWriteInstead) != 0 ? WriteAndLoad(input.Rest()) : Load(input.Rest(), (switches & kFull) != 0);
    }

private:
    void Load(const std::string& text, bool full) {
        m_dir.Write("day", text);
        Map map;
        if (full) map = {{"SR505", 1}, {"", 2}, {"CF505", 65535}};
        Map expected = map;
        CBrixBinFile file(map, 0);
        const int result = file.CheckOrLoadBinFile();
        fuzz::Require(result == LoadPlainly(text, expected), "a day file is loaded or refused wrongly");
        fuzz::Require(map == expected, "the map is not what the day file says");
    }

    void WriteAndLoad(const std::string& text) {
        Map written;
        bool hasLineFeed = false;
        {
            Map unused;
            CBrixBinFile file(unused, 0);
            fuzz::Require(file.InstBinFileInit() == 0, "the day file is not begun");
            unsigned short index = 0;
            for (std::string id : LinesOf(text)) {
                // The tab stands for the line feed that no line of a text can hold.
                for (char& c : id) c = c == '\t' ? '\n' : c;
                const bool isNew = written.emplace(id, index).second;
                if (!isNew) continue;
                hasLineFeed = hasLineFeed || id.find('\n') != std::string::npos;
                file.WriteBinFileInst(id, index);
                index = static_cast<unsigned short>(index + 257);
            }
            file.WriteBinFileEnd();
        }
        Map loaded;
        CBrixBinFile file(loaded, 0);
        const bool whole = !hasLineFeed && !written.empty();
        fuzz::Require(file.CheckOrLoadBinFile() == (whole ? 0 : -1),
                      "what was written is not loaded, or half of it is");
        fuzz::Require(loaded == (whole ? written : Map()), "what was loaded is not what was written");
    }

    const test_support::TempDir m_dir;
    const std::string m_path = m_dir.Path("day");
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Campaign campaign;
    campaign.Run({data, size});
    return 0;
}
