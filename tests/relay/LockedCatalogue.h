#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <string>

/// Another program keeps the catalogue of an archive for itself: a relay that starts on it waits for some seconds. Who
/// has the file open under its own name is not that program.
class LockedCatalogue {
public:
    /// @param otherName  of the same file, in another directory
    LockedCatalogue(const std::string& path, const std::string& otherName) : m_path(path) {
        std::ofstream{path};
        std::filesystem::create_hard_link(path, otherName);
        EXPECT_EQ(sqlite3_open(otherName.c_str(), &m_database), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(m_database, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    }
    ~LockedCatalogue() { sqlite3_close(m_database); }
    LockedCatalogue(const LockedCatalogue&) = delete;
    LockedCatalogue& operator=(const LockedCatalogue&) = delete;

    const std::string& Path() const { return m_path; }

private:
    const std::string m_path;
    sqlite3* m_database = nullptr;
};
