#pragma once

#include <functional>
#include <string>
#include <unordered_map>

#include <Poco/JSON/Object.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>

namespace vlm {

/// Query and path parameters of one request.
using ApiParams = std::unordered_map<std::string, std::string>;

/// Handler of an event-stream endpoint: it owns the response and writes into it
/// for as long as the stream lives. The object is a reply the handler may fill
/// instead; the host sends it as JSON when the handler sent nothing itself.
using StreamApiHandler = std::function<void(Poco::Net::HTTPServerRequest&, Poco::Net::HTTPServerResponse&,
                                            const ApiParams&, Poco::JSON::Object&)>;

/// Handler of a request endpoint: as above, plus the request body, already
/// parsed as a JSON object by the host (a body that is not one never gets here).
using RequestApiHandler = std::function<void(Poco::Net::HTTPServerRequest&, Poco::Net::HTTPServerResponse&,
                                             const ApiParams&, Poco::JSON::Object&, const Poco::JSON::Object&)>;

/// The host's HTTP API server, shared by every plug-in of the host.
class WebApiBasic {
public:
    virtual ~WebApiBasic() = default;

    /// Routes requests for exactly `path` to a streaming handler. Registering a
    /// path again replaces its handler.
    virtual void apiRegist(std::string path, StreamApiHandler handler) = 0;

    /// Routes requests for exactly `path` to a request handler.
    virtual void apiRegist(std::string path, RequestApiHandler handler) = 0;
};

} // namespace vlm
