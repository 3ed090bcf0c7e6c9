#pragma once

#include <stdlib.h>
#include <time.h>

#include <optional>
#include <string>

namespace test_support {

/// TZ while it lives, set as an application does that does not call tzset().
class TimeZone {
public:
    explicit TimeZone(const char* name) {
        if (const char* old = ::getenv("TZ")) m_old = old;
        ::setenv("TZ", name, 1);
    }
    ~TimeZone() {
        if (m_old) {
            ::setenv("TZ", m_old->c_str(), 1);
        } else {
            ::unsetenv("TZ");
        }
        ::tzset();
    }
    TimeZone(const TimeZone&) = delete;
    TimeZone& operator=(const TimeZone&) = delete;

private:
    std::optional<std::string> m_old;
};

}  // namespace test_support
