#include "app/ProcessStats.h"

#include <dirent.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace vlm::host {
namespace {

std::uint64_t countDescriptors()
{
    DIR* directory = ::opendir("/proc/self/fd");
    if (!directory)
        return 0;
    std::uint64_t count = 0;
    while (const dirent* entry = ::readdir(directory)) {
        if (entry->d_name[0] != '.')
            ++count;
    }
    ::closedir(directory);
    // The directory's own descriptor is not one of the process's.
    return count > 0 ? count - 1 : 0;
}

} // namespace

std::optional<ProcessStats> readProcessStats()
{
    std::ifstream statFile("/proc/self/stat");
    std::string stat;
    if (!std::getline(statFile, stat))
        return std::nullopt;
    // The command name is in parentheses and may hold spaces: fields are
    // counted after its closing one (state is field 3).
    const std::size_t close = stat.rfind(')');
    if (close == std::string::npos)
        return std::nullopt;
    std::istringstream fields(stat.substr(close + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0, threads = 0, rssPages = 0;
    try {
        for (int index = 3; fields >> field; ++index) {
            if (index == 14)
                utime = std::stoull(field);
            else if (index == 15)
                stime = std::stoull(field);
            else if (index == 20)
                threads = std::stoull(field);
            else if (index == 24) {
                rssPages = std::stoull(field);
                break;
            }
        }
    } catch (const std::exception&) {
        return std::nullopt;
    }
    const long ticks = ::sysconf(_SC_CLK_TCK);
    const long page = ::sysconf(_SC_PAGESIZE);
    ProcessStats stats;
    stats.residentBytes = rssPages * static_cast<std::uint64_t>(page > 0 ? page : 4096);
    stats.cpuSeconds = static_cast<double>(utime + stime) / static_cast<double>(ticks > 0 ? ticks : 100);
    stats.threads = threads;
    stats.openDescriptors = countDescriptors();
    return stats;
}

} // namespace vlm::host
