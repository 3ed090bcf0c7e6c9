#pragma once

#include <string>

/// A date far in the future for one test. Its index files under /tmp are removed before and after the test. The date
/// comes from the process id, so that test programs that run at the same time do not share a file.
class DayFiles {
public:
    DayFiles();
    ~DayFiles();
    DayFiles(const DayFiles&) = delete;
    DayFiles& operator=(const DayFiles&) = delete;

    int year, month, day;

    unsigned int Number() const;  ///< YYYYMMDD
    std::string Text() const { return std::to_string(Number()); }
    std::string MorningPath() const { return "/tmp/.zce_" + Text() + "_am"; }
    std::string EveningPath() const { return "/tmp/.zce_" + Text() + "_pm"; }

    /// Writes the file of the half-day before 17:00, replacing what was there.
    void WriteMorning(const std::string& content) const;
    std::string ReadMorning() const;

private:
    void Remove() const;
};
