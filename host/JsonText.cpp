#include "VelmoraCommon.h"

#include <sstream>

#include <Poco/JSON/Stringifier.h>

namespace vlm {

std::string jsonToString(const Poco::Dynamic::Var& value)
{
    std::ostringstream out;
    Poco::JSON::Stringifier::stringify(value, out);
    return out.str();
}

std::string jsonToString(const Poco::JSON::Object& object)
{
    std::ostringstream out;
    object.stringify(out);
    return out.str();
}

std::string jsonToString(const Poco::JSON::Object::Ptr& object)
{
    return object ? jsonToString(*object) : std::string("null");
}

} // namespace vlm
