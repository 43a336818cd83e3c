#include "http/HttpApiRequestHandler.h"

#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/String.h>
#include <Poco/URI.h>

#include "VelmoraCommon.h"
#include "http/HttpJsonReply.h"
#include "http/HttpRequestBody.h"

namespace vlm {
namespace {

using Status = Poco::Net::HTTPResponse::HTTPStatus;

// How much of an unwanted body is read before the connection closes: enough for
// any sane client to get its answer, small enough not to matter.
const std::size_t discardBound = 8 * 1024 * 1024;

Poco::Logger& logger()
{
    return Poco::Logger::get(logName());
}

// Length-independent comparison, so the time taken does not reveal how much
// of a guessed token was right.
bool sameSecret(const std::string& given, const std::string& expected)
{
    if (expected.empty())
        return given.empty();
    unsigned char difference = given.size() == expected.size() ? 0 : 1;
    for (std::size_t i = 0; i < given.size(); ++i)
        difference |= static_cast<unsigned char>(given[i] ^ expected[i % expected.size()]);
    return difference == 0;
}

Status statusOf(JsonBody::Status status)
{
    switch (status) {
    case JsonBody::Status::tooLarge:
        return Status::HTTP_REQUEST_ENTITY_TOO_LARGE;
    default:
        return Status::HTTP_BAD_REQUEST;
    }
}

} // namespace

void HttpApiRequestHandler::handleRequest(Poco::Net::HTTPServerRequest& request,
                                          Poco::Net::HTTPServerResponse& response)
{
    HttpServerContext::Running running(context);
    connection = HttpRequestDeadlines::connectionOf(request);
    routeClass = HttpRouteClass::refused;
    answer(request, response);
    context.requests.count(routeClass, static_cast<int>(response.getStatus()));
    // On a kept-alive connection the next request is due from now.
    context.deadlines.arm(connection);
}

void HttpApiRequestHandler::answer(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response)
{
    std::string failure;
    try {
        serve(request, response);
        return;
    } catch (const Poco::Exception& e) {
        failure = e.displayText();
    } catch (const std::exception& e) {
        failure = e.what();
    } catch (...) {
        failure = "non-standard exception";
    }
    logger().error("http handler for %s failed: %s", request.getURI(), failure);
    if (response.sent())
        return;
    try {
        response.setKeepAlive(false);
        sendJsonError(response, Status::HTTP_INTERNAL_SERVER_ERROR, "handler failed: " + failure);
    } catch (...) {
        // The client is gone; there is no one left to tell.
    }
}

void HttpApiRequestHandler::serve(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response)
{
    response.set("X-Content-Type-Options", "nosniff");
    response.set("Cache-Control", "no-store");
    if (context.stopping.load()) {
        refuseEarly(request, response, Status::HTTP_SERVICE_UNAVAILABLE, "server is stopping");
        return;
    }
    if (context.deadlines.wasCut(connection)) {
        refuseSlow(response);
        return;
    }
    // Near the thread limit an idle kept-alive connection would hold a thread
    // the host's own paths may need.
    if (context.deadlines.connections() >= context.capacity.threads - context.capacity.reservedHostThreads)
        response.setKeepAlive(false);
    // Before anything else: a page in the operator's browser learns nothing
    // and commands nothing unless it is this server's own or configured.
    const HttpGuardVerdict verdict = context.guard.check(request, request.serverAddress().port());
    if (verdict.kind != HttpGuardVerdict::Kind::serve) {
        answerGuarded(request, response, verdict);
        return;
    }
    if (!verdict.corsOrigin.empty())
        setCorsAnswerHeaders(response, verdict.corsOrigin);
    std::string path;
    ApiParams params;
    std::string uriError;
    try {
        const Poco::URI uri(request.getURI());
        path = uri.getPath();
        for (const auto& [name, value] : uri.getQueryParameters())
            params[name] = value;
    } catch (const Poco::Exception& e) {
        uriError = e.displayText();
    }
    const auto route = uriError.empty() ? context.routes.find(path) : nullptr;

    // The token is checked before anything about the path is told, so a
    // caller without it learns neither which paths exist nor how they parse.
    if (!(route && route->open) && !authorized(request)) {
        response.set("WWW-Authenticate", "Bearer");
        refuseEarly(request, response, Status::HTTP_UNAUTHORIZED, "missing or wrong bearer token");
        return;
    }
    if (!uriError.empty()) {
        refuseEarly(request, response, Status::HTTP_BAD_REQUEST, "malformed request URI: " + uriError);
        return;
    }
    if (!route) {
        refuseEarly(request, response, Status::HTTP_NOT_FOUND, "no api at " + path);
        return;
    }
    if (!routeTakes(*route, request.getMethod())) {
        response.set("Allow", allowedMethods(*route));
        refuseEarly(request, response, Status::HTTP_METHOD_NOT_ALLOWED,
                    "method not allowed; allowed: " + allowedMethods(*route));
        return;
    }
    const HttpAdmission::Kind kind = HttpAdmission::classify(path, *route);
    const HttpAdmission::Slot slot = context.admission.admit(kind, request.clientAddress().host().toString());
    if (!slot.admitted()) {
        response.set("Retry-After", std::to_string(httpRetryAfterSeconds));
        refuseEarly(request, response, Status::HTTP_SERVICE_UNAVAILABLE, slot.reason());
        return;
    }
    if (route->open)
        routeClass = HttpRouteClass::console;
    else if (kind == HttpAdmission::Kind::host)
        routeClass = HttpRouteClass::host;
    else
        routeClass = kind == HttpAdmission::Kind::stream ? HttpRouteClass::pluginStream : HttpRouteClass::pluginRequest;
    // Chunked by default: handlers write answers of unknown length, and only
    // chunks keep the connection usable afterwards and reach the client as
    // soon as they are flushed. HTTP/1.0 clients do not know chunks.
    if (request.getVersion() == Poco::Net::HTTPMessage::HTTP_1_1)
        response.setChunkedTransferEncoding(true);
    if (route->stream)
        serveStreamForm(*route, request, response, params);
    else
        serveRequestForm(*route, request, response, params, path);
}

void HttpApiRequestHandler::answerGuarded(Poco::Net::HTTPServerRequest& request,
                                          Poco::Net::HTTPServerResponse& response, const HttpGuardVerdict& verdict)
{
    if (verdict.kind == HttpGuardVerdict::Kind::preflight) {
        routeClass = HttpRouteClass::preflight;
        discardRequestBody(request, discardBound);
        sendCorsPreflight(response, verdict.corsOrigin);
        return;
    }
    context.guard.noteRefusal(request, verdict.reason);
    refuseEarly(request, response, Status::HTTP_FORBIDDEN, verdict.reason);
}

bool HttpApiRequestHandler::authorized(const Poco::Net::HTTPServerRequest& request) const
{
    const std::string& token = context.options.bearerToken;
    if (token.empty())
        return true;
    const std::string header = request.get("Authorization", "");
    const std::string scheme = "Bearer ";
    if (header.size() <= scheme.size() || Poco::icompare(header.substr(0, scheme.size()), scheme) != 0)
        return false;
    return sameSecret(Poco::trim(header.substr(scheme.size())), token);
}

void HttpApiRequestHandler::serveRequestForm(const HttpRoute& route, Poco::Net::HTTPServerRequest& request,
                                             Poco::Net::HTTPServerResponse& response, const ApiParams& params,
                                             const std::string& path)
{
    const JsonBody body = readJsonBody(request, context.options.maxBodyBytes);
    if (!context.deadlines.received(connection)) {
        refuseSlow(response);
        return;
    }
    if (body.status != JsonBody::Status::ok) {
        logger().warning("http %s refused: %s", path, body.error);
        if (body.status == JsonBody::Status::tooLarge) {
            refuseEarly(request, response, statusOf(body.status), body.error);
            return;
        }
        // After a broken body the connection cannot be trusted to carry another
        // request.
        if (body.status == JsonBody::Status::unreadable)
            response.setKeepAlive(false);
        sendJsonError(response, statusOf(body.status), body.error);
        return;
    }
    Poco::JSON::Object reply;
    route.request(request, response, params, reply, *body.object);
    if (!response.sent())
        sendJsonReply(response, Status::HTTP_OK, reply);
}

void HttpApiRequestHandler::serveStreamForm(const HttpRoute& route, Poco::Net::HTTPServerRequest& request,
                                            Poco::Net::HTTPServerResponse& response, const ApiParams& params)
{
    // A body is the handler's to read, under the deadline; without one the
    // request is in.
    if (!request.getChunkedTransferEncoding() && request.getContentLength64() <= 0 &&
        !context.deadlines.received(connection)) {
        refuseSlow(response);
        return;
    }
    Poco::JSON::Object reply;
    route.stream(request, response, params, reply);
    if (!response.sent())
        sendJsonReply(response, Status::HTTP_OK, reply);
}

void HttpApiRequestHandler::refuseEarly(Poco::Net::HTTPServerRequest& request,
                                        Poco::Net::HTTPServerResponse& response, Status status,
                                        const std::string& text)
{
    response.setKeepAlive(false);
    sendJsonError(response, status, text);
    discardRequestBody(request, discardBound);
}

void HttpApiRequestHandler::refuseSlow(Poco::Net::HTTPServerResponse& response)
{
    // The receiving side is shut already; what is left of the request is lost.
    response.setKeepAlive(false);
    sendJsonError(response, Status::HTTP_REQUEST_TIMEOUT,
                  "request not received within " + std::to_string(context.deadlines.limit().count()) + " ms");
}

} // namespace vlm
