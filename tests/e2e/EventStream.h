#pragma once

#include <chrono>
#include <cstdint>
#include <istream>
#include <string>

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>

namespace vlm::e2e {

/// A server-sent-event stream read as curl -N would. Every socket read is
/// bounded, so a silent server fails the test instead of hanging it.
class EventStream {
public:
    EventStream(std::uint16_t port, const std::string& path, const std::string& token = "")
        : session("127.0.0.1", port)
    {
        session.setTimeout(Poco::Timespan(5, 0));
        Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, path, Poco::Net::HTTPMessage::HTTP_1_1);
        if (!token.empty())
            request.set("Authorization", "Bearer " + token);
        session.sendRequest(request);
        in = &session.receiveResponse(response);
    }

    std::string contentType() const { return response.getContentType(); }

    /// The next line; false when the stream ended or a read timed out.
    bool nextLine(std::string& line)
    {
        try {
            return static_cast<bool>(std::getline(*in, line));
        } catch (const std::exception&) {
            return false;
        }
    }

    /// The data of the next "data:" line containing `part`; "" when none came
    /// within `timeout` (checked between lines).
    std::string nextData(const std::string& part, std::chrono::milliseconds timeout)
    {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        std::string line;
        while (std::chrono::steady_clock::now() < deadline && nextLine(line)) {
            if (line.rfind("data: ", 0) == 0 && line.find(part) != std::string::npos)
                return line.substr(6);
        }
        return "";
    }

private:
    Poco::Net::HTTPClientSession session;
    Poco::Net::HTTPResponse response;
    std::istream* in = nullptr;
};

} // namespace vlm::e2e
