#pragma once

// A minimal Velmora plug-in: one HTTP route, and an answer to every bus
// message addressed to it.

#include <memory>
#include <string>

#include "PluginBase.h"

namespace hello {

/// The identity the host reads through the entry points. Every plug-in needs
/// a GUID of its own: the host refuses a second library with the same one.
inline constexpr const char* pluginName = "VelmoraPluginHello";
inline constexpr int pluginType = 100;
inline constexpr const char* pluginGuid = "{5B0E7C1A-4F3D-4E8B-9A26-D1C3B7E4F902}";

/// POST, JSON body {"name": "..."} (optional); answers a greeting.
inline constexpr const char* greetPath = "/index/api/hello/greet";

class HelloPlugin : public vlm::PluginBase {
public:
    HelloPlugin();
    ~HelloPlugin() override;

    /// Registers the route. Called once, on the host's main thread.
    void start(std::shared_ptr<vlm::WebApiBasic> web, std::shared_ptr<vlm::MqttClient> mqtt, std::string addr,
               unsigned short prt) override;

    /// After this no bus message is answered any more.
    void stop() override;

    /// A bus message addressed to this plug-in; called on the host's bus thread.
    void pushMessage(std::string message) override;

    /// What the route handler and the bus intake share. The route may be
    /// called until the host's HTTP server stops, which is after this
    /// instance is gone, so the handler holds the state, not the instance.
    struct State;

private:
    std::shared_ptr<State> state;
};

} // namespace hello
