#pragma once

// A response body as the service sent it: MessagePack [code, value], code 0
// meaning success. Decoding happens on demand, on the caller's thread.

#include <stdexcept>
#include <string>
#include <string_view>

#include "rpc/codec.h"

namespace pilot_rpc {

class req_result {
public:
    req_result() = default;
    /// Keeps a copy of `body`; an empty body stands for a failure delivered locally.
    explicit req_result(std::string_view body) : data_(body) {}

    /// The value of a successful response, converted to T.
    /// Throws std::logic_error carrying the service's message when the code is
    /// not 0 (an empty message for an empty body), std::invalid_argument
    /// "unpack failed: Args not match!" when the body does not decode as [int, T].
    template <typename T>
    T value() const
    {
        check();
        return std::get<1>(unpack_body<int, T>(data_));
    }

    /// Only the success test of `value`.
    void check() const;

    /// The raw body.
    const std::string& data() const { return data_; }

private:
    std::string data_;
};

}  // namespace pilot_rpc
