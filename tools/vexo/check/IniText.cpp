#include "tools/vexo/check/IniText.h"

#include <fcntl.h>
#include <iniparser/iniparser.h>
#include <sys/mman.h>
#include <unistd.h>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "src/config/IniFile.h"
#include "src/config/IniSource.h"
#include "tools/vexo/check/Quiet.h"

namespace vexo::check {

namespace {

constexpr std::size_t kLineSize = 1024;  // what the library takes of a line and those that continue it

using Dictionary = std::unique_ptr<dictionary, void (*)(dictionary*)>;

// What the library makes of one line. Null when it is malformed.
Dictionary readAlone(const std::string& line) {
    const int fd = ::memfd_create("line", MFD_CLOEXEC);
    if (fd < 0) throw std::runtime_error(std::string("memory for a line: ") + std::strerror(errno));
    const std::string text = line + "\n";
    const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const char* why = nullptr;
    const Quiet quiet;
    Dictionary result(written ? loadIniFile("/proc/self/fd/" + std::to_string(fd), why) : nullptr, iniparser_freedict);
    ::close(fd);
    if (why != nullptr) throw std::runtime_error(why);
    return result;
}

}  // namespace

IniText::IniText(const std::string& path) {
    IniSource source;
    if (!source.open(path.c_str())) throw std::runtime_error(std::strerror(errno));
    char line[kLineSize];
    std::size_t kept = 0;  // characters of the lines that this one continues
    std::size_t number = 0;
    std::size_t first = 0;
    while (source.readLine(line + kept, sizeof line - kept)) {
        ++number;
        if (kept == 0) first = number;
        std::size_t length = std::strlen(line);
        if (length < 2) {  // a line of one character is read only when another line follows
            if (length == 1 && line[0] != '\n') m_unread = number;
            continue;
        }
        if (line[length - 1] != '\n' && !source.isAtEnd()) {
            m_tooLong = number;
            break;
        }
        while (length > 0 && std::isspace(static_cast<unsigned char>(line[length - 1])) != 0) --length;
        const bool continued = length > 0 && line[length - 1] == '\\';
        kept = continued ? length - 1 : 0;
        if (!continued) take(std::string(line, length), first, number);
    }
    if (source.failure() != nullptr) throw std::runtime_error(source.failure());
    if (kept > 0) m_unread = first;
}

void IniText::take(const std::string& text, std::size_t first, std::size_t last) {
    IniLine line;
    line.line = first;
    line.lastLine = last;
    line.text = text;
    const Dictionary read = readAlone(text);
    if (read == nullptr) {
        line.kind = IniLine::Kind::kNonsense;
    } else if (read->n > 0 && read->val[0] == nullptr) {
        line.kind = IniLine::Kind::kSection;
        m_section = read->key[0];
    } else if (read->n > 0) {
        line.kind = IniLine::Kind::kKey;
        line.key = read->key[0] + 1;  // behind the colon
        line.value = read->val[0];
    }
    line.section = m_section;
    m_lines.push_back(line);
}

}  // namespace vexo::check
