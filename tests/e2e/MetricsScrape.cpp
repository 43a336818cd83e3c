#include "e2e/MetricsScrape.h"

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace vlm::e2e {

std::optional<double> sampleValue(const std::string& scrape, const std::string& name,
                                  const std::vector<std::pair<std::string, std::string>>& labels)
{
    std::optional<double> found;
    std::istringstream lines(scrape);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.empty() || line[0] == '#')
            continue;
        const std::size_t nameEnd = line.find_first_of("{ ");
        if (nameEnd == std::string::npos || line.compare(0, nameEnd, name) != 0 || nameEnd != name.size())
            continue;
        const std::size_t valueStart = line.rfind(' ');
        const std::string labelText = line.substr(nameEnd, valueStart - nameEnd);
        bool all = true;
        for (const auto& [key, value] : labels)
            all = all && labelText.find(key + "=\"" + value + "\"") != std::string::npos;
        if (!all)
            continue;
        if (found)
            return std::nullopt;
        found = std::strtod(line.c_str() + valueStart + 1, nullptr);
    }
    return found;
}

PromtoolVerdict checkWithPromtool(const std::string& scrape, const std::string& dir)
{
    PromtoolVerdict verdict;
    if (std::system("command -v promtool >/dev/null 2>&1") != 0)
        return verdict;
    verdict.ran = true;
    const std::string path = dir + "/scrape.txt";
    std::ofstream(path) << scrape;
    FILE* pipe = ::popen(("promtool check metrics < '" + path + "' 2>&1").c_str(), "r");
    if (!pipe)
        return verdict;
    std::array<char, 4096> buffer{};
    std::size_t read = 0;
    // Bounded: promtool's verdict is a few lines.
    while (verdict.output.size() < (1 << 20) && (read = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0)
        verdict.output.append(buffer.data(), read);
    const int status = ::pclose(pipe);
    verdict.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return verdict;
}

} // namespace vlm::e2e
