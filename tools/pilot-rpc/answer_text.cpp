#include "answer_text.h"

#include <cmath>
#include <cstdio>
#include <stdexcept>

#include "recording.h"
#include "rpc/codec.h"

namespace pilot_rpc_tool {

namespace {

/// Deeper answers are cut: the service is not trusted to keep the stack small.
constexpr int max_depth = 64;

std::string json_quoted(std::string_view text) { return "\"" + velmora_recording::json_escape(text) + "\""; }

std::string number_text(double value)
{
    if (!std::isfinite(value))
        return "null";
    char text[40];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

void append_json(std::string& out, const msgpack::object& value, int depth)
{
    if (depth > max_depth) {
        out += json_quoted("<nested too deep>");
        return;
    }
    switch (value.type) {
    case msgpack::type::NIL: out += "null"; break;
    case msgpack::type::BOOLEAN: out += value.via.boolean ? "true" : "false"; break;
    case msgpack::type::POSITIVE_INTEGER: out += std::to_string(value.via.u64); break;
    case msgpack::type::NEGATIVE_INTEGER: out += std::to_string(value.via.i64); break;
    case msgpack::type::FLOAT32:
    case msgpack::type::FLOAT64: out += number_text(value.via.f64); break;
    case msgpack::type::STR: out += json_quoted(std::string_view(value.via.str.ptr, value.via.str.size)); break;
    case msgpack::type::BIN: out += json_quoted(std::string_view(value.via.bin.ptr, value.via.bin.size)); break;
    case msgpack::type::ARRAY:
        out += '[';
        for (std::uint32_t i = 0; i < value.via.array.size; ++i) {
            if (i > 0)
                out += ',';
            append_json(out, value.via.array.ptr[i], depth + 1);
        }
        out += ']';
        break;
    case msgpack::type::MAP:
        out += '{';
        for (std::uint32_t i = 0; i < value.via.map.size; ++i) {
            const msgpack::object_kv& entry = value.via.map.ptr[i];
            if (i > 0)
                out += ',';
            if (entry.key.type == msgpack::type::STR) {
                append_json(out, entry.key, depth + 1);
            } else {
                std::string key;
                append_json(key, entry.key, depth + 1);
                out += json_quoted(key);
            }
            out += ':';
            append_json(out, entry.val, depth + 1);
        }
        out += '}';
        break;
    case msgpack::type::EXT: out += json_quoted("<extension type " + std::to_string(value.via.ext.type()) + ">"); break;
    }
}

}  // namespace

std::string to_json(const msgpack::object& value)
{
    std::string out;
    append_json(out, value, 0);
    return out;
}

decoded_answer decode_answer(std::string_view body)
{
    const msgpack::object_handle handle = pilot_rpc::unpack_object(body);
    const msgpack::object& array = handle.get();
    if (array.type != msgpack::type::ARRAY || array.via.array.size < 1)
        throw std::invalid_argument("not an array [code, value]");
    const msgpack::object& code = array.via.array.ptr[0];
    decoded_answer answer;
    if (code.type == msgpack::type::POSITIVE_INTEGER && code.via.u64 <= static_cast<std::uint64_t>(INT64_MAX))
        answer.code = static_cast<long long>(code.via.u64);
    else if (code.type == msgpack::type::NEGATIVE_INTEGER)
        answer.code = code.via.i64;
    else
        throw std::invalid_argument("its code is not an integer");
    if (array.via.array.size < 2) {
        answer.value_json = "null";
        answer.value_text = "null";
        return answer;
    }
    const msgpack::object& value = array.via.array.ptr[1];
    answer.value_json = to_json(value);
    answer.value_text = value.type == msgpack::type::STR ? std::string(value.via.str.ptr, value.via.str.size)
                                                         : answer.value_json;
    return answer;
}

}  // namespace pilot_rpc_tool
