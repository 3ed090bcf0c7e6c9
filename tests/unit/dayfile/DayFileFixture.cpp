#include "tests/unit/dayfile/DayFileFixture.h"

#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace fs = std::filesystem;

namespace {

constexpr int kDays = 80000;  // as many as the fake clock can tell from 2040 on

}  // namespace

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    if (!file) throw std::runtime_error(path);
}

std::size_t OpenDescriptors() {
    const fs::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

DayFile::DayFile() : clock(2040, 1, 1 + static_cast<int>(::getpid()) % kDays, 10, 0, 0) {
    const std::time_t now = ::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    char path[32];
    std::strftime(path, sizeof path, "/tmp/.zce_%Y%m%d", &local);
    morning = std::string(path) + "_am";
    evening = std::string(path) + "_pm";
    RemoveFiles();
}

DayFile::~DayFile() { RemoveFiles(); }

void DayFile::RemoveFiles() const {
    std::error_code ignored;  // there is mostly none
    fs::remove(morning, ignored);
    fs::remove(evening, ignored);
}

int DayFile::Load(const std::string& content) {
    WriteFile(morning, content);
    int result = -2;
    log = LogOf([&] { result = bin.CheckOrLoadBinFile(); });
    return result;
}
