#include "app/BusTapRoute.h"

#include <ostream>
#include <sstream>

#include <Poco/JSON/Parser.h>
#include <Poco/Logger.h>
#include <Poco/Net/HTTPRequest.h>

#include "VelmoraCommon.h"
#include "app/HostHttp.h"
#include "http/HttpRequestBody.h"

namespace vlm::host {
namespace {

using Status = Poco::Net::HTTPResponse::HTTPStatus;

// How long one wait for messages lasts: the bound on noticing a server stop
// while the bus is quiet.
constexpr auto stopCheckInterval = std::chrono::milliseconds(250);

Poco::Logger& logger()
{
    return Poco::Logger::get(logName());
}

// Multi-line texts become several data lines, which readers join again.
void writeEvent(std::ostream& out, const BusMessage& message)
{
    out << "id: " << message.seq << "\nevent: " << (message.wellFormed ? "bus" : "rejected") << '\n';
    std::istringstream lines(message.text);
    std::string line;
    bool any = false;
    while (std::getline(lines, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        out << "data: " << line << '\n';
        any = true;
    }
    if (!any)
        out << "data: \n";
    out << '\n';
}

} // namespace

BusTapRoute::BusTapRoute(std::shared_ptr<MessageBus> bus, std::function<bool()> serverStopping,
                         std::size_t maxBodyBytes, std::chrono::milliseconds keepAliveInterval)
    : bus(std::move(bus)), serverStopping(std::move(serverStopping)), maxBodyBytes(maxBodyBytes),
      keepAliveInterval(keepAliveInterval)
{
}

void BusTapRoute::install(HttpApiServer& server)
{
    server.hostRouteRegist(busTapPath, {Poco::Net::HTTPRequest::HTTP_GET, Poco::Net::HTTPRequest::HTTP_POST},
                           StreamApiHandler([this](Poco::Net::HTTPServerRequest& request,
                                                         Poco::Net::HTTPServerResponse& response, const ApiParams&,
                                                         Poco::JSON::Object&) { serve(request, response); }));
}

void BusTapRoute::serve(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response)
{
    const std::string& method = request.getMethod();
    if (method == Poco::Net::HTTPRequest::HTTP_GET)
        stream(request, response);
    else if (method == Poco::Net::HTTPRequest::HTTP_POST)
        inject(request, response);
    else
        sendMethodNotAllowed(response, "GET, POST");
}

void BusTapRoute::stream(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response)
{
    const std::shared_ptr<BusTap> tap = bus->openTap();
    response.setContentType("text/event-stream");
    response.set("Cache-Control", "no-cache");
    std::ostream& out = response.send();
    out << "retry: 3000\n\n";
    out.flush();

    auto quietSince = std::chrono::steady_clock::now();
    while (out.good() && !serverStopping()) {
        const BusTap::Batch batch = tap->take(stopCheckInterval);
        if (batch.dropped > 0)
            out << "event: dropped\ndata: {\"dropped\":" << batch.dropped << "}\n\n";
        for (const auto& message : batch.messages)
            writeEvent(out, message);
        const auto now = std::chrono::steady_clock::now();
        if (batch.dropped > 0 || !batch.messages.empty()) {
            out.flush();
            quietSince = now;
        } else if (now - quietSince >= keepAliveInterval) {
            // Also how a client that went away is found out while the bus is quiet.
            out << ": keep-alive\n\n";
            out.flush();
            quietSince = now;
        }
        if (batch.closed)
            break;
    }
    bus->closeTap(tap);
    logger().debug("bus tap stream to %s ended", request.clientAddress().toString());
}

void BusTapRoute::inject(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response)
{
    const RequestText body = readRequestText(request, maxBodyBytes);
    if (body.status != RequestText::Status::ok) {
        // What is left of the body is unread; the connection cannot carry another request.
        response.setKeepAlive(false);
        if (body.status == RequestText::Status::tooLarge)
            sendJsonError(response, Status::HTTP_REQUEST_ENTITY_TOO_LARGE,
                      "bus message larger than " + std::to_string(maxBodyBytes) + " bytes");
        else
            sendJsonError(response, Status::HTTP_BAD_REQUEST, "bus message could not be read");
        return;
    }

    Poco::JSON::Object::Ptr message;
    try {
        const Poco::Dynamic::Var parsed = Poco::JSON::Parser().parse(body.text);
        if (parsed.type() == typeid(Poco::JSON::Object::Ptr))
            message = parsed.extract<Poco::JSON::Object::Ptr>();
    } catch (const Poco::Exception& e) {
        sendJsonError(response, Status::HTTP_BAD_REQUEST, "bus message is not JSON: " + e.displayText());
        return;
    }
    if (!message) {
        sendJsonError(response, Status::HTTP_BAD_REQUEST, "bus message must be a JSON object");
        return;
    }
    if (!message->isArray("to") || busReceivers(*message).empty()) {
        sendJsonError(response, Status::HTTP_BAD_REQUEST, "bus message needs a \"to\" list of receiver GUIDs");
        return;
    }

    const std::string origin = "http " + request.clientAddress().toString();
    const std::uint64_t seq = bus->post(body.text, origin);
    if (seq == 0) {
        sendJsonError(response, Status::HTTP_SERVICE_UNAVAILABLE, "the bus refused the message (full or stopping)");
        return;
    }
    Poco::JSON::Object answer;
    answer.set("code", 0);
    answer.set("msg", "queued");
    answer.set("seq", seq);
    sendJsonReply(response, Status::HTTP_ACCEPTED, answer);
}

} // namespace vlm::host
