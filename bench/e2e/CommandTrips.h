#pragma once

// The command phase: a command's round trip over HTTP and over MQTT through
// the real stack, and, taking turns with them, the floors: a POCO HTTP echo,
// an MQTT echo through the same broker, raw RPC frames to an echo socket
// (the link's transport) and to the simulator (the transport plus the
// simulator's own time).

#include "Floors.h"
#include "e2e/GatewayStack.h"

namespace vlm::bench {

struct CommandTrips {
    Trips http;        ///< POST /index/api/pilot/getConfig through the host
    Trips mqtt;        ///< getConfig on the ground command topic, answered there
    Trips httpEcho;    ///< the same POST to a POCO echo server
    Trips mqttEcho;    ///< the same publish echoed by a plain client through the broker
    Trips mqttEchoQos2;  ///< the same, echoed at QoS 2 as the gateway answers
    Trips rpcEcho;     ///< the same call as raw frames to an echo socket
    Trips simCall;     ///< the same call as raw frames to the simulator
};

/// `count` trips of each kind, in five rounds in which the kinds take turns,
/// so that a busy moment of the shared machine falls on all of them alike.
CommandTrips measureCommandTrips(const e2e::GatewayStack& stack, int count);

} // namespace vlm::bench
