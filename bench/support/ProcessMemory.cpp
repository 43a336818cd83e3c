#include "ProcessMemory.h"

#include <fstream>
#include <string>

namespace vlm::e2e {
namespace {

long statusKiB(pid_t pid, const std::string& field)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, field.size(), field) == 0) {
            try {
                return std::stol(line.substr(field.size()));
            } catch (const std::exception&) {
                return 0;
            }
        }
    }
    return 0;
}

} // namespace

long residentKiB(pid_t pid)
{
    return statusKiB(pid, "VmRSS:");
}

long peakResidentKiB(pid_t pid)
{
    return statusKiB(pid, "VmHWM:");
}

} // namespace vlm::e2e
