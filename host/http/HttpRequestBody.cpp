#include "http/HttpRequestBody.h"

#include <algorithm>
#include <cctype>

#include <Poco/Exception.h>
#include <Poco/JSON/Parser.h>

namespace vlm {
namespace {

bool hasBody(const Poco::Net::HTTPServerRequest& request)
{
    return request.getChunkedTransferEncoding() || request.hasContentLength();
}

// Reads up to `limit` bytes; false when the stream failed before its end.
bool readUpTo(std::istream& in, std::size_t limit, std::string& out)
{
    char buffer[8192];
    while (out.size() < limit) {
        const auto want = static_cast<std::streamsize>(std::min(sizeof buffer, limit - out.size()));
        in.read(buffer, want);
        out.append(buffer, static_cast<std::size_t>(in.gcount()));
        if (in.eof())
            return !in.bad();
        if (!in)
            return false;
    }
    return true;
}

bool isBlank(const std::string& text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return std::isspace(static_cast<unsigned char>(c)); });
}

} // namespace

RequestText readRequestText(Poco::Net::HTTPServerRequest& request, std::size_t maxBytes)
{
    RequestText result;
    if (!hasBody(request))
        return result;
    const bool chunked = request.getChunkedTransferEncoding();
    if (!chunked && request.getContentLength64() > static_cast<Poco::Int64>(maxBytes)) {
        result.status = RequestText::Status::tooLarge;
        result.error = "request body of " + std::to_string(request.getContentLength64()) + " bytes exceeds " +
                       std::to_string(maxBytes);
        return result;
    }
    if (!readUpTo(request.stream(), maxBytes + 1, result.text)) {
        result.status = RequestText::Status::unreadable;
        result.error = "request body could not be read";
    } else if (result.text.size() > maxBytes) {
        result.status = RequestText::Status::tooLarge;
        result.error = "request body exceeds " + std::to_string(maxBytes) + " bytes";
    } else if (!chunked && static_cast<Poco::Int64>(result.text.size()) < request.getContentLength64()) {
        result.status = RequestText::Status::unreadable;
        result.error = "request body shorter than its Content-Length";
    }
    if (result.status != RequestText::Status::ok)
        result.text.clear();
    return result;
}

JsonBody readJsonBody(Poco::Net::HTTPServerRequest& request, std::size_t maxBytes)
{
    JsonBody result;
    RequestText body = readRequestText(request, maxBytes);
    if (body.status != RequestText::Status::ok) {
        result.status = body.status == RequestText::Status::tooLarge ? JsonBody::Status::tooLarge
                                                                     : JsonBody::Status::unreadable;
        result.error = std::move(body.error);
        return result;
    }
    const std::string& text = body.text;
    if (isBlank(text)) {
        result.object = new Poco::JSON::Object;
        return result;
    }
    try {
        Poco::JSON::Parser parser;
        const Poco::Dynamic::Var parsed = parser.parse(text);
        if (parsed.type() != typeid(Poco::JSON::Object::Ptr)) {
            result.status = JsonBody::Status::notAnObject;
            result.error = "request body is not a JSON object";
            return result;
        }
        result.object = parsed.extract<Poco::JSON::Object::Ptr>();
    } catch (const Poco::Exception& e) {
        result.status = JsonBody::Status::malformed;
        result.error = "malformed JSON body: " + e.displayText();
    } catch (const std::exception& e) {
        result.status = JsonBody::Status::malformed;
        result.error = std::string("malformed JSON body: ") + e.what();
    }
    return result;
}

void discardRequestBody(Poco::Net::HTTPServerRequest& request, std::size_t bound)
{
    if (!hasBody(request))
        return;
    try {
        std::istream& in = request.stream();
        char buffer[8192];
        std::size_t dropped = 0;
        while (in && dropped < bound) {
            in.read(buffer, static_cast<std::streamsize>(std::min(sizeof buffer, bound - dropped)));
            dropped += static_cast<std::size_t>(in.gcount());
        }
    } catch (const std::exception&) {
        // The connection is closed after an early answer anyway.
    }
}

} // namespace vlm
