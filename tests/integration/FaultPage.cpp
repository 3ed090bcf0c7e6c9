#include "tests/integration/FaultPage.h"

#include <fstream>
#include <iterator>

namespace fault_page {

namespace {

constexpr char kFence[] = "```";

bool BeginsWith(const std::string& text, const std::string& start) { return text.rfind(start, 0) == 0; }

std::string Joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += line + '\n';
    return text;
}

class Reader {
public:
    explicit Reader(Page& page) : m_page(page) {}

    void ReadAll() {
        for (std::size_t n = 0; n < m_page.lines.size(); ++n) {
            const std::string& line = m_page.lines[n];
            if (BeginsWith(line, "## `")) m_page.faults.push_back(line.substr(4, line.find('`', 4) - 4));
            if (BeginsWith(line, kFence)) n = ReadBlock(n);
        }
    }

private:
    // Returns the line where the block ends.
    std::size_t ReadBlock(std::size_t begin) {
        std::size_t end = begin + 1;
        while (end < m_page.lines.size() && m_page.lines[end] != kFence) ++end;
        const auto at = [this](std::size_t n) { return m_page.lines.begin() + static_cast<std::ptrdiff_t>(n); };
        Take(m_page.lines[begin].substr(sizeof kFence - 1), {at(begin + 1), at(end)}, begin, end);
        return end;
    }

    void Take(const std::string& kind, const std::vector<std::string>& content, std::size_t begin, std::size_t end) {
        const std::size_t blank = kind.find(' ');
        if (blank != std::string::npos) {
            m_page.files[kind.substr(blank + 1)] = Joined(content);
        } else if (kind == "ini" && !m_page.faults.empty()) {
            m_page.examples.push_back({m_page.faults.back(), Joined(content), {}, {}, 0, 0, 0, 0});
        } else if (kind == "diff" && !m_page.examples.empty()) {
            m_page.examples.back().log = content;
            m_page.examples.back().logLine = begin;
            m_page.examples.back().logEnd = end;
        } else if (kind == "text" && !m_page.examples.empty()) {
            m_page.examples.back().sight = content;
            m_page.examples.back().sightLine = begin;
            m_page.examples.back().sightEnd = end;
        }
    }

    Page& m_page;
};

}  // namespace

Page Read(const std::string& path) {
    Page page;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) page.lines.push_back(line);
    Reader(page).ReadAll();
    return page;
}

void Write(const std::string& path, const Page& page, const std::vector<Example>& examples) {
    std::ofstream file(path);
    std::size_t next = 0;
    const auto copyTo = [&](std::size_t end) {
        for (; next < end; ++next) file << page.lines[next] << '\n';
    };
    for (const Example& example : examples) {
        copyTo(example.logLine + 1);
        file << Joined(example.log);
        next = example.logEnd;
        copyTo(example.sightLine + 1);
        file << Joined(example.sight);
        next = example.sightEnd;
    }
    copyTo(page.lines.size());
}

}  // namespace fault_page
