#pragma once

#include <Poco/Net/HTTPRequestHandler.h>

#include "http/HttpServerContext.h"

namespace vlm {

/// Serves one request on a server worker thread: checks the bearer token, finds
/// the route of the exact path, gives a request handler its parsed JSON body or
/// a stream handler the raw response, and answers every failure in JSON:
/// 401 bad or missing token, 400 bad URI or body, 404 unknown path, 413 body
/// too large, 500 handler threw, 503 server stopping or a cap reached (with
/// Retry-After), 408 request not received within its deadline. Nothing it
/// meets is thrown on to the server.
class HttpApiRequestHandler : public Poco::Net::HTTPRequestHandler {
public:
    explicit HttpApiRequestHandler(HttpServerContext& context) : context(context) {}

    void handleRequest(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response) override;

private:
    void answer(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response);
    void serve(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response);
    bool authorized(const Poco::Net::HTTPServerRequest& request) const;
    void serveRequestForm(const HttpRoute& route, Poco::Net::HTTPServerRequest& request,
                          Poco::Net::HTTPServerResponse& response, const ApiParams& params, const std::string& path);
    void serveStreamForm(const HttpRoute& route, Poco::Net::HTTPServerRequest& request,
                         Poco::Net::HTTPServerResponse& response, const ApiParams& params);
    /// Answers before the body was read: drops the body, closes the connection.
    void refuseEarly(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response,
                     Poco::Net::HTTPResponse::HTTPStatus status, const std::string& text);

    /// Answers 408 to a request cut at its deadline and closes the connection.
    void refuseSlow(Poco::Net::HTTPServerResponse& response);

    HttpServerContext& context;
    HttpRequestDeadlines::Connection connection = nullptr;
};

} // namespace vlm
