#pragma once

#include <chrono>
#include <cstdint>
#include <istream>
#include <memory>
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

    int status() const { return response.getStatus(); }
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

    /// The next block up to its blank line; "" when the stream ended or a read
    /// timed out.
    std::string nextBlock()
    {
        std::string block;
        std::string line;
        try {
            while (std::getline(*in, line)) {
                if (line.empty())
                    return block;
                block += line + "\n";
            }
        } catch (const std::exception&) {
        }
        return "";
    }

    /// The data of the next block that carries a "data:" line and contains
    /// `part`; "" when none came within `timeout` (checked between blocks).
    std::string nextData(const std::string& part, std::chrono::milliseconds timeout)
    {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            const std::string block = nextBlock();
            if (block.empty())
                return "";
            const auto data = block.find("data: ");
            if (data != std::string::npos && block.find(part, data) != std::string::npos)
                return block.substr(data + 6, block.find('\n', data) - data - 6);
        }
        return "";
    }

private:
    Poco::Net::HTTPClientSession session;
    Poco::Net::HTTPResponse response;
    std::istream* in = nullptr;
};

} // namespace vlm::e2e
