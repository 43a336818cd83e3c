#include "raw_link.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "rpc/frame.h"

namespace pilot_rpc::bench {

raw_link::raw_link(unsigned short port)
{
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("raw_link: connect failed");
    int one = 1;
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

raw_link::~raw_link() { ::close(fd_); }

void raw_link::send_all(const std::string& bytes)
{
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0)
            throw std::runtime_error("raw_link: send failed");
        sent += static_cast<std::size_t>(n);
    }
}

std::size_t raw_link::read_some(char* out, std::size_t count)
{
    const ssize_t n = ::recv(fd_, out, count, 0);
    if (n <= 0)
        throw std::runtime_error("raw_link: connection lost");
    return static_cast<std::size_t>(n);
}

void raw_link::read_exact(char* out, std::size_t count)
{
    std::size_t got = 0;
    while (got < count)
        got += read_some(out + got, count - got);
}

std::string raw_link::read_frame(std::uint64_t& req_id)
{
    std::uint8_t header[header_size];
    read_exact(reinterpret_cast<char*>(header), header_size);
    const frame_header decoded = decode_header(header);
    req_id = decoded.req_id;
    std::string body(decoded.body_len, '\0');
    read_exact(body.data(), body.size());
    return body;
}

std::string frame_bytes(std::uint8_t type, std::uint64_t req_id, std::uint32_t func_id, const std::string& body)
{
    frame_header header;
    header.frame_type = type;
    header.body_len = static_cast<std::uint32_t>(body.size());
    header.req_id = req_id;
    header.func_id = func_id;
    const header_bytes bytes = encode_header(header);
    return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size()) + body;
}

}  // namespace pilot_rpc::bench
