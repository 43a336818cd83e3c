#include "rpc/subscription_registry.h"

namespace pilot_rpc {

bool subscription_registry::add(const std::string& topic, topic_handler handler)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (handlers_.count(topic) != 0)
        return false;
    handlers_.emplace(topic, std::make_shared<const topic_handler>(std::move(handler)));
    list_.emplace(topic, std::string());
    return true;
}

std::shared_ptr<const topic_handler> subscription_registry::find(std::string_view topic) const
{
    const std::string key(topic);
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = handlers_.find(key);
    return it == handlers_.end() ? nullptr : it->second;
}

std::vector<std::pair<std::string, std::string>> subscription_registry::replay_list() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return {list_.begin(), list_.end()};
}

std::size_t subscription_registry::size() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return handlers_.size();
}

}  // namespace pilot_rpc
