#include "ProcessCpu.h"

#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>

namespace vlm::bench {

double cpuSeconds(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    const std::string stat((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    // The command name (field 2) may hold spaces; the fields after its
    // closing parenthesis are plain: state is field 3, utime 14, stime 15.
    const auto close = stat.rfind(')');
    if (close == std::string::npos)
        return -1;
    std::istringstream fields(stat.substr(close + 2));
    std::string field;
    unsigned long long utime = 0;
    unsigned long long stime = 0;
    for (int index = 3; index <= 15 && fields >> field; ++index) {
        if (index == 14)
            utime = std::stoull(field);
        else if (index == 15)
            stime = std::stoull(field);
    }
    return static_cast<double>(utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

double cpuPercentOver(pid_t pid, std::chrono::milliseconds window)
{
    const double before = cpuSeconds(pid);
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(window);
    const double after = cpuSeconds(pid);
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (before < 0 || after < 0 || elapsed <= 0)
        return -1;
    return 100.0 * (after - before) / elapsed;
}

} // namespace vlm::bench
