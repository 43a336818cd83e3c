#include "ConfigActions.h"

#include <sstream>
#include <vector>

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/Path.h>

#include "ReportCopy.h"
#include "VelmoraCommon.h"
#include "VelmoraExport.h"
#include "uav/PilotControlCommon/ConfigKeys.h"
#include "uav/PilotControlCommon/PilotControlCommon.h"
#include "uav/PilotControlCommon/PilotControlLog.h"

namespace vlm {
namespace {

using Answer = Poco::JSON::Object;

Answer::Ptr answerWith(const std::vector<std::string>& errors)
{
    Answer::Ptr answer = new Answer(Poco::JSON_PRESERVE_KEY_ORDER);
    answer->set("ok", errors.empty());
    Poco::JSON::Array::Ptr lines = new Poco::JSON::Array;
    for (const auto& line : errors)
        lines->add(line);
    answer->set("errors", lines);
    return answer;
}

Answer::Ptr resetDefaults()
{
    pclog::ErrorCapture capture;
    resetConfigDefaults();
    return answerWith(capture.lines());
}

Answer::Ptr backup()
{
    const std::string directory = configBackupDirectory();
    const std::string baseName = configBackupBaseName();
    pclog::ErrorCapture capture;
    backupConfigFile();
    Answer::Ptr answer = answerWith(capture.lines());
    const Poco::Path folder = Poco::Path::forDirectory(directory);
    answer->set("source", Poco::Path(folder, baseName + ".json").toString());
    answer->set("target", Poco::Path(folder, baseName + "-backup.json").toString());
    return answer;
}

// The settings the hangar file may change, as text, to tell whether it did.
std::vector<std::string> hangarSettings()
{
    std::vector<std::string> values;
    for (const char* key : {cfg::stationCommIp, cfg::stationCommPort, cfg::vehicleVehicleType})
        values.push_back(configInstance().getString(key, ""));
    return values;
}

Answer::Ptr loadHangar(const std::string& hangarFile)
{
    const std::vector<std::string> before = hangarSettings();
    pclog::ErrorCapture capture;
    if (hangarFile.empty())
        loadHangarConfig();
    else
        loadHangarConfig(hangarFile);
    Answer::Ptr answer = answerWith(capture.lines());
    answer->set("hangar_file", hangarFile.empty() ? std::string(hangarConfigFile) : hangarFile);
    answer->set("changed", hangarSettings() != before);
    return answer;
}

Answer::Ptr ping(const std::string& address)
{
    pclog::ErrorCapture capture;
    const bool answered = pingHost(address);
    Answer::Ptr answer = answerWith(capture.lines());
    answer->set("ok", answered);
    answer->set("address", address);
    answer->set("answered", answered);
    if (!answered) {
        const auto& errors = capture.lines();
        std::string reason = errors.empty() ? "no echo reply within 2000 ms" : errors.back();
        const bool refused = std::any_of(errors.begin(), errors.end(), [](const std::string& line) {
            return line.find("not permitted") != std::string::npos || line.find("ermission") != std::string::npos;
        });
        if (refused)
            reason = "the raw ICMP socket could not be opened (it needs root or CAP_NET_RAW): " + reason;
        answer->set("reason", reason);
    }
    return answer;
}

} // namespace

std::string runConfigAction(const std::string& action, const std::string& argument)
{
    Answer::Ptr answer;
    try {
        if (action == "reset-defaults")
            answer = resetDefaults();
        else if (action == "backup")
            answer = backup();
        else if (action == "load-hangar")
            answer = loadHangar(argument);
        else if (action == "ping")
            answer = ping(argument);
        else
            answer = answerWith({"unknown action \"" + action + "\""});
    } catch (const std::exception& e) {
        // The routines catch their own failures; this is what is left
        // (memory, a configuration value of the wrong type).
        answer = answerWith({std::string("the action failed: ") + e.what()});
    }
    std::ostringstream out;
    answer->stringify(out);
    return out.str();
}

} // namespace vlm

extern "C" VLM_EXPORT std::size_t PluginConfigAction(const char* action, const char* argument, char* buffer,
                                                     std::size_t size)
{
    std::string text;
    try {
        text = vlm::runConfigAction(action ? action : "", argument ? argument : "");
    } catch (const std::exception&) {
        text = R"({"ok":false,"errors":["the answer could not be written"]})";
    }
    return vlm::copyReport(text, buffer, size);
}
