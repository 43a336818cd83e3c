#include "e2e/MetricsScrape.h"

#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "support/TempDir.h"

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
    if (std::system("command -v promtool >/dev/null 2>&1") != 0)
        return {};
    std::ofstream(dir + "/scrape.txt") << scrape;
    const int status =
        std::system(("promtool check metrics < '" + dir + "/scrape.txt' > '" + dir + "/promtool.txt' 2>&1").c_str());
    return {true, WIFEXITED(status) ? WEXITSTATUS(status) : -1, test::TempDir::read(dir + "/promtool.txt")};
}

} // namespace vlm::e2e
