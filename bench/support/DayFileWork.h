#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bench/support/Host.h"
#include "bench/support/Market.h"
#include "src/dayfile/DayFile.h"

namespace bench {

/// The day file of a list of instruments, written and loaded by the library and by hand.
class DayFileWork {
public:
    explicit DayFileWork(std::vector<Instrument> list) : m_list(std::move(list)) {
        for (const Instrument& inst : m_list) m_lines.push_back(std::to_string(inst.index) + ',' + inst.id + '\n');
    }
    ~DayFileWork() {
        if (m_fd >= 0) ::close(m_fd);
        ::unlink(m_path.c_str());
    }
    DayFileWork(const DayFileWork&) = delete;
    DayFileWork& operator=(const DayFileWork&) = delete;

    // ---- written; both into the same file, emptied before ----

    void StartFile() {
        if (m_bin.InstBinFileInit() != 0) std::abort();
    }
    void Write() {
        for (const Instrument& inst : m_list) m_bin.WriteBinFileInst(inst.id, inst.index);
    }
    void StartFileBare() {
        if (m_fd >= 0) ::close(m_fd);
        m_fd = ::open(m_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    }
    void WriteBare() {
        for (const std::string& line : m_lines) {
            if (::write(m_fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) std::abort();
        }
    }

    // ---- loaded ----

    void Fill() const {
        std::ofstream file(m_path);
        file << "inst_index,inst_id\n";
        for (const std::string& line : m_lines) file << line;
        file << "bin_file_over_tag\n";
    }
    void Empty() {
        m_map.clear();
        SettleHeap();
    }
    void Load() {
        if (m_bin.CheckOrLoadBinFile() != 0 || m_map.size() != m_list.size()) std::abort();
    }
    // What a careful hand writes: one read, numbers by std::from_chars, lines sorted before the map gets them.
    void LoadByHand() {
        const std::string content = ReadAll();
        std::vector<std::pair<std::string_view, unsigned short>> lines;
        lines.reserve(content.size() / 8);
        bool whole = false;
        const char* const end = content.data() + content.size();
        for (const char* at = content.data(); at < end;) {
            const auto* const lineEnd = static_cast<const char*>(
                std::memchr(at, '\n', static_cast<std::size_t>(end - at)));
            if (lineEnd == nullptr) std::abort();
            unsigned short index = 0;
            const std::from_chars_result number = std::from_chars(at, lineEnd, index);
            if (number.ec == std::errc() && *number.ptr == ',') {
                const char* const id = number.ptr + 1;
                lines.emplace_back(std::string_view(id, static_cast<std::size_t>(lineEnd - id)), index);
            } else if (std::string_view(at, static_cast<std::size_t>(lineEnd - at)) == "bin_file_over_tag") {
                whole = true;
            }
            at = lineEnd + 1;
        }
        std::sort(lines.begin(), lines.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
        for (const auto& [id, index] : lines) m_map.emplace_hint(m_map.end(), id, index);
        if (!whole || m_map.size() != m_list.size()) std::abort();
    }

private:
    std::string ReadAll() const {
        const int fd = ::open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat info {};
        if (fd < 0 || ::fstat(fd, &info) != 0) std::abort();
        std::string content(static_cast<std::size_t>(info.st_size), '\0');
        if (::read(fd, content.data(), content.size()) != info.st_size) std::abort();
        ::close(fd);
        return content;
    }

    std::vector<Instrument> m_list;
    std::vector<std::string> m_lines;
    std::string m_path = DayFilePath();
    int m_fd = -1;
    std::map<std::string, unsigned short> m_map;
    CBrixBinFile m_bin{m_map, 0};
};

}  // namespace bench
