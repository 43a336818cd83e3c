#pragma once

// Topic subscriptions of one client: the handler per topic and the ordered
// list that is replayed after every successful connect. Registration happens
// on host threads while the I/O thread looks handlers up, so every member is
// safe to call from any thread.

#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace pilot_rpc {

using topic_handler = std::function<void(std::string_view)>;

class subscription_registry {
public:
    /// Registers `handler` for `topic` with an empty token. Returns false, and
    /// changes nothing, when the topic already has a handler: the first stays.
    bool add(const std::string& topic, topic_handler handler);

    /// The handler of `topic`, or null. The handler is shared, so the caller
    /// can run it after the lock is gone.
    std::shared_ptr<const topic_handler> find(std::string_view topic) const;

    /// (topic, token) pairs in replay order: by topic, then token.
    std::vector<std::pair<std::string, std::string>> replay_list() const;

    std::size_t size() const;

private:
    mutable std::mutex mutex_;  ///< guards handlers_ and list_
    std::unordered_map<std::string, std::shared_ptr<const topic_handler>> handlers_;
    std::set<std::pair<std::string, std::string>> list_;
};

}  // namespace pilot_rpc
