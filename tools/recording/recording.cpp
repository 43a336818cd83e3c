#include "recording.h"

#include <sys/stat.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <stdexcept>

#include <Poco/Dynamic/Var.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

namespace velmora_recording {

std::string json_escape(std::string_view text)
{
    std::string out;
    out.reserve(text.size() + 8);
    for (const char c : text) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
                out += escaped;
            } else {
                out += c;
            }
        }
    }
    return out;
}

std::string utc_time_text(std::chrono::system_clock::time_point when)
{
    using namespace std::chrono;
    const auto ms = duration_cast<milliseconds>(when.time_since_epoch()).count();
    const std::time_t seconds = static_cast<std::time_t>(ms / 1000);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[80];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", parts.tm_year + 1900, parts.tm_mon + 1,
                  parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, static_cast<int>(ms % 1000));
    return text;
}

std::string format_record_line(const recorded_event& event, std::chrono::system_clock::time_point arrived)
{
    return "{\"t\":" + std::to_string(event.t_ms) + ",\"time\":\"" + utc_time_text(arrived) + "\",\"topic\":\"" +
           json_escape(event.topic) + "\",\"data\":\"" + json_escape(event.data) + "\"}";
}

std::optional<recorded_event> parse_record_line(std::string_view line, std::string& why,
                                                const recording_limits& limits)
{
    if (line.size() > limits.max_line_bytes) {
        why = "longer than " + std::to_string(limits.max_line_bytes) + " bytes";
        return std::nullopt;
    }
    Poco::JSON::Object::Ptr object;
    try {
        Poco::JSON::Parser parser;
        const Poco::Dynamic::Var parsed = parser.parse(std::string(line));
        if (parsed.type() == typeid(Poco::JSON::Object::Ptr))
            object = parsed.extract<Poco::JSON::Object::Ptr>();
    } catch (const std::exception&) {
        // Poco's exceptions derive from std::exception; the reason below says enough.
    }
    if (!object) {
        why = "not a JSON object";
        return std::nullopt;
    }
    recorded_event event;
    try {
        const Poco::Dynamic::Var t = object->get("t");
        if (t.isEmpty()) {
            why = "\"t\" is missing";
            return std::nullopt;
        }
        if (!t.isInteger() || t.convert<std::int64_t>() < 0) {
            why = "\"t\" is not a whole number of milliseconds from 0";
            return std::nullopt;
        }
        event.t_ms = t.convert<std::int64_t>();
        const Poco::Dynamic::Var topic = object->get("topic");
        if (!topic.isString() || topic.extract<std::string>().empty()) {
            why = "\"topic\" is missing or not a text";
            return std::nullopt;
        }
        event.topic = topic.extract<std::string>();
        if (event.topic.size() > limits.max_topic_bytes) {
            why = "\"topic\" is longer than " + std::to_string(limits.max_topic_bytes) + " bytes";
            return std::nullopt;
        }
        const Poco::Dynamic::Var data = object->get("data");
        if (!data.isString()) {
            why = "\"data\" is missing or not a text";
            return std::nullopt;
        }
        event.data = data.extract<std::string>();
    } catch (const std::exception&) {
        // An integer beyond 64 bits fails the conversion.
        why = "\"t\" is out of range";
        return std::nullopt;
    }
    return event;
}

loaded_recording load_recording(const std::string& path, const bad_line_sink& on_bad_line,
                                const recording_limits& limits)
{
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode))
        throw std::runtime_error(path + ": no such file");
    if (static_cast<std::size_t>(info.st_size) > limits.max_file_bytes)
        throw std::runtime_error(path + ": " + std::to_string(info.st_size) + " bytes, more than the " +
                                 std::to_string(limits.max_file_bytes) + " a recording may have");
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error(path + ": cannot be read");

    loaded_recording loaded;
    const auto skip = [&](std::size_t number, const std::string& why) {
        ++loaded.bad_lines;
        if (on_bad_line)
            on_bad_line(number, why);
    };
    std::string line;
    std::size_t number = 0;
    std::size_t bytes_read = 0;
    // The size check above can race with a writer; this bound cannot.
    while (bytes_read <= limits.max_file_bytes && std::getline(in, line)) {
        ++number;
        bytes_read += line.size() + 1;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.find_first_not_of(" \t") == std::string::npos)
            continue;
        std::string why;
        std::optional<recorded_event> event = parse_record_line(line, why, limits);
        if (!event) {
            skip(number, why);
        } else if (!loaded.events.empty() && event->t_ms < loaded.events.back().t_ms) {
            skip(number, "\"t\" " + std::to_string(event->t_ms) + " goes back before the previous line's " +
                             std::to_string(loaded.events.back().t_ms));
        } else if (loaded.events.size() >= limits.max_events) {
            skip(number, "more than " + std::to_string(limits.max_events) + " events");
        } else {
            loaded.events.push_back(std::move(*event));
        }
    }
    if (loaded.events.empty())
        throw std::runtime_error(path + ": no event to replay" +
                                 (loaded.bad_lines > 0 ? " (" + std::to_string(loaded.bad_lines) + " bad lines)" : ""));
    return loaded;
}

}  // namespace velmora_recording
