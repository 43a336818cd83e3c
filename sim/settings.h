#pragma once

// The micro service's settings: dotted keys with an integer, text or boolean
// value, as the plug-in asks for them with "getIntConfig", "getStringConfig"
// and "getBoolConfig". The defaults are the station's configuration table,
// with a vehicle serial number filled in; a JSON settings file overrides them.
//
// Pure data; not thread-safe. The simulator reads it on its I/O thread only.

#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>

#include <Poco/JSON/Object.h>

namespace pilot_sim {

/// A settings file that cannot be used; the text names the file, the key and why.
class settings_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class service_settings {
public:
    using value = std::variant<int, std::string, bool>;

    /// Serial number of the simulated vehicle unless a settings file says otherwise.
    static constexpr const char* default_pilot_id = "SIM-UAV-0001";

    /// The configuration table's defaults plus "vehicle.pilot_id".
    static service_settings defaults();

    /// Defaults overridden by the JSON object `json`, whose nested objects form
    /// the dotted keys ({"vehicle": {"pilot_id": "X"}} sets "vehicle.pilot_id").
    /// A key of the table keeps its type; other keys take the JSON value's type.
    /// Throws settings_error naming `origin` and the key for anything else:
    /// not JSON, not an object, arrays, fractions, null, a mismatched type, or
    /// an empty "vehicle.pilot_id".
    static service_settings parse(std::string_view json, const std::string& origin);
    /// `parse` of the file at `path`; also throws settings_error when it cannot be read.
    static service_settings load(const std::string& path);

    /// The value converted the way a configuration library converts it: integers
    /// from booleans and integral text, booleans from integers and
    /// "true"/"false", text from anything. Throws std::out_of_range with
    /// "unknown configuration key: <key>" for a missing key and
    /// std::invalid_argument naming the key when it does not convert.
    int int_value(const std::string& key) const;
    std::string string_value(const std::string& key) const;
    bool bool_value(const std::string& key) const;

    bool has(const std::string& key) const { return values_.count(key) != 0; }
    void set(const std::string& key, value v) { values_[key] = std::move(v); }
    // Exact overloads, so that a text literal stays text instead of becoming
    // the boolean its pointer converts to.
    void set(const std::string& key, int v) { values_[key] = v; }
    void set(const std::string& key, bool v) { values_[key] = v; }
    void set(const std::string& key, const char* text) { values_[key] = std::string(text); }
    std::size_t size() const { return values_.size(); }

    /// The vehicle serial number, "vehicle.pilot_id".
    std::string pilot_id() const;

    /// Every setting as nested JSON objects, the shape of the settings file.
    Poco::JSON::Object::Ptr to_json() const;

private:
    const value& find(const std::string& key) const;

    std::map<std::string, value> values_;
};

}  // namespace pilot_sim
