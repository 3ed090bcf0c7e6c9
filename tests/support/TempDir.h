#pragma once

#include <string>

namespace test_support {

/// An empty directory of its own that is the working directory of the process while this lives, made under $TMPDIR (or
/// /tmp). At the end it restores the old working directory and removes the new one with all its content.
class TempDir {
public:
    /// Throws std::system_error when the directory cannot be made or entered.
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    /// Absolute, without a slash at the end.
    const std::string& Path() const { return m_path; }
    /// Absolute path of @p name inside the directory.
    std::string Path(const std::string& name) const { return m_path + "/" + name; }

    /// Writes a file of the directory, replacing what was there. @return its absolute path.
    std::string Write(const std::string& name, const std::string& content, unsigned int mode = 0644) const;
    /// The whole content of a file of the directory; empty when there is no such file.
    std::string Read(const std::string& name) const;

private:
    std::string m_path;
    int m_oldCwdFd;
};

}  // namespace test_support
