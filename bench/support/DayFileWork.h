#pragma once

#include <fcntl.h>
#include <unistd.h>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
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
    void LoadBare() {
        std::ifstream file(m_path);
        bool whole = false;
        std::string line;
        std::getline(file, line);  // the header
        while (std::getline(file, line)) {
            if (line == "bin_file_over_tag") {
                whole = true;
                continue;
            }
            const std::size_t comma = line.find(',');
            if (comma == std::string::npos) continue;
            m_map.emplace(line.substr(comma + 1), static_cast<unsigned short>(std::stoi(line)));
        }
        if (!whole || m_map.size() != m_list.size()) std::abort();
    }

private:
    std::vector<Instrument> m_list;
    std::vector<std::string> m_lines;
    std::string m_path = DayFilePath();
    int m_fd = -1;
    std::map<std::string, unsigned short> m_map;
    CBrixBinFile m_bin{m_map, 0};
};

}  // namespace bench
