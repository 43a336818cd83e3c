#pragma once

#include <cstddef>
#include <string>

#include <Poco/JSON/Object.h>
#include <Poco/Net/HTTPServerRequest.h>

#include "VelmoraExport.h"

namespace vlm {

/// A request body read in full, or why not.
struct RequestText {
    enum class Status { ok, tooLarge, unreadable };
    Status status = Status::ok;
    std::string text;   // the body, when ok
    std::string error;  // why, when not ok
};

/// Reads the body of `request` as it came.
///
/// The body is delimited by Content-Length or chunked transfer encoding; a
/// request with neither has an empty body (nothing is read, so a client that
/// keeps its connection open cannot hold the handler). A Content-Length above
/// `maxBytes` is refused before anything is read; a chunked body is read up
/// to `maxBytes` + 1. A body that ends before its Content-Length is unreadable.
VLM_EXPORT RequestText readRequestText(Poco::Net::HTTPServerRequest& request, std::size_t maxBytes);

/// Outcome of reading and parsing a request body as a JSON object.
struct JsonBody {
    enum class Status { ok, tooLarge, unreadable, malformed, notAnObject };
    Status status = Status::ok;
    Poco::JSON::Object::Ptr object;  // set when ok
    std::string error;               // why, when not ok
};

/// Reads the body of `request` as `readRequestText` does and parses it as one
/// JSON object; an empty or blank body is the empty object.
JsonBody readJsonBody(Poco::Net::HTTPServerRequest& request, std::size_t maxBytes);

/// Reads and drops what is left of the body, at most `bound` bytes, so that an
/// answer sent before the body was consumed reaches the client instead of being
/// cut off by a reset when the connection closes with unread data.
void discardRequestBody(Poco::Net::HTTPServerRequest& request, std::size_t bound);

} // namespace vlm
