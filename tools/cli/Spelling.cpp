#include "tools/cli/Spelling.h"

#include <algorithm>
#include <vector>

namespace cli {

std::size_t distance(const std::string& a, const std::string& b) {
    std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
    for (std::size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t replaced = d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, replaced});
            const bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
            if (swapped) d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    }
    return d[a.size()][b.size()];
}

}  // namespace cli
