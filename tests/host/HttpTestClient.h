#pragma once

#include <cstdint>
#include <map>
#include <sstream>
#include <string>

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/StreamCopier.h>

namespace vlm::test {

/// One answer as a real HTTP client saw it.
struct HttpAnswer {
    int status = 0;
    std::string body;
    std::string contentType;
    bool chunked = false;
    bool keepAlive = false;
    std::map<std::string, std::string> headers;

    /// The body parsed as a JSON object; null when it is not one.
    Poco::JSON::Object::Ptr json() const
    {
        try {
            return Poco::JSON::Parser().parse(body).extract<Poco::JSON::Object::Ptr>();
        } catch (...) {
            return nullptr;
        }
    }
};

/// A request to the server on 127.0.0.1:`port`; every socket wait is bounded,
/// so a server that never answers fails the test instead of hanging it.
struct HttpCall {
    std::string method = Poco::Net::HTTPRequest::HTTP_GET;
    std::string uri = "/";
    std::string body;
    std::map<std::string, std::string> headers;

    HttpAnswer sendTo(std::uint16_t port) const
    {
        Poco::Net::HTTPClientSession session("127.0.0.1", port);
        session.setTimeout(Poco::Timespan(10, 0));
        return sendOn(session);
    }

    HttpAnswer sendOn(Poco::Net::HTTPClientSession& session) const
    {
        Poco::Net::HTTPRequest request(method, uri, Poco::Net::HTTPMessage::HTTP_1_1);
        for (const auto& [name, value] : headers)
            request.set(name, value);
        if (!body.empty() || method == Poco::Net::HTTPRequest::HTTP_POST)
            request.setContentLength(static_cast<std::streamsize>(body.size()));
        session.sendRequest(request) << body;

        Poco::Net::HTTPResponse response;
        std::istream& in = session.receiveResponse(response);
        HttpAnswer answer;
        answer.status = response.getStatus();
        answer.contentType = response.getContentType();
        answer.chunked = response.getChunkedTransferEncoding();
        answer.keepAlive = response.getKeepAlive();
        for (const auto& [name, value] : response)
            answer.headers[name] = value;
        std::ostringstream text;
        Poco::StreamCopier::copyStream(in, text);
        answer.body = text.str();
        return answer;
    }
};

inline HttpCall get(const std::string& uri)
{
    HttpCall call;
    call.uri = uri;
    return call;
}

inline HttpCall post(const std::string& uri, const std::string& body)
{
    HttpCall call;
    call.method = Poco::Net::HTTPRequest::HTTP_POST;
    call.uri = uri;
    call.body = body;
    return call;
}

} // namespace vlm::test
