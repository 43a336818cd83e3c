#pragma once

#include <signal.h>
#include <sys/wait.h>

#include <iostream>

#include <gtest/gtest.h>

#include "e2e/GatewayStack.h"

namespace vlm::e2e {

/// Bounds of the waits in the end-to-end tests: generous, because they only
/// end a test that has already failed.
inline constexpr auto eventBound = std::chrono::seconds(10);

/// A test with the whole stack started; a failing test prints what every
/// process wrote.
class E2eTest : public ::testing::Test {
protected:
    explicit E2eTest(GatewayStack::Options options = {}) : stack(std::move(options)) {}

    void SetUp() override
    {
        try {
            stack.start();
        } catch (const std::exception& e) {
            FAIL() << e.what();
        }
    }

    /// Every scenario ends with an orderly stop of the host, which must still
    /// work, and a look for sanitizer reports in what it wrote.
    void TearDown() override
    {
        if (stack.host && stack.host->running()) {
            stack.host->signal(SIGTERM);
            const auto status = stack.host->waitExit(std::chrono::seconds(10));
            EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0)
                << "velmora-host did not stop cleanly after the test";
        }
        if (stack.host) {
            const std::string output = stack.host->output();
            EXPECT_EQ(output.find("Sanitizer"), std::string::npos);
            EXPECT_EQ(output.find("runtime error:"), std::string::npos);
        }
        if (HasFailure())
            std::cout << stack.diagnostics();
    }

    /// A request envelope as a ground app sends it.
    static std::string request(const std::string& api, const std::string& msgId)
    {
        return R"({"api":")" + api + R"(","type":"request","from":"e2e-app","target":")" + stationSn +
               R"(","msgId":")" + msgId + R"(","message":{}})";
    }

    GatewayStack stack;
};

} // namespace vlm::e2e
