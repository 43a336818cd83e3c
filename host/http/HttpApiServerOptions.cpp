#include "http/HttpApiServerOptions.h"

#include <stdexcept>

namespace vlm {
namespace {

std::vector<std::string> readList(const Poco::Util::AbstractConfiguration& config, const std::string& key)
{
    std::vector<std::string> list;
    for (std::size_t i = 0; config.has(key + "[" + std::to_string(i) + "]"); ++i)
        list.push_back(config.getString(key + "[" + std::to_string(i) + "]"));
    return list;
}

} // namespace

HttpApiServerOptions HttpApiServerOptions::fromConfig(const Poco::Util::AbstractConfiguration& config)
{
    HttpApiServerOptions options;
    options.bindAddress = config.getString("http.address", options.bindAddress);
    const int port = config.getInt("http.port", options.port);
    if (port < 0 || port > 65535)
        throw std::invalid_argument("http.port out of range: " + std::to_string(port));
    options.port = static_cast<std::uint16_t>(port);
    options.workerThreads = config.getInt("http.threads", options.workerThreads);
    if (options.workerThreads < 1)
        throw std::invalid_argument("http.threads must be at least 1");
    options.queueSize = config.getInt("http.queue", options.queueSize);
    if (options.queueSize < 1)
        throw std::invalid_argument("http.queue must be at least 1");
    const Poco::Int64 maxBody = config.getInt64("http.max_body_bytes", static_cast<Poco::Int64>(options.maxBodyBytes));
    if (maxBody < 0)
        throw std::invalid_argument("http.max_body_bytes must not be negative");
    options.maxBodyBytes = static_cast<std::size_t>(maxBody);
    options.keepAlive = config.getBool("http.keep_alive", options.keepAlive);
    options.bearerToken = config.getString("http.token", "");
    options.allowedHosts = readList(config, "http.allowed_hosts");
    options.allowedOrigins = readList(config, "http.allowed_origins");
    options.allowInsecureRemote = config.getBool("http.allow_insecure_remote", false);
    return options;
}

} // namespace vlm
