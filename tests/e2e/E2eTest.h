#pragma once

#include <signal.h>
#include <sys/wait.h>

#include <iostream>

#include <gtest/gtest.h>

#include "e2e/EventStream.h"
#include "e2e/GatewayStack.h"
#include "e2e/MqttProbe.h"

namespace vlm::e2e {

/// Generous: a wait that runs out only ends a test that has already failed.
inline constexpr auto eventBound = std::chrono::seconds(10);

/// A test with the whole stack started; it ends with an orderly stop of the
/// host, which must still work, and a failing test prints what every process wrote.
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
        if (stack.host && stack.host->running()) {
            stack.host->signal(SIGTERM);
            const auto status = stack.host->waitExit(std::chrono::seconds(10));
            EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << "velmora-host did not stop cleanly";
        }
        const std::string output = stack.host ? stack.host->output() : "";
        EXPECT_EQ(output.find("Sanitizer"), std::string::npos);
        EXPECT_EQ(output.find("runtime error:"), std::string::npos);
        if (HasFailure())
            std::cout << stack.diagnostics();
    }

    /// A request envelope as a ground app sends it.
    static std::string request(const std::string& api, const std::string& msgId)
    {
        return R"({"api":")" + api + R"(","type":"request","from":"e2e-app","target":")" + stationSn +
               R"(","msgId":")" + msgId + R"(","message":{}})";
    }

    /// A telemetry stream that has shown a sample, opened again while it is
    /// refused with 4001 (until the vehicle is reported); null after the bound.
    std::unique_ptr<EventStream> telemetryStream()
    {
        std::unique_ptr<EventStream> stream;
        const bool shown = GatewayStack::waitUntil(
            [&] {
                stream = std::make_unique<EventStream>(stack.httpPort, "/index/api/pilot/pushTelemetry",
                                                       stack.options.token);
                return stream->contentType() == "text/event-stream" && !stream->nextData("\"seq\"", eventBound).empty();
            },
            eventBound);
        return shown ? std::move(stream) : nullptr;
    }

    /// Publishes the request until its answer with code 200 comes back on
    /// `topic` (the vehicle is reported a little after a start); the last answer, maybe with another code.
    static std::optional<MqttProbe::Message> mqttAnswer(MqttProbe& app, const std::string& topic,
                                                        const std::string& api, const std::string& msgId)
    {
        std::optional<MqttProbe::Message> answer;
        GatewayStack::waitUntil(
            [&] {
                app.clear();
                app.publish(topic, request(api, msgId));
                answer = app.waitFor(
                    [&](const MqttProbe::Message& m) {
                        return hasText(m.payload, "msgId", msgId) && hasText(m.payload, "type", "response");
                    },
                    std::chrono::seconds(2));
                return answer && answer->payload.find("\"code\":200") != std::string::npos;
            },
            eventBound);
        return answer;
    }

    GatewayStack stack;
};

} // namespace vlm::e2e
