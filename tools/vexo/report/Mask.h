#pragma once

#include <map>
#include <string>
#include <string_view>

namespace vexo::report {

/// Takes passwords and network addresses out of texts. The same address becomes the same word everywhere, so that a
/// reader still sees which ones are equal.
class Mask {
public:
    std::string apply(std::string_view text);

private:
    std::string line(std::string_view text);
    std::string addresses(std::string_view text);
    std::string standIn(std::string_view address);

    std::map<std::string, std::string, std::less<>> m_standIns;
};

}  // namespace vexo::report
