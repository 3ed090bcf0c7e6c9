#include "tests/support/Child.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <system_error>

#include "tests/support/CaptureOutput.h"

namespace {

constexpr int kReturned = 77;
constexpr int kFailed = 78;

[[noreturn]] void RunBody(const std::function<void()>& body) {
    body();
    std::fflush(nullptr);
    // Not _exit: exit writes the coverage counters and checks for leaks.
    std::exit(testing::Test::HasFailure() ? kFailed : kReturned);
}

}  // namespace

ChildResult RunInChild(const std::function<void()>& body) {
    ChildResult result;
    test_support::CaptureOutput out(1);
    test_support::CaptureOutput err(2);
    const pid_t child = ::fork();
    if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (child == 0) RunBody(body);

    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    result.out = out.Stop();
    result.err = err.Stop();
    if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
    result.returned = result.exitStatus == kReturned;
    return result;
}

std::vector<std::string> ChildResult::Lines() const {
    static const std::regex prefix(R"(^\[(\w+) *\](\[\d{8}-\d\d:\d\d:\d\d\])?\[\w+\])");
    std::vector<std::string> lines;
    std::istringstream text(out);
    for (std::string line; std::getline(text, line);) lines.push_back(std::regex_replace(line, prefix, "$1 "));
    return lines;
}
