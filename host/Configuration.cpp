#include "VelmoraCommon.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <sstream>

#include <Poco/AutoPtr.h>
#include <Poco/File.h>
#include <Poco/Logger.h>
#include <Poco/Path.h>

namespace vlm {
namespace {

struct ConfigStore {
    Poco::AutoPtr<Poco::Util::JSONConfiguration> config{new Poco::Util::JSONConfiguration};
    std::mutex pathMutex;  // guards path
    std::string path;
    std::mutex saveMutex;  // one save at a time: the serialization and the file replaced in turn
};

ConfigStore& store()
{
    static ConfigStore* instance = new ConfigStore;  // lives until process exit
    return *instance;
}

std::string folderOf(const std::string& file)
{
    const auto slash = file.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : file.substr(0, slash);
}

[[noreturn]] void failWith(const std::string& what)
{
    throw Poco::FileException(what, std::strerror(errno));
}

// Mode and owner the saved file must keep: the file may hold the broker
// password and the HTTP token, so a new one is readable by its owner only.
struct FileIdentity {
    mode_t mode = 0600;
    uid_t owner = ::geteuid();
    gid_t group = ::getegid();
};

FileIdentity identityOf(const std::string& target)
{
    FileIdentity identity;
    struct stat info {};
    if (::stat(target.c_str(), &info) == 0) {
        identity.mode = info.st_mode & 07777;
        identity.owner = info.st_uid;
        identity.group = info.st_gid;
    } else if (errno != ENOENT) {
        failWith("stat " + target);
    }
    return identity;
}

void writeAll(int fd, const std::string& text, const std::string& path)
{
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t n = ::write(fd, text.data() + written, text.size() - written);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            failWith("write " + path);
        written += static_cast<std::size_t>(n);
    }
}

// A new file beside the target, created exclusively (nobody else's file, no
// link followed), with the target's mode and owner, written and synced.
// Returns its path; removes it and throws on failure.
std::string writeSyncedTemp(const std::string& target, const std::string& text)
{
    static std::atomic<unsigned> serial{0};
    const FileIdentity identity = identityOf(target);
    const std::string temp =
        target + ".tmp." + std::to_string(::getpid()) + "." + std::to_string(++serial);
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0)
        failWith("create " + temp);
    try {
        if ((identity.owner != ::geteuid() || identity.group != ::getegid()) &&
            ::fchown(fd, identity.owner, identity.group) != 0)
            failWith("keep the owner of " + target + " on " + temp);
        if (::fchmod(fd, identity.mode) != 0)
            failWith("keep the mode of " + target + " on " + temp);
        writeAll(fd, text, temp);
        if (::fsync(fd) != 0)
            failWith("fsync " + temp);
    } catch (...) {
        ::close(fd);
        ::unlink(temp.c_str());
        throw;
    }
    if (::close(fd) != 0) {
        const int closeError = errno;
        ::unlink(temp.c_str());
        errno = closeError;
        failWith("close " + temp);
    }
    return temp;
}

// The rename is durable only once the folder's entry is on disk.
void syncFolderOf(const std::string& target, Poco::Logger& logger)
{
    const std::string folder = folderOf(target);
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0 || ::fsync(fd) != 0)
        logger.warning("saveConfig: %s saved, but its folder could not be synced: %s", target,
                       std::string(std::strerror(errno)));
    if (fd >= 0)
        ::close(fd);
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
    std::string temp;
    try {
        std::ostringstream text;
        s.config->save(text, 2);
        temp = writeSyncedTemp(target, text.str());
        // rename(2) replaces the target in one step: readers see the old file or
        // the new one, never a torn one.
        if (::rename(temp.c_str(), target.c_str()) != 0)
            throw Poco::FileException("rename " + temp + " -> " + target, std::strerror(errno));
        temp.clear();
        syncFolderOf(target, logger);
        return true;
    } catch (const Poco::Exception& e) {
        logger.error("saveConfig failed: " + e.displayText());
    } catch (const std::exception& e) {
        logger.error(std::string("saveConfig failed: ") + e.what());
    }
    if (!temp.empty())
        ::unlink(temp.c_str());
    return false;
}

} // namespace vlm
