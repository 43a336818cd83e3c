#include "settings.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>

#include <Poco/Exception.h>
#include <Poco/JSON/Parser.h>

#include "uav/PilotControlCommon/ConfigKeys.h"

namespace pilot_sim {

namespace cfg = vlm::cfg;

namespace {

const char* type_name(const service_settings::value& v)
{
    switch (v.index()) {
    case 0:
        return "an integer";
    case 1:
        return "text";
    default:
        return "a boolean";
    }
}

bool parse_integer(const std::string& text, int& out)
{
    if (text.empty())
        return false;
    errno = 0;
    char* end = nullptr;
    const long parsed = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || parsed < std::numeric_limits<int>::min() || parsed > std::numeric_limits<int>::max())
        return false;
    out = static_cast<int>(parsed);
    return true;
}

/// The JSON leaf as a setting, or nothing for values a setting cannot hold.
bool leaf_value(const Poco::Dynamic::Var& json, service_settings::value& out)
{
    if (json.isBoolean()) {
        out = json.extract<bool>();
        return true;
    }
    if (json.isString()) {
        out = json.extract<std::string>();
        return true;
    }
    if (json.isInteger()) {
        const auto wide = json.convert<long long>();
        if (wide < std::numeric_limits<int>::min() || wide > std::numeric_limits<int>::max())
            return false;
        out = static_cast<int>(wide);
        return true;
    }
    return false;
}

void flatten(const Poco::JSON::Object& object, const std::string& prefix, const std::string& origin,
             service_settings& into)
{
    for (const auto& [name, member] : object) {
        const std::string key = prefix.empty() ? name : prefix + "." + name;
        if (member.type() == typeid(Poco::JSON::Object::Ptr)) {
            flatten(*member.extract<Poco::JSON::Object::Ptr>(), key, origin, into);
            continue;
        }
        service_settings::value v;
        if (!leaf_value(member, v))
            throw settings_error(origin + ": " + key +
                                 ": a setting is an integer, text or a boolean (not an array, fraction or null)");
        into.set(key, std::move(v));
    }
}

}  // namespace

service_settings service_settings::defaults()
{
    service_settings s;
    // The configuration table, in its order. The broker credentials keep their
    // second values, the ones the table leaves in place.
    s.set(cfg::stationAppType, 0);
    s.set(cfg::stationDroneType, 1);
    s.set(cfg::stationLinkType, 0);
    s.set(cfg::mqttsUserName, std::string("hangarInside"));
    s.set(cfg::mqttsPawsswd, std::string("tepid@brkr"));
    s.set(cfg::stationCommIp, std::string("192.168.188.150"));
    s.set(cfg::stationStationSn, std::string());
    s.set(cfg::mqttsServerUri, std::string("127.0.0.1:1883"));
    s.set(cfg::vehicleFirmwareUpdateUrl, std::string("http://192.168.188.100:9800/firmware"));
    s.set(cfg::vehicleCommHeartRate, 5);
    s.set(cfg::vehicleHttpSrvPort, std::string("80"));
    s.set(cfg::vehicleAirborneLinkType, 0);
    s.set(cfg::debugSwitch, 0);
    s.set(cfg::mqttsQos, 0);
    s.set(cfg::stationCommRemoteIp, std::string());
    s.set(cfg::stationSerialPort, std::string());
    s.set(cfg::stationCommPort, 2010);
    s.set(cfg::stationBaudrate, 115200);
    s.set(cfg::stationForwardPort, -1);
    s.set(cfg::stationWaypointMode, 0);
    s.set(cfg::vehicleConnectType, 0);
    s.set(cfg::vehicleCommType, 0);
    s.set(cfg::vehicleBigEndian, 0);
    s.set(cfg::vehiclePilotId, std::string(default_pilot_id));
    s.set(cfg::vehicleVehicleType, std::string());
    s.set(cfg::vehiclePushRouteUrl, std::string());
    s.set(cfg::vehicleMultiMartinIp, std::string("192.168.1.201"));
    s.set(cfg::vehicleMartinIp, std::string("226.0.0.80"));
    s.set(cfg::vehicleMartinRecvPort, 6094);
    s.set(cfg::vehicleMartinSendPort, 6078);
    s.set(cfg::vehicleSixAxisArSeatGrade, 2);
    s.set(cfg::vehicleSixAxisArSeat, false);
    s.set(cfg::commsdkGcsType, 2);
    return s;
}

