#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/hosted/HostProcess.h"
#include "tests/support/NatsServer.h"
#include "tests/support/TempDir.h"

/// `vexo relay` as a user starts it, on simulated cards of the test's own.
class RelayFixture : public ::testing::Test {
protected:
    RelayFixture();
    ~RelayFixture() override;

    /// A capture of one channel: packets of one size, which differ, at equal distances. @return their bytes
    std::vector<std::string> WriteCapture(std::size_t packets, std::size_t size, std::uint64_t everyNs);
    /// The options of `vexo sim run` for an embedded card that replays the capture.
    static std::vector<std::string> Replaying(const std::string& pace);

    /// Starts `vexo sim run CARD -- vexo relay OPTIONS --json` and gives it the server.
    hosted::Process Start(const std::vector<std::string>& card, const std::vector<std::string>& options,
                          const std::string& name = "relay");
    /// The first line on standard error is there: packets go.
    bool IsRelaying(hosted::Process& relay, const std::string& name = "relay") const;
    /// It has opened this file, or opens it just now.
    static bool HasOpened(hosted::Process& relay, const std::string& path);
    std::string Errors(const std::string& name = "relay") const { return dir.Read(name + ".err"); }
    /// Ends it as Ctrl-C does. @return what it shows at its end
    nlohmann::json End(hosted::Process& relay, const std::string& name = "relay");
    nlohmann::json Result(const std::string& name = "relay") const;
    /// What `vexo WORDS` writes to standard output.
    std::string Shown(std::vector<std::string> words) const;

    test_support::TempDir dir;  // the working directory, too
    hosted::CardDirectory cards;
};
