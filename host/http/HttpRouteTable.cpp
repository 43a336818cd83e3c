#include "http/HttpRouteTable.h"

#include <algorithm>

namespace vlm {

bool routeTakes(const HttpRoute& route, const std::string& method)
{
    return std::find(route.methods.begin(), route.methods.end(), method) != route.methods.end();
}

std::string allowedMethods(const HttpRoute& route)
{
    std::string list;
    for (const auto& method : route.methods)
        list += (list.empty() ? "" : ", ") + method;
    return list;
}

void HttpRouteTable::set(const std::string& path, HttpRoute route)
{
    auto shared = std::make_shared<const HttpRoute>(std::move(route));
    std::lock_guard<std::mutex> lock(mutex);
    routes[path] = std::move(shared);
}

std::shared_ptr<const HttpRoute> HttpRouteTable::find(const std::string& path) const
{
    std::lock_guard<std::mutex> lock(mutex);
    const auto it = routes.find(path);
    return it == routes.end() ? nullptr : it->second;
}

std::vector<std::string> HttpRouteTable::paths() const
{
    std::vector<std::string> all;
    {
        std::lock_guard<std::mutex> lock(mutex);
        all.reserve(routes.size());
        for (const auto& entry : routes)
            all.push_back(entry.first);
    }
    std::sort(all.begin(), all.end());
    return all;
}

} // namespace vlm
