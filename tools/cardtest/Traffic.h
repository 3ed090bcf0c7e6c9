#pragma once

#include <memory>

#include "tools/cardtest/CardUnderTest.h"
#include "tools/cardtest/SavedState.h"

namespace cardtest {

/// Quotes for one channel: rows of the single-leg table get its bit in their masks, and the decode switch is turned
/// on. Both are put back at the end. Does nothing when the plan does not allow writing.
class Traffic {
public:
    /// Throws Untestable when the card has learned no instrument within the plan's time.
    Traffic(const TestPlan& plan, std::uint32_t channel);

private:
    void subscribe(const TestPlan& plan, std::uint32_t channel);

    struct Saved {
        explicit Saved(std::uint32_t bus);
        RegisterCore registers;
        TableAccess tables;
        RegisterSaved data;
        RegisterSaved decode;
        WordsSaved masks;
    };
    std::unique_ptr<Saved> m_saved;
};

/// Why no packet came: what the user can do about it.
Untestable noPacket(const TestPlan& plan, std::uint32_t channel);

}  // namespace cardtest
