#include "typed_arguments.h"

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

#include <Poco/Dynamic/Var.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/ParseHandler.h>
#include <Poco/JSON/Parser.h>

namespace pilot_rpc_tool {

namespace {

using packer = msgpack::packer<msgpack::sbuffer>;

long long parse_integer(const std::string& text)
{
    errno = 0;
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0)
        throw std::invalid_argument("is not a whole number from -9223372036854775808 to 9223372036854775807");
    return value;
}

bool parse_boolean(const std::string& text)
{
    if (text == "true")
        return true;
    if (text == "false")
        return false;
    throw std::invalid_argument("is neither true nor false");
}

void pack_json(packer& out, const Poco::Dynamic::Var& value);

void pack_json_object(packer& out, const Poco::JSON::Object& object)
{
    // getNames keeps the typed order; iterating the object would sort the keys.
    const std::vector<std::string> names = object.getNames();
    out.pack_map(static_cast<std::uint32_t>(names.size()));
    for (const std::string& name : names) {
        out.pack(name);
        pack_json(out, object.get(name));
    }
}

void pack_json_array(packer& out, const Poco::JSON::Array& array)
{
    out.pack_array(static_cast<std::uint32_t>(array.size()));
    for (std::size_t i = 0; i < array.size(); ++i)
        pack_json(out, array.get(static_cast<unsigned>(i)));
}

void pack_json(packer& out, const Poco::Dynamic::Var& value)
{
    if (value.isEmpty()) {
        out.pack_nil();
    } else if (value.type() == typeid(Poco::JSON::Object::Ptr)) {
        pack_json_object(out, *value.extract<Poco::JSON::Object::Ptr>());
    } else if (value.type() == typeid(Poco::JSON::Array::Ptr)) {
        pack_json_array(out, *value.extract<Poco::JSON::Array::Ptr>());
    } else if (value.isBoolean()) {
        out.pack(value.extract<bool>());
    } else if (value.isString()) {
        out.pack(value.extract<std::string>());
    } else if (value.isInteger() && value.isSigned()) {
        out.pack(value.convert<std::int64_t>());
    } else if (value.isInteger()) {
        out.pack(value.convert<std::uint64_t>());
    } else if (value.isNumeric()) {
        out.pack(value.convert<double>());
    } else {
        throw std::invalid_argument("holds a value JSON does not have");
    }
}

void pack_json_text(packer& out, const std::string& text)
{
    Poco::JSON::Array::Ptr wrapped;
    try {
        // Keep the object's keys in the order they were typed. The parser
        // takes only objects and arrays at the top, so a lone number, text,
        // true, false or null is read as the one element of an array.
        Poco::JSON::Parser parser(new Poco::JSON::ParseHandler(true));
        const Poco::Dynamic::Var parsed = parser.parse("[" + text + "\n]");
        wrapped = parsed.extract<Poco::JSON::Array::Ptr>();
    } catch (const std::exception&) {
        throw std::invalid_argument("is not valid JSON");
    }
    if (!wrapped || wrapped->size() != 1)
        throw std::invalid_argument("is not valid JSON");
    pack_json(out, wrapped->get(0));
}

}  // namespace

msgpack::sbuffer pack_arguments(const std::vector<typed_argument>& arguments)
{
    msgpack::sbuffer buffer(64);
    packer out(buffer);
    out.pack_array(static_cast<std::uint32_t>(arguments.size()));
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const typed_argument& argument = arguments[i];
        try {
            switch (argument.kind) {
            case argument_kind::text: out.pack(argument.text); break;
            case argument_kind::integer: out.pack(parse_integer(argument.text)); break;
            case argument_kind::boolean: out.pack(parse_boolean(argument.text)); break;
            case argument_kind::json: pack_json_text(out, argument.text); break;
            }
        } catch (const std::invalid_argument& e) {
            throw std::invalid_argument("argument " + std::to_string(i + 1) + " \"" + argument.text + "\" " +
                                        e.what());
        }
    }
    return buffer;
}

}  // namespace pilot_rpc_tool
