#include "tests/support/DayFiles.h"

#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

DayFiles::DayFiles() {
    constexpr std::time_t kFirst = 3155760000;  // 2070-01-01 00:00:00 UTC
    constexpr int kDays = 3650;
    const std::time_t when = kFirst + (::getpid() % kDays) * 86400;
    std::tm date{};
    ::gmtime_r(&when, &date);
    year = date.tm_year + 1900;
    month = date.tm_mon + 1;
    day = date.tm_mday;
    Remove();
}

DayFiles::~DayFiles() { Remove(); }

unsigned int DayFiles::Number() const { return static_cast<unsigned int>(year * 10000 + month * 100 + day); }

void DayFiles::WriteMorning(const std::string& content) const { std::ofstream(MorningPath()) << content; }

std::string DayFiles::ReadMorning() const {
    std::ostringstream content;
    content << std::ifstream(MorningPath()).rdbuf();
    return content.str();
}

void DayFiles::Remove() const {
    std::filesystem::remove_all(MorningPath());
    std::filesystem::remove_all(EveningPath());
}
