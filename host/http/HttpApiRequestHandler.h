#pragma once

#include <Poco/Net/HTTPRequestHandler.h>

#include "http/HttpServerContext.h"

namespace vlm {

/// Serves one request on a server worker thread: lets the request guard check
/// Host and Origin first (answering CORS preflights), checks the bearer token,
/// finds the route of the exact path and its methods, admits it within the
/// server's caps, gives a request handler its parsed JSON body or a stream
/// handler the raw response, and answers every failure in JSON: 403 refused
/// by the guard, 401 bad or missing token, 400 bad URI or body, 404 unknown
/// path, 405 method the route does not take (with "Allow"), 408 request not
/// received within its deadline, 413 body too large, 500 handler threw, 503
/// server stopping or a cap reached (with Retry-After). Every answer carries
/// "X-Content-Type-Options: nosniff" and, unless the handler sets its own,
/// "Cache-Control: no-store". Nothing it meets is thrown on to the server.
class HttpApiRequestHandler : public Poco::Net::HTTPRequestHandler {
public:
    explicit HttpApiRequestHandler(HttpServerContext& context) : context(context) {}

    void handleRequest(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response) override;

private:
    void answer(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response);
    void serve(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response);
    /// Answers a request the guard did not let through (403 or a preflight).
    void answerGuarded(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response,
                       const HttpGuardVerdict& verdict);
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
    /// What the request reached, for the server's counts; set as it gets through.
    HttpRouteClass routeClass = HttpRouteClass::refused;
};

} // namespace vlm
