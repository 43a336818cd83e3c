#pragma once

// The host in-process: a real broker, a scripted service, the real plug-in.

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <Poco/JSON/Parser.h>

#include "VelmoraCommon.h"
#include "app/HostApp.h"
#include "host/HttpTestClient.h"
#include "plugin/ScriptedService.h"
#include "support/MosquittoBroker.h"

namespace vlm::test {

inline constexpr const char* pilotGuid = "{D639B3D5-A951-4BC7-A629-91255EBF9638}";

class HostAppFixture : public ::testing::Test {
protected:
    void SetUp() override { broker.start(); }
    void TearDown() override { app.reset(); }

    /// The pilot plug-in's entry, pointed at the scripted service.
    std::string pilotPlugin() const
    {
        return R"({"library": ")" + std::string(VELMORA_PILOT_PLUGIN) + R"(", "service_port": )" +
               std::to_string(service.port) + "}";
    }

    /// Starts the host: `http` adds members to "http", `plugins` replaces the
    /// plug-in list (else the pilot alone), `extra` adds top-level members.
    void startHost(const std::string& http = "", const std::string& plugins = "", const std::string& extra = "")
    {
        // The plug-in reads the broker keys from the host configuration itself.
        vlm::configInstance().setString("mqtt.server_uri", broker.hostPort());
        vlm::configInstance().setString("mqtt.user_name", "");
        vlm::configInstance().setString("mqtt.pawsswd", "");
        const std::string text = R"({"http": {"port": 0)" + http + R"(},
          "mqtt": {"server_uri": ")" + broker.hostPort() + R"(", "user_name": "", "pawsswd": ""},
          "station": {"station_sn": "station-7"}, )" + extra +
                                 R"( "plugins": [)" + (plugins.empty() ? pilotPlugin() : plugins) + "]}";
        auto root = Poco::JSON::Parser().parse(text).extract<Poco::JSON::Object::Ptr>();
        app = std::make_unique<vlm::host::HostApp>(vlm::host::parseHostConfig(*root, "/etc/velmora/host.json", ""));
        app->start();
    }

    /// Sends `call` to the host, with the bearer token when one is set.
    HttpAnswer send(HttpCall call)
    {
        if (!token.empty())
            call.headers["Authorization"] = "Bearer " + token;
        return call.sendTo(app->httpPort());
    }

    /// The "/host/health" report.
    Poco::JSON::Object::Ptr health()
    {
        const auto answer = send(get("/host/health"));
        EXPECT_EQ(answer.status, 200);
        EXPECT_EQ(answer.contentType, "application/json");
        return answer.json();
    }

    MosquittoBroker broker;
    ScriptedService service;
    std::unique_ptr<vlm::host::HostApp> app;
    std::string token;
};

} // namespace vlm::test
