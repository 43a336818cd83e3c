#pragma once

// A call's answer, decoded for people and scripts. Pure; any thread.

#include <string>
#include <string_view>

#include <msgpack.hpp>

namespace pilot_rpc_tool {

/// An answer body [code, value].
struct decoded_answer {
    long long code = 0;
    std::string value_json;  ///< the value as JSON
    std::string value_text;  ///< a string value as it is, anything else as JSON
};

/// Decodes the answer body. Throws std::invalid_argument when it is not a
/// MessagePack array whose first element is an integer.
decoded_answer decode_answer(std::string_view body);

/// Any MessagePack value as JSON: maps with non-string keys get the key's
/// JSON text as key, binary data becomes a string, nesting deeper than 64
/// becomes the string "<nested too deep>".
std::string to_json(const msgpack::object& value);

}  // namespace pilot_rpc_tool
