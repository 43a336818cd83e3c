#include "http/HttpRouteTable.h"

namespace vlm {

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

} // namespace vlm
