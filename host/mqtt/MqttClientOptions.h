#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "VelmoraExport.h"

namespace vlm {

/// Settings of the host's MQTT client.
struct VLM_EXPORT MqttClientOptions {
    /// Broker address: "host:port" (the configuration's own form), or a URI
    /// with "tcp://", "mqtt://" (same as tcp), "ssl://" or "mqtts://" (same as
    /// ssl). A missing port means 1883, or 8883 for TLS.
    std::string serverUri = "127.0.0.1:1883";
    /// Credentials; both empty for an anonymous connection.
    std::string userName;
    std::string password;
    /// PEM file with the certificate authorities trusted for "ssl://"; empty
    /// means the system's default trust store.
    std::string caFile;
    /// Turns off the check of the broker's certificate chain and host name on
    /// "ssl://" (logged as a warning at every start). For test benches only.
    bool tlsInsecure = false;
    /// Client identifier at the broker; empty means a unique one is made up.
    std::string clientId;
    /// The station serial number that getstation() reports.
    std::string stationSerial;

    std::chrono::seconds keepAlive{30};
    /// Pause before the first retry after a lost or failed connection; doubled
    /// on every further failure up to reconnectMaxDelay.
    std::chrono::milliseconds reconnectMinDelay{1000};
    std::chrono::milliseconds reconnectMaxDelay{30000};
    /// Bound of one connection attempt. Keep it above 2 s: the library serves
    /// all clients of a process from one network thread that notices a new
    /// connection only after its poll of the others' idle sockets times out,
    /// so a client connecting while another is connected needs up to ~2 s.
    std::chrono::seconds connectTimeout{5};
    /// Bound of the waits for the broker's acknowledgement of a subscribe,
    /// unsubscribe or disconnect.
    std::chrono::milliseconds operationTimeout{5000};

    /// Larger messages are refused on arrival, before any handler sees them.
    std::size_t maxPayloadBytes = 1048576;
    /// Threads that run the handlers; a topic is always served by the same one.
    std::size_t deliveryThreads = 4;
    /// Bounds of the messages waiting for a delivery thread, over all threads:
    /// their count and the bytes of their topics and payloads. A message that
    /// does not fit is dropped. Keep the bytes at or above maxPayloadBytes.
    std::size_t deliveryQueueMessages = 1000;
    std::size_t deliveryQueueBytes = 16 * 1048576;
};

/// The URI the Paho library understands for a configured broker address:
/// "tcp://host:port" or "ssl://host:port". Throws std::invalid_argument naming
/// the address when it has an unknown scheme, no host or a bad port.
VLM_EXPORT std::string normalizeMqttServerUri(const std::string& configured);

/// Whether a normalized URI asks for TLS.
VLM_EXPORT bool isTlsMqttUri(const std::string& normalized);

/// The host part of a normalized URI, IPv6 addresses in brackets.
VLM_EXPORT std::string mqttUriHost(const std::string& normalized);

/// Whether the host of a normalized URI is the loopback interface
/// ("localhost", 127.0.0.0/8 or [::1]).
VLM_EXPORT bool isLoopbackMqttUri(const std::string& normalized);

} // namespace vlm
