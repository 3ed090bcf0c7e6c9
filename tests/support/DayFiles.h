#pragma once

#include <string>

/// A date of its own, far in the future, whose index files under /tmp are gone before a test and behind it. It comes
/// from the process id, so that test programs that run side by side do not share a file.
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
