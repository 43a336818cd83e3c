#include <unistd.h>

#include <climits>

#include <Poco/File.h>
#include <Poco/Path.h>

#include "PilotControlCommon.h"
#include "PilotControlLog.h"

namespace vlm {
namespace {

// Path of the running executable (this POCO release has no Path::self()).
std::string selfPath()
{
    char buffer[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    return length > 0 ? std::string(buffer, static_cast<size_t>(length)) : std::string();
}

} // namespace

std::string configBackupDirectory()
{
    // forDirectory: configHome() ends without a slash when it comes from
    // XDG_CONFIG_HOME, and its last name must still count as a folder.
    Poco::Path directory = Poco::Path::forDirectory(Poco::Path::configHome());
    directory.pushDirectory("fenlix");
    return directory.toString();
}

std::string configBackupBaseName()
{
    return Poco::Path(selfPath()).getBaseName();
}

void backupConfigFile()
{
    backupConfigFile(configBackupDirectory(), configBackupBaseName());
}

void backupConfigFile(const std::string& directory, const std::string& baseName)
{
    Poco::Path dir = Poco::Path::forDirectory(directory);
    const std::string source = Poco::Path(dir, baseName + ".json").toString();
    const std::string target = Poco::Path(dir, baseName + "-backup.json").toString();
    try {
        Poco::File sourceFile(source);
        if (!sourceFile.exists()) {
            PCC_LOG_ERROR("Source file does not exist: %s", source.c_str());
            return;
        }
        sourceFile.copyTo(target);
    } catch (const Poco::Exception& e) {
        PCC_LOG_ERROR("%s", e.displayText().c_str());
    } catch (const std::exception& e) {
        PCC_LOG_ERROR("%s", e.what());
    }
}

} // namespace vlm
