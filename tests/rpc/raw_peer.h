#pragma once

// A listening socket on 127.0.0.1 that a test drives byte by byte, to check
// exactly what the client puts on the wire. Every wait has a deadline.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>

namespace pilot_rpc::test {

class raw_peer {
public:
    raw_peer()
    {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = 0;
        if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener_, 4) != 0)
            throw std::runtime_error("raw_peer: cannot listen");
        socklen_t length = sizeof address;
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
    }
    ~raw_peer()
    {
        drop_client();
        ::close(listener_);
    }
    raw_peer(const raw_peer&) = delete;
    raw_peer& operator=(const raw_peer&) = delete;

    unsigned short port() const { return port_; }

    bool accept(std::chrono::milliseconds timeout)
    {
        if (!wait_readable(listener_, timeout))
            return false;
        drop_client();
        client_ = ::accept(listener_, nullptr, nullptr);
        return client_ >= 0;
    }

    /// Accepts every connection waiting and keeps the newest: a reconnecting
    /// client may have connected and given up on older ones meanwhile.
    bool accept_newest(std::chrono::milliseconds timeout)
    {
        if (!accept(timeout))
            return false;
        while (accept(std::chrono::milliseconds(0))) {
        }
        return client_ >= 0;
    }

    /// Exactly `count` bytes, or nothing when they do not all come in time.
    std::optional<std::string> read_exact(std::size_t count, std::chrono::milliseconds timeout)
    {
        std::string data;
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (data.size() < count) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || !wait_readable(client_, left))
                return std::nullopt;
            char buffer[4096];
            const ssize_t got = ::recv(client_, buffer, std::min(sizeof buffer, count - data.size()), 0);
            if (got <= 0)
                return std::nullopt;
            data.append(buffer, static_cast<std::size_t>(got));
        }
        return data;
    }

    bool write(const std::string& bytes)
    {
        return ::send(client_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }

    /// Closes the connection with a reset instead of an orderly end.
    void reset_client()
    {
        const linger abort{1, 0};
        ::setsockopt(client_, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        drop_client();
    }

    void drop_client()
    {
        if (client_ >= 0)
            ::close(client_);
        client_ = -1;
    }

private:
    static bool wait_readable(int fd, std::chrono::milliseconds timeout)
    {
        pollfd entry{fd, POLLIN, 0};
        return ::poll(&entry, 1, static_cast<int>(timeout.count())) == 1;
    }

    int listener_ = -1;
    int client_ = -1;
    unsigned short port_ = 0;
};

}  // namespace pilot_rpc::test
