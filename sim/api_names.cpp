#include "api_names.h"

#include <set>
#include <utility>

namespace pilot_sim {

namespace {

std::set<std::string> build_names()
{
    static const std::pair<const char*, int> entries[] = {
#include "plugin/ApiCatalogueData.inc"
    };
    std::set<std::string> names;
    for (const auto& entry : entries)
        names.insert(entry.first);
    return names;
}

}  // namespace

bool is_known_api(const std::string& name)
{
    // Built once on first use and only read afterwards.
    static const std::set<std::string> names = build_names();
    return names.count(name) != 0;
}

}  // namespace pilot_sim
