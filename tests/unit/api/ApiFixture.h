#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "src/api/ApiImpl.h"
#include "tests/doubles/FakeEnyxHw.h"
#include "tests/support/Child.h"
#include "tests/support/DayFiles.h"
#include "tests/support/FakeTime.h"
#include "tests/support/QuoteCallbacks.h"
#include "tests/support/TempDir.h"

/// Counts the callbacks of an application.
class CountingSpi : public QuoteCallbacks {
public:
    int calls = 0;
    std::function<void()> onCall;

private:
    int OnQuote(int, const unsigned char*) override {
        ++calls;
        if (onCall) onCall();
        return 0;
    }
};

/// The API over scripted cards that let themselves be started, at noon of a day of its own, in an empty working
/// directory. The log, the driver and the signal handlers are of the process, so what starts the API runs in a child.
class ApiTest : public testing::Test {
protected:
    ApiTest();
    ~ApiTest() override;

    /// Writes an ini file of the working directory for a channel of a card. @return its path.
    std::string Ini(unsigned int card, unsigned int chan, const std::string& more = "") const;
    static std::string Stream(unsigned int chan) { return "CUSTOM_CHAN" + std::to_string(chan) + "_DATA"; }
    /// A quote of a type that the stream of a channel hands over with its next poll.
    void Quote(unsigned int chan, unsigned char type = 17);
    /// An object started on the channel of card 0.
    IVexoZceMdApi* Started(unsigned int chan);
    std::string LogPath() const { return dir.Path("fpga_" + day.Text() + ".log"); }

    DayFiles day;
    test_support::FakeTime time;
    test_support::TempDir dir;
    test_support::FakeEnyxHw hw;
    CountingSpi spi;
};