service_settings service_settings::parse(std::string_view json, const std::string& origin)
{
    Poco::JSON::Object::Ptr root;
    try {
        const Poco::Dynamic::Var parsed = Poco::JSON::Parser().parse(std::string(json));
        if (parsed.type() != typeid(Poco::JSON::Object::Ptr))
            throw settings_error(origin + ": the settings must be one JSON object");
        root = parsed.extract<Poco::JSON::Object::Ptr>();
    } catch (const Poco::Exception& e) {
        throw settings_error(origin + ": not JSON: " + e.displayText());
    }

    const service_settings base = defaults();
    service_settings overrides;
    flatten(*root, std::string(), origin, overrides);

    service_settings result = base;
    for (const auto& [key, v] : overrides.values_) {
        const auto known = base.values_.find(key);
        // The table fixes each key's type; a file cannot change it.
        if (known != base.values_.end() && known->second.index() != v.index())
            throw settings_error(origin + ": " + key + " must be " + type_name(known->second) + ", not " +
                                 type_name(v));
        result.values_[key] = v;
    }
    if (result.pilot_id().empty())
        throw settings_error(origin + ": " + cfg::vehiclePilotId + " must not be empty: it is the vehicle's serial number");
    return result;
}

service_settings service_settings::load(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw settings_error(path + ": cannot be read");
    std::ostringstream text;
    text << in.rdbuf();
    return parse(text.str(), path);
}

const service_settings::value& service_settings::find(const std::string& key) const
{
    const auto it = values_.find(key);
    if (it == values_.end())
        throw std::out_of_range("unknown configuration key: " + key);
    return it->second;
}

int service_settings::int_value(const std::string& key) const
{
    const value& v = find(key);
    if (const int* i = std::get_if<int>(&v))
        return *i;
    if (const bool* b = std::get_if<bool>(&v))
        return *b ? 1 : 0;
    int parsed = 0;
    if (parse_integer(std::get<std::string>(v), parsed))
        return parsed;
    throw std::invalid_argument("configuration key " + key + " holds text that is not an integer");
}

std::string service_settings::string_value(const std::string& key) const
{
    const value& v = find(key);
    if (const int* i = std::get_if<int>(&v))
        return std::to_string(*i);
    if (const bool* b = std::get_if<bool>(&v))
        return *b ? "true" : "false";
    return std::get<std::string>(v);
}

bool service_settings::bool_value(const std::string& key) const
{
    const value& v = find(key);
    if (const bool* b = std::get_if<bool>(&v))
        return *b;
    if (const int* i = std::get_if<int>(&v))
        return *i != 0;
    const std::string& text = std::get<std::string>(v);
    if (text == "true")
        return true;
    if (text == "false")
        return false;
    int parsed = 0;
    if (parse_integer(text, parsed))
        return parsed != 0;
    throw std::invalid_argument("configuration key " + key + " holds text that is not a boolean");
}

std::string service_settings::pilot_id() const { return string_value(cfg::vehiclePilotId); }

Poco::JSON::Object::Ptr service_settings::to_json() const
{
    Poco::JSON::Object::Ptr root = new Poco::JSON::Object;
    for (const auto& [key, v] : values_) {
        Poco::JSON::Object::Ptr node = root;
        std::size_t begin = 0;
        for (std::size_t dot = key.find('.'); dot != std::string::npos; dot = key.find('.', begin)) {
            const std::string part = key.substr(begin, dot - begin);
            Poco::JSON::Object::Ptr child = node->getObject(part);
            if (!child) {
                child = new Poco::JSON::Object;
                node->set(part, child);
            }
            node = child;
            begin = dot + 1;
        }
        const std::string leaf_name = key.substr(begin);
        std::visit([&node, &leaf_name](const auto& leaf) { node->set(leaf_name, leaf); }, v);
    }
    return root;
}

}  // namespace pilot_sim
