#pragma once

// What a procedure handler of `rpc_service` answers: the response body, a
// MessagePack [code, value] array, or raw bytes for a deliberately bad answer.

#include <string>
#include <string_view>
#include <utility>

#include "rpc/codec.h"

namespace pilot_rpc {

class service_reply {
public:
    /// [0, value].
    template <typename T>
    static service_reply success(const T& value)
    {
        const msgpack::sbuffer packed = pack_args(0, value);
        return service_reply(std::string(packed.data(), packed.size()));
    }

    /// [code, message]; `code` should not be 0.
    static service_reply failure(int code, std::string_view message)
    {
        const msgpack::sbuffer packed = pack_args(code, message);
        return service_reply(std::string(packed.data(), packed.size()));
    }

    /// Exactly these body bytes, valid MessagePack or not.
    static service_reply raw(std::string body) { return service_reply(std::move(body)); }

    const std::string& body() const { return body_; }

private:
    explicit service_reply(std::string body) : body_(std::move(body)) {}
    std::string body_;
};

}  // namespace pilot_rpc
