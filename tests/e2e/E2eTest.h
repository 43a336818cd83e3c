#pragma once

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

    void TearDown() override
    {
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
