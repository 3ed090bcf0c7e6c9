#pragma once

#include <functional>
#include <string>
#include <vector>

/// How a child process ended and what it printed.
struct ChildResult {
    int exitStatus = -1;  ///< -1 when a signal ended it
    int signal = 0;
    bool returned = false;  ///< the body came back, without a failed expectation
    std::string out;
    std::string err;

    /// Standard output by lines, log lines without their time: "INFO text".
    std::vector<std::string> Lines() const;
};

/// Runs @p body in a fork of this process. For code that ends the process, changes its user or its signals, or runs
/// once in a process. Expectations that fail inside are printed and make `returned` false. The calling process must
/// have no other thread.
ChildResult RunInChild(const std::function<void()>& body);
