#include "tools/cardtest/Check.h"

namespace cardtest {

const std::vector<Check>& allChecks() {
    static const std::vector<Check> checks = [] {
        std::vector<Check> all;
        // The checks with other processes come last. A card that keeps what a dead process held would spoil any check
        // after them.
        for (const auto& part :
             {filterChecks(), enumerationChecks(), acceleratorChecks(), coreChecks(), registerChecks(), tableChecks(),
              resetChecks(), upStreamChecks(), trafficChecks(), downStreamChecks(), processChecks()})
            all.insert(all.end(), part.begin(), part.end());
        return all;
    }();
    return checks;
}

}  // namespace cardtest
