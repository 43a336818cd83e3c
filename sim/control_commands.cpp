#include "control_commands.h"

#include <cerrno>
#include <cstdlib>
#include <sstream>


namespace pilot_sim {

namespace {

/// The first word of `text` and the rest with its leading blanks removed.
std::pair<std::string, std::string> split_word(const std::string& text)
{
    const std::size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string::npos)
        return {};
    const std::size_t end = text.find_first_of(" \t", begin);
    if (end == std::string::npos)
        return {text.substr(begin), std::string()};
    const std::size_t rest = text.find_first_not_of(" \t", end);
    return {text.substr(begin, end - begin), rest == std::string::npos ? std::string() : text.substr(rest)};
}

std::string trimmed(std::string text)
{
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r'))
        text.pop_back();
    return text;
}

bool whole_number(const std::string& text, long long& out)
{
    if (text.empty())
        return false;
    errno = 0;
    char* end = nullptr;
    out = std::strtoll(text.c_str(), &end, 10);
    return *end == '\0' && errno == 0;
}

std::string published(std::size_t receivers)
{
    return "ok: published to " + std::to_string(receivers) + " subscriber(s)";
}

}  // namespace

std::string control_help_text()
{
    return "commands:\n"
           "  publish TOPIC [TEXT]      publish TEXT on TOPIC\n"
           "  telem-frequency N         \"setTelemFrequency\" with N\n"
           "  online-status TEXT        \"vehicleOnlineStatus\" with TEXT\n"
           "  master-control TEXT       \"uavData2MaterCtl\" with TEXT\n"
           "  fire-search [JSON]        \"fireSearchInfo\" (default: a report at the vehicle)\n"
           "  to-bus JSON               \"toMicroService\" with the bus message JSON\n"
           "  vehicle up|down           report the vehicle link up or down\n"
           "  telemetry-hz N            telemetry rate from now on\n"
           "  delay PROCEDURE MS        answer PROCEDURE only after MS ms (0: at once)\n"
           "  never-answer PROCEDURE    stop answering PROCEDURE\n"
           "  answer PROCEDURE          answer PROCEDURE again, without delay\n"
           "  drop-after N              cut links after N frames (0: never)\n"
           "  refuse MS                 refuse connections for MS ms\n"
           "  bad-frame KIND            zero-length, oversize or bad-type, to every connection\n"
           "  malformed-publication     an undecodable publication to every subscriber\n"
           "  status                    vehicle, connections and forwarded requests\n"
           "  help                      this list";
}

std::string run_control_command(simulator& sim, const std::string& line)
{
    const auto [command, rest_raw] = split_word(trimmed(line));
    const std::string rest = trimmed(rest_raw);
    if (command.empty() || command[0] == '#')
        return std::string();
    long long number = 0;

    if (command == "help")
        return control_help_text();
    if (command == "publish") {
        const auto [topic, text] = split_word(rest);
        if (topic.empty())
            return "error: publish needs a topic";
        return published(sim.publish(topic, text));
    }
    if (command == "telem-frequency") {
        if (!whole_number(rest, number))
            return "error: telem-frequency needs a whole number";
        return published(sim.request_telemetry_frequency(static_cast<int>(number)));
    }
    if (command == "online-status")
        return published(sim.report_online_status(rest));
    if (command == "master-control")
        return published(sim.send_master_control_data(rest));
    if (command == "fire-search")
        return published(sim.report_fire_search(rest));
    if (command == "to-bus") {
        if (rest.empty())
            return "error: to-bus needs the bus message";
        return published(sim.send_to_bus(rest));
    }
    if (command == "vehicle") {
        if (rest != "up" && rest != "down")
            return "error: vehicle needs up or down";
        sim.set_vehicle_connected(rest == "up");
        return "ok: vehicle link " + rest;
    }
    if (command == "telemetry-hz") {
        char* end = nullptr;
        const double hz = std::strtod(rest.c_str(), &end);
        if (rest.empty() || *end != '\0' || hz < 0.0 || hz > 1e6)
            return "error: telemetry-hz needs a rate from 0 to 1000000";
        sim.set_telemetry_rate(hz);
        return "ok: telemetry at " + rest + " Hz";
    }
    if (command == "delay") {
        const auto [procedure, ms] = split_word(rest);
        if (procedure.empty() || !whole_number(ms, number) || number < 0)
            return "error: delay needs a procedure and milliseconds";
        sim.delay_answers(procedure, std::chrono::milliseconds(number));
        return "ok: " + procedure + " answered after " + ms + " ms";
    }
    if (command == "never-answer" || command == "answer") {
        if (rest.empty())
            return "error: " + command + " needs a procedure";
        sim.never_answer(rest, command == "never-answer");
        if (command == "answer")
            sim.delay_answers(rest, std::chrono::milliseconds(0));
        return "ok: " + rest + (command == "answer" ? " answered again" : " never answered");
    }
    if (command == "drop-after") {
        if (!whole_number(rest, number) || number < 0)
            return "error: drop-after needs a whole number";
        sim.drop_after_frames(static_cast<std::size_t>(number));
        return "ok: links cut after " + rest + " frames";
    }
    if (command == "refuse") {
        if (!whole_number(rest, number) || number <= 0)
            return "error: refuse needs milliseconds";
        sim.refuse_connections_for(std::chrono::milliseconds(number));
        return "ok: refusing connections for " + rest + " ms";
    }
    if (command == "bad-frame") {
        const auto kind = parse_bad_frame(rest);
        if (!kind)
            return "error: bad-frame needs zero-length, oversize or bad-type";
        return "ok: sent to " + std::to_string(sim.send_bad_frame(*kind)) + " connection(s)";
    }
    if (command == "malformed-publication")
        return "ok: sent to " + std::to_string(sim.send_malformed_publication()) + " connection(s)";
    if (command == "status") {
        const vehicle_state v = sim.vehicle();
        std::ostringstream out;
        out << "ok: " << flight_mode_name(v.mode) << " at " << v.lat << ", " << v.lon << ", " << v.alt
            << " m, battery " << v.battery << " %, vehicle link " << (sim.vehicle_connected() ? "up" : "down")
            << ", " << sim.connections().size() << " connection(s), " << sim.forwarded_requests()
            << " forwarded request(s)";
        return out.str();
    }
    return "error: unknown command \"" + command + "\" (try help)";
}

}  // namespace pilot_sim
