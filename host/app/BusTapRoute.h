#pragma once

// "/host/bus": the bus tap.
//
// GET streams every bus message as a server-sent event, from the moment the
// stream opens:
//
//     id: <bus sequence number>
//     event: bus                 ("rejected" for a text that is not a JSON object)
//     data: <the message text>
//
// A reader that falls behind by more than the tap's queue loses the oldest
// messages and is told so with "event: dropped" and data {"dropped": <n>}.
// Quiet streams get a ": keep-alive" comment every few seconds. A stream ends
// when the client goes away, the bus stops or the server stops.
//
// POST delivers the body as if another plug-in had sent it: it must be a JSON
// object with a "to" list of receiver GUIDs (400 otherwise); the answer is 202
// with {"code": 0, "msg": "queued", "seq": <n>}, or 503 when the bus refuses.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

#include "WebApiBasic.h"
#include "app/MessageBus.h"
#include "http/HttpApiServer.h"

namespace vlm::host {

class BusTapRoute {
public:
    /// `serverStopping` tells an open stream that the server is going down;
    /// `maxBodyBytes` bounds a posted message.
    BusTapRoute(std::shared_ptr<MessageBus> bus, std::function<bool()> serverStopping, std::size_t maxBodyBytes,
                std::chrono::milliseconds keepAliveInterval = std::chrono::seconds(5));

    /// Registers "/host/bus" on the server for GET (the stream) and POST.
    void install(HttpApiServer& server);

    /// The handler of "/host/bus"; runs on a server worker thread, for as long
    /// as a stream lasts.
    void serve(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response);

private:
    void stream(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response);
    void inject(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response);

    const std::shared_ptr<MessageBus> bus;
    const std::function<bool()> serverStopping;
    const std::size_t maxBodyBytes;
    const std::chrono::milliseconds keepAliveInterval;
};

/// Path of the bus tap.
inline constexpr const char* busTapPath = "/host/bus";

} // namespace vlm::host
