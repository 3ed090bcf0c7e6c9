#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "tests/support/TempDir.h"

/// A host whose tools print what a test wants, while this lives: PATH leads to a directory with grep and the tools that
/// were installed here, and nothing else. `popen`, `getpwuid` and `getuid` are interposed in the test binary:
/// commands are recorded, and can be refused as on a host that cannot start another process.
class FakeHost {
public:
    FakeHost();
    ~FakeHost();
    FakeHost(const FakeHost&) = delete;
    FakeHost& operator=(const FakeHost&) = delete;

    /// Makes a command that prints these lines; replaces the one of the same name.
    void Install(const std::string& tool, const std::vector<std::string>& lines);
    void Uninstall(const std::string& tool);

    /// From now on `popen` fails for every command that contains this text; "" refuses all.
    void RefuseCommandsWith(const std::string& text);
    /// The commands handed to `popen`, refused ones included.
    std::vector<std::string> Commands() const;
    /// The lowest descriptor of a stream that `popen` has given; INT_MAX when there was none.
    int LowestDescriptor() const;

    /// The real user id becomes @p uid, and the user database knows it under @p name; null = it has no entry.
    void SetUser(uid_t uid, const char* name);

private:
    test_support::TempDir m_dir;
    std::string m_oldPath;
};
