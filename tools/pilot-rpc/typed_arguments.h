#pragma once

// Call arguments typed on the command line: text by default, or an integer, a
// boolean or a JSON value, packed in order into the request's MessagePack
// argument array. Pure; any thread.

#include <string>
#include <vector>

#include <msgpack.hpp>

namespace pilot_rpc_tool {

enum class argument_kind { text, integer, boolean, json };

struct typed_argument {
    argument_kind kind = argument_kind::text;
    std::string text;  ///< as typed
};

/// Packs `arguments` as one MessagePack array: text as a string, integer as a
/// signed integer, boolean as true/false, JSON as the matching MessagePack
/// value (object to map, array to array, numbers, strings, true/false, null).
/// Throws std::invalid_argument naming the argument (1-based) and what is
/// wrong with it.
msgpack::sbuffer pack_arguments(const std::vector<typed_argument>& arguments);

}  // namespace pilot_rpc_tool
