#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "VelmoraExport.h"

namespace vlm {

class WebApiBasic;
class MqttClient;

/// Base class of every Velmora plug-in. The host creates a plug-in through the
/// factory it registered, then drives it through these virtual operations only:
/// setCallback, start once, pushMessage while running, stop, release.
///
/// The member order and the virtual slot order are part of the host ABI; do not
/// reorder them. The non-pure members are inline, so each plug-in carries its own
/// copy and only the vtable layout is shared with the host.
class VLM_EXPORT PluginBase {
public:
    /// Hands one JSON text to the host's message bus.
    using MessageCallback = std::function<void(std::string)>;

    PluginBase() = default;
    PluginBase(const PluginBase&) = delete;
    PluginBase& operator=(const PluginBase&) = delete;

    virtual ~PluginBase() = default;

    /// Installs the message-forwarding callback (may be empty).
    virtual void setCallback(MessageCallback cb) { callback = std::move(cb); }

    /// Stores the two host services and the address and port of the service the
    /// plug-in talks to. Overrides call this first.
    virtual void start(std::shared_ptr<WebApiBasic> web, std::shared_ptr<MqttClient> mqtt,
                       std::string addr, unsigned short prt)
    {
        {
            // The host passes these once, but other threads may already ask for
            // them through getAddress/getPort, so the store is guarded too.
            std::lock_guard<std::mutex> lock(mutex);
            address = std::move(addr);
            port = prt;
        }
        webApi = std::move(web);
        mqttClient = std::move(mqtt);
    }

    virtual void stop() = 0;

    /// Delivers one message from another plug-in (a JSON text).
    virtual void pushMessage(std::string message) = 0;

    virtual uint32_t getType() { return type; }
    virtual std::string getName() { return name; }

    virtual std::string getAddress()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return address;
    }

    virtual uint16_t getPort()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return port;
    }

    /// Takes the string's content; the argument is left empty.
    virtual void setAddress(std::string addr)
    {
        std::lock_guard<std::mutex> lock(mutex);
        address = std::move(addr);
        addr.clear();
    }

    virtual void setPort(uint16_t prt)
    {
        std::lock_guard<std::mutex> lock(mutex);
        port = prt;
    }

protected:
    uint32_t type = 0;
    std::string name;
    std::string address;        // guarded by mutex
    uint16_t port = 0;          // guarded by mutex
    std::string reserved;       // kept empty; part of the host layout
    std::mutex mutex;           // guards address and port
    MessageCallback callback;
    std::shared_ptr<WebApiBasic> webApi;
    std::shared_ptr<MqttClient> mqttClient;
};

} // namespace vlm
