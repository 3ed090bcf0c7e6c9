#pragma once

/// A log that can be started.
class ILogger {
public:
    virtual ~ILogger() = default;
    virtual int Init(int level, const char* dir, const char* name) = 0;
};

/// The logger over the log core: starts it, and closes its file when destroyed.
class CKwLogger : public ILogger {
public:
    ~CKwLogger() override;
    /// @param level  not used: the core writes every level
    /// @return 0, or -1 when the log file cannot be set up (the reason is on standard error)
    int Init(int level, const char* dir, const char* name) override;
};
