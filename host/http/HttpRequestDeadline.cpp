#include "http/HttpRequestDeadline.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include <Poco/Logger.h>
#include <Poco/Net/HTTPServerRequestImpl.h>

#include "VelmoraCommon.h"
#include "http/HttpAdmission.h"

namespace vlm {
namespace {

Poco::Logger& logger()
{
    return Poco::Logger::get(logName());
}

std::string peerOf(Poco::Net::StreamSocket& socket)
{
    try {
        return socket.peerAddress().toString();
    } catch (const Poco::Exception&) {
        return "a client already gone";
    }
}

} // namespace

HttpRequestDeadlines::HttpRequestDeadlines(std::chrono::milliseconds limit, std::chrono::milliseconds keepAliveIdle)
    : deadline(limit), keepAliveIdle(keepAliveIdle), watchdog([this] { watch(); })
{
}

HttpRequestDeadlines::~HttpRequestDeadlines()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    wake.notify_all();
    watchdog.join();
    for (auto& [connection, entry] : entries) {
        if (entry.duplicate >= 0)
            ::close(entry.duplicate);
    }
}

HttpRequestDeadlines::Watch::Watch(HttpRequestDeadlines& deadlines, Poco::Net::StreamSocket& socket)
    : deadlines(deadlines), connection(socket.impl())
{
    deadlines.add(connection, socket);
}

HttpRequestDeadlines::Watch::~Watch()
{
    deadlines.remove(connection);
}

HttpRequestDeadlines::Connection HttpRequestDeadlines::connectionOf(Poco::Net::HTTPServerRequest& request)
{
    auto* served = dynamic_cast<Poco::Net::HTTPServerRequestImpl*>(&request);
    return served ? served->socket().impl() : nullptr;
}

void HttpRequestDeadlines::add(Connection connection, Poco::Net::StreamSocket& socket)
{
    Entry entry;
    entry.client = peerOf(socket);
    entry.due = std::chrono::steady_clock::now() + deadline;
    // Close-on-exec: a child process must never keep a client's connection open.
    entry.duplicate = ::fcntl(socket.impl()->sockfd(), F_DUPFD_CLOEXEC, 0);
    if (entry.duplicate < 0) {
        const int error = errno;
        logger().error("http connection from %s served without a request deadline: no descriptor: %s", entry.client,
                       std::string(std::strerror(error)));
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        entries[connection] = std::move(entry);
    }
    wake.notify_all();
}

void HttpRequestDeadlines::remove(Connection connection)
{
    std::lock_guard<std::mutex> lock(mutex);
    const auto it = entries.find(connection);
    if (it == entries.end())
        return;
    if (it->second.duplicate >= 0)
        ::close(it->second.duplicate);
    entries.erase(it);
}

bool HttpRequestDeadlines::received(Connection connection)
{
    std::lock_guard<std::mutex> lock(mutex);
    const auto it = entries.find(connection);
    if (it == entries.end())
        return true;
    it->second.armed = false;
    return !it->second.cut;
}

bool HttpRequestDeadlines::wasCut(Connection connection) const
{
    std::lock_guard<std::mutex> lock(mutex);
    const auto it = entries.find(connection);
    return it != entries.end() && it->second.cut;
}

void HttpRequestDeadlines::arm(Connection connection)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        const auto it = entries.find(connection);
        if (it == entries.end())
            return;
        it->second.armed = true;
        it->second.due = std::chrono::steady_clock::now() + keepAliveIdle + deadline;
    }
    wake.notify_all();
}

int HttpRequestDeadlines::connections() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return static_cast<int>(entries.size());
}

std::uint64_t HttpRequestDeadlines::cuts() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return cutCount;
}

void HttpRequestDeadlines::watch()
{
    std::unique_lock<std::mutex> lock(mutex);
    while (!stopping) {
        const auto now = std::chrono::steady_clock::now();
        auto next = std::chrono::steady_clock::time_point::max();
        std::vector<std::pair<std::string, std::uint64_t>> logged;
        for (auto& [connection, entry] : entries) {
            if (!entry.armed || entry.cut)
                continue;
            if (entry.due > now) {
                next = std::min(next, entry.due);
                continue;
            }
            // Only the receiving side: a blocked read ends, an answer can still go out.
            if (entry.duplicate >= 0)
                ::shutdown(entry.duplicate, SHUT_RD);
            entry.cut = true;
            if (loggedOccurrence(++cutCount))
                logged.emplace_back(entry.client, cutCount);
        }
        if (!logged.empty()) {
            lock.unlock();
            for (const auto& [client, count] : logged)
                logger().warning("http connection from %s cut: request not received within %s ms; cut %s "
                                 "(logged first and every 1000th)",
                                 client, std::to_string(deadline.count()), std::to_string(count));
            lock.lock();
            continue;
        }
        if (next == std::chrono::steady_clock::time_point::max())
            wake.wait(lock);
        else
            wake.wait_until(lock, next);
    }
}

} // namespace vlm
