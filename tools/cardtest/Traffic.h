#pragma once

#include <memory>

#include "tools/cardtest/CardUnderTest.h"
#include "tools/cardtest/SavedState.h"

namespace cardtest {

/// Makes the card send quotes to one channel: sets the channel's bit in masks of single-leg rows and turns the decode
/// switch on. Puts both back at the end. Does nothing when the plan does not allow writing.
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

/// Says why no packet came and what the user can do.
Untestable noPacket(const TestPlan& plan, std::uint32_t channel);

}  // namespace cardtest
