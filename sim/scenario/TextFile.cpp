#include "sim/scenario/TextFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vexo_sim::scenario {
namespace {

constexpr std::size_t kMostBytes = 4U << 20;  // both tables full take half a megabyte

class Descriptor {
public:
    // A FIFO must not block the open that finds out what it is.
    explicit Descriptor(const std::string& path) : m_fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {}
    ~Descriptor() {
        if (m_fd >= 0) ::close(m_fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

bool isRegular(int fd) {
    struct stat status;
    return ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

std::string readWhole(const std::string& path) {
    const Descriptor file(path);
    if (file.get() < 0) throw Rejected(path, 0, std::string(std::strerror(errno)) + "; check the path");
    if (!isRegular(file.get())) throw Rejected(path, 0, "this is not a regular file; name a file of text");
    std::string content;
    char chunk[65536];
    for (;;) {
        const ssize_t got = ::read(file.get(), chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) throw Rejected(path, 0, std::string("cannot be read: ") + std::strerror(errno));
        if (got == 0) return content;
        content.append(chunk, static_cast<std::size_t>(got));
        if (content.size() > kMostBytes) throw Rejected(path, 0, "the file is far too large; check the path");
    }
}

void requireText(const std::string& line, const std::string& path, std::size_t number) {
    if (line.size() > kLongestLine)
        throw Rejected(path, number, "the line is too long; keep it below 1,000 characters");
    if (!isPlainText(line)) throw Rejected(path, number, "the line has a control character in it; write plain text");
}

}  // namespace

std::vector<std::string> readLines(const std::string& path) {
    const std::string content = readWhole(path);
    std::vector<std::string> lines;
    for (std::size_t start = 0; start < content.size();) {
        const std::size_t end = std::min(content.find('\n', start), content.size());
        std::string line = content.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        requireText(line, path, lines.size() + 1);
        lines.push_back(std::move(line));
        start = end + 1;
    }
    return lines;
}

void requireFile(const std::string& path, const std::string& namedIn, std::size_t line, const std::string& base) {
    const Descriptor file(path);
    if (file.get() < 0)
        throw Rejected(namedIn, line, "file " + path + ": " + std::strerror(errno) + "; paths are relative to " + base);
    if (!isRegular(file.get())) throw Rejected(namedIn, line, "file " + path + " is not a regular file; name one");
}

bool isPlainText(const std::string& text) {
    return std::none_of(text.begin(), text.end(),
                        [](char c) { return static_cast<unsigned char>(c) < ' ' && c != '\t'; });
}

std::string trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace vexo_sim::scenario
