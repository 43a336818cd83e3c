#include "app/ConfigActionRoute.h"

#include <algorithm>
#include <istream>

#include <Poco/JSON/Parser.h>
#include <Poco/Logger.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/IPAddress.h>

#include "VelmoraCommon.h"
#include "app/HostHttp.h"
#include "http/HttpRequestBody.h"

namespace vlm::host {
namespace {

using Status = Poco::Net::HTTPResponse::HTTPStatus;

// The bodies are at most an address; anything longer is not one of ours.
constexpr std::size_t maxActionBodyBytes = 4096;
// What is read and dropped of a refused body after the answer, so that the
// answer reaches a client still sending instead of being cut off by a reset
// when the connection closes with unread data.
constexpr std::size_t drainBound = 64 * 1024;

void drainBody(Poco::Net::HTTPServerRequest& request)
{
    try {
        std::istream& in = request.stream();
        char chunk[4096];
        std::size_t left = drainBound;
        while (left > 0 && in.read(chunk, static_cast<std::streamsize>(std::min(left, sizeof chunk))))
            left -= static_cast<std::size_t>(in.gcount());
    } catch (const Poco::Exception&) {
        // A client that went away has nothing left to read.
    }
}

// The body as a JSON object (empty or blank: the empty object), or null after
// answering 413 or 400.
Poco::JSON::Object::Ptr bodyObject(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response)
{
    const RequestText body = readRequestText(request, maxActionBodyBytes);
    if (body.status != RequestText::Status::ok) {
        // What is left of the body is unread; the connection cannot carry another request.
        response.setKeepAlive(false);
        if (body.status == RequestText::Status::tooLarge) {
            sendJsonError(response, Status::HTTP_REQUEST_ENTITY_TOO_LARGE,
                          "body larger than " + std::to_string(maxActionBodyBytes) + " bytes");
            drainBody(request);
        } else
            sendJsonError(response, Status::HTTP_BAD_REQUEST, "body could not be read: " + body.error);
        return nullptr;
    }
    if (body.text.find_first_not_of(" \t\r\n") == std::string::npos)
        return new Poco::JSON::Object;
    try {
        const Poco::Dynamic::Var parsed = Poco::JSON::Parser().parse(body.text);
        if (parsed.type() == typeid(Poco::JSON::Object::Ptr))
            return parsed.extract<Poco::JSON::Object::Ptr>();
    } catch (const Poco::Exception&) {
    }
    sendJsonError(response, Status::HTTP_BAD_REQUEST, "body must be a JSON object");
    return nullptr;
}

// The argument of the action from its body, or false after answering 400.
bool argumentOf(const std::string& action, const Poco::JSON::Object& body, Poco::Net::HTTPServerResponse& response,
                std::string& argument)
{
    if (action != pingAction) {
        if (body.size() != 0) {
            sendJsonError(response, Status::HTTP_BAD_REQUEST,
                          "this action takes no parameters: it works on the host's own configuration files");
            return false;
        }
        return true;
    }
    Poco::Net::IPAddress address;
    const Poco::Dynamic::Var given = body.get("address");
    if (body.size() != 1 || !given.isString() ||
        !Poco::Net::IPAddress::tryParse(given.extract<std::string>(), address)) {
        sendJsonError(response, Status::HTTP_BAD_REQUEST,
                      "body must be {\"address\": \"<numeric IP address>\"} and nothing else");
        return false;
    }
    argument = given.extract<std::string>();
    return true;
}

} // namespace

void ConfigActionRoute::install(HttpApiServer& server)
{
    const std::pair<const char*, const char*> routes[] = {{configResetDefaultsPath, resetDefaultsAction},
                                                          {configBackupPath, backupAction},
                                                          {configLoadHangarPath, loadHangarAction},
                                                          {pingPath, pingAction}};
    for (const auto& [path, action] : routes) {
        const std::string name = action;
        server.hostRouteRegist(path, {Poco::Net::HTTPRequest::HTTP_POST},
                               StreamApiHandler([this, name](Poco::Net::HTTPServerRequest& request,
                                                             Poco::Net::HTTPServerResponse& response,
                                                             const ApiParams&, Poco::JSON::Object&) {
                                   serve(name, request, response);
                               }));
    }
}

void ConfigActionRoute::addPlugin(Poco::SharedLibrary& library)
{
    const PluginConfigActionFunction offered = findPluginConfigAction(library);
    std::lock_guard<std::mutex> lock(functionMutex);
    if (!function)
        function = offered;
}

PluginConfigActionFunction ConfigActionRoute::routines() const
{
    std::lock_guard<std::mutex> lock(functionMutex);
    return function;
}

void ConfigActionRoute::serve(const std::string& action, Poco::Net::HTTPServerRequest& request,
                              Poco::Net::HTTPServerResponse& response)
{
    const Poco::JSON::Object::Ptr body = bodyObject(request, response);
    if (!body)
        return;
    std::string argument;
    if (!argumentOf(action, *body, response, argument))
        return;
    const PluginConfigActionFunction offered = routines();
    if (!offered) {
        sendJsonError(response, Status::HTTP_SERVICE_UNAVAILABLE,
                      "no loaded plug-in offers the configuration routines");
        return;
    }
    std::unique_lock<std::mutex> running(actionMutex, std::try_to_lock);
    if (!running.owns_lock()) {
        response.set("Retry-After", "2");
        sendJsonError(response, Status::HTTP_SERVICE_UNAVAILABLE, "another configuration action is running");
        return;
    }
    const Poco::JSON::Object::Ptr answer = runPluginConfigAction(offered, action, argument);
    running.unlock();
    const bool ok = answer->optValue<bool>("ok", false);
    Poco::Logger::get(logName())
        .information("configuration action %s from %s: %s", action, request.clientAddress().toString(),
                     std::string(ok ? "done" : "failed"));
    sendJsonReply(response, ok ? Status::HTTP_OK : Status::HTTP_UNPROCESSABLE_ENTITY, *answer);
}

} // namespace vlm::host
