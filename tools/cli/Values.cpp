#include "tools/cli/Values.h"

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace cli {
namespace {

namespace fs = std::filesystem;

constexpr char kDigits[] = "0123456789";
constexpr std::uint64_t kLargestPid = (1U << 30) - 1;  // that Linux can have

std::string shortNumber(double number) {
    char text[32];
    std::snprintf(text, sizeof text, "%.10g", number);
    return text;
}

std::string listed(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : ", ") + word;
    return text;
}

// False when the text is none, or out of the range.
bool readWhole(const std::string& text, std::uint64_t least, std::uint64_t most, std::uint64_t& value) {
    if (text.empty() || text.find_first_not_of(kDigits) != std::string::npos) return false;
    errno = 0;
    value = std::strtoull(text.c_str(), nullptr, 10);
    return errno == 0 && value >= least && value <= most;
}

}  // namespace

Check wholeNumber(std::uint64_t least, std::uint64_t most) {
    const std::string range = std::to_string(least) + " to " + std::to_string(most);
    const auto check = [=](std::string& text) {
        std::uint64_t value = 0;
        if (!readWhole(text, least, most, value)) return text + " is not a whole number from " + range;
        text = std::to_string(value);
        return std::string();
    };
    return {check, range};
}

Check processId() { return wholeNumber(1, kLargestPid); }

Check number(double least, double most) {
    const std::string range = shortNumber(least) + " to " + shortNumber(most);
    const auto check = [=](std::string& text) {
        char* end = nullptr;
        const double value = std::strtod(text.c_str(), &end);
        const bool isNumber = end != text.c_str() && *end == '\0' && value >= least && value <= most;
        return isNumber ? std::string() : text + " is not a number from " + range;
    };
    return {check, range};
}

Check oneOf(const std::vector<std::string>& words) {
    const auto check = [=](std::string& text) {
        const bool isOne = std::find(words.begin(), words.end(), text) != words.end();
        return isOne ? std::string() : text + " is none of " + listed(words);
    };
    return {check};
}

Check notEmpty() {
    return {[](std::string& text) {
        return text.empty() ? std::string("the value is empty; give one, or leave the option out") : std::string();
    }};
}

Check directory() {
    const auto check = [](std::string& text) {
        std::error_code error;
        if (fs::is_directory(text, error)) return std::string();
        return fs::exists(text, error) ? text + " is no directory" : "there is no directory " + text;
    };
    return {check};
}

std::string faultOfReading(int error) {
    const std::string why = std::strerror(error);
    if (error == ENOENT || error == ENOTDIR) return why + "; check the path";
    return error == EACCES ? why + "; start as a user who may read it" : why;
}

std::string faultOfNewFile(const std::string& path) {
    std::error_code error;
    const fs::path whole(path);
    const fs::path folder = whole.has_parent_path() ? whole.parent_path() : fs::path(".");
    if (!fs::is_directory(folder, error)) return "there is no directory " + folder.string();
    if (whole.filename().empty() || fs::is_directory(whole, error)) return "this is a directory, not a file";
    if (::faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) != 0)
        return "this user cannot write in the directory " + folder.string();
    return {};
}

}  // namespace cli
