#include "VelmoraCommon.h"

#include <cstdio>
#include <fstream>
#include <mutex>

#include <Poco/AutoPtr.h>
#include <Poco/File.h>
#include <Poco/Logger.h>
#include <Poco/Path.h>
#include <Poco/Process.h>

namespace vlm {
namespace {

struct ConfigStore {
    Poco::AutoPtr<Poco::Util::JSONConfiguration> config{new Poco::Util::JSONConfiguration};
    std::mutex pathMutex;  // guards path
    std::string path;
    std::mutex saveMutex;  // one save at a time, so two writers never share a temp file
};

ConfigStore& store()
{
    static ConfigStore* instance = new ConfigStore;  // lives until process exit
    return *instance;
}

} // namespace

Poco::Util::JSONConfiguration& configInstance()
{
    return *store().config;
}

void loadConfig(const std::string& path)
{
    ConfigStore& s = store();
    s.config->load(path);
    std::lock_guard<std::mutex> lock(s.pathMutex);
    s.path = path;
}

std::string configPath()
{
    ConfigStore& s = store();
    std::lock_guard<std::mutex> lock(s.pathMutex);
    return s.path;
}

bool saveConfig()
{
    ConfigStore& s = store();
    const std::string target = configPath();
    auto& logger = Poco::Logger::get(logName());
    if (target.empty()) {
        logger.error("saveConfig: no configuration file was loaded");
        return false;
    }
    std::lock_guard<std::mutex> lock(s.saveMutex);
    const std::string temp = target + ".tmp." + std::to_string(Poco::Process::id());
    try {
        {
            std::ofstream out(temp, std::ios::out | std::ios::trunc);
            if (!out)
                throw Poco::CreateFileException(temp);
            s.config->save(out, 2);
            out.flush();
            if (!out)
                throw Poco::WriteFileException(temp);
        }
        // rename(2) replaces the target in one step: readers see the old file or
        // the new one, never a torn one.
        if (std::rename(temp.c_str(), target.c_str()) != 0)
            throw Poco::FileException("rename " + temp + " -> " + target);
        return true;
    } catch (const Poco::Exception& e) {
        logger.error("saveConfig failed: " + e.displayText());
    } catch (const std::exception& e) {
        logger.error(std::string("saveConfig failed: ") + e.what());
    }
    Poco::File tmp(temp);
    try {
        if (tmp.exists())
            tmp.remove();
    } catch (...) {
    }
    return false;
}

} // namespace vlm
