#include "app/ServiceLink.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

namespace vlm::host {
namespace {

constexpr int tcpEstablished = 1;
constexpr int tcpSynSent = 2;

bool parseHex(const std::string& text, unsigned long long& value)
{
    if (text.empty() || text.size() > 16)
        return false;
    char* end = nullptr;
    value = std::strtoull(text.c_str(), &end, 16);
    return end && *end == '\0';
}

// The kernel prints each 32-bit word of the address as a native-order number,
// so copying the number back into memory restores the network-order bytes.
bool parseAddress(const std::string& hex, Poco::Net::IPAddress& address)
{
    if (hex.size() != 8 && hex.size() != 32)
        return false;
    unsigned char bytes[16];
    for (std::size_t word = 0; word < hex.size() / 8; ++word) {
        unsigned long long value = 0;
        if (!parseHex(hex.substr(word * 8, 8), value))
            return false;
        const auto native = static_cast<std::uint32_t>(value);
        std::memcpy(bytes + word * 4, &native, 4);
    }
    address = Poco::Net::IPAddress(bytes, static_cast<poco_socklen_t>(hex.size() / 2));
    return true;
}

bool sameHost(const Poco::Net::IPAddress& wanted, const Poco::Net::IPAddress& seen)
{
    if (wanted.family() == seen.family())
        return wanted == seen;
    if (wanted.family() == Poco::Net::IPAddress::IPv4 && seen.isIPv4Mapped()) {
        const auto* raw = static_cast<const unsigned char*>(seen.addr());
        return Poco::Net::IPAddress(raw + 12, 4) == wanted;
    }
    return false;
}

std::set<std::uint64_t> ownSocketInodes(bool& readable)
{
    std::set<std::uint64_t> inodes;
    DIR* dir = ::opendir("/proc/self/fd");
    readable = dir != nullptr;
    if (!dir)
        return inodes;
    const std::string prefix = "socket:[";
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] == '.')
            continue;
        char target[128];
        const std::string link = std::string("/proc/self/fd/") + entry->d_name;
        const ssize_t length = ::readlink(link.c_str(), target, sizeof target - 1);
        if (length <= 0)
            continue;
        target[length] = '\0';
        const std::string text(target);
        if (text.compare(0, prefix.size(), prefix) != 0)
            continue;
        inodes.insert(std::strtoull(text.c_str() + prefix.size(), nullptr, 10));
    }
    ::closedir(dir);
    return inodes;
}

bool readWhole(const char* path, std::string& text)
{
    std::ifstream in(path);
    if (!in)
        return false;
    std::ostringstream content;
    content << in.rdbuf();
    text = content.str();
    return true;
}

} // namespace

const char* linkName(ServiceLinkState::Link link)
{
    switch (link) {
    case ServiceLinkState::Link::up:
        return "up";
    case ServiceLinkState::Link::connecting:
        return "connecting";
    case ServiceLinkState::Link::down:
        return "down";
    case ServiceLinkState::Link::unknown:
        break;
    }
    return "unknown";
}

bool parseTcpTableLine(const std::string& line, TcpTableEntry& entry)
{
    std::istringstream fields(line);
    std::vector<std::string> parts;
    std::string part;
    while (parts.size() < 10 && fields >> part)
        parts.push_back(part);
    // sl local_address rem_address st tx:rx tr:when retrnsmt uid timeout inode
    if (parts.size() < 10 || parts[0].empty() || parts[0].back() != ':')
        return false;
    const std::string& remote = parts[2];
    const auto colon = remote.find(':');
    if (colon == std::string::npos)
        return false;
    unsigned long long port = 0;
    unsigned long long state = 0;
    if (!parseAddress(remote.substr(0, colon), entry.remoteAddress) || !parseHex(remote.substr(colon + 1), port) ||
        port > 65535 || !parseHex(parts[3], state))
        return false;
    char* end = nullptr;
    const unsigned long long inode = std::strtoull(parts[9].c_str(), &end, 10);
    if (!end || *end != '\0')
        return false;
    entry.remotePort = static_cast<std::uint16_t>(port);
    entry.state = static_cast<int>(state);
    entry.inode = inode;
    return true;
}

void countServiceConnections(const std::string& table, const std::set<std::uint64_t>& inodes,
                             const Poco::Net::IPAddress& address, std::uint16_t port, ServiceLinkState& state)
{
    std::istringstream lines(table);
    std::string line;
    TcpTableEntry entry;
    while (std::getline(lines, line)) {
        if (!parseTcpTableLine(line, entry) || entry.remotePort != port || inodes.count(entry.inode) == 0 ||
            !sameHost(address, entry.remoteAddress))
            continue;
        if (entry.state == tcpEstablished)
            ++state.established;
        else if (entry.state == tcpSynSent)
            ++state.connecting;
    }
}

ServiceLinkState observeServiceLink(const Poco::Net::IPAddress& address, std::uint16_t port)
{
    ServiceLinkState state;
    bool readable = false;
    const std::set<std::uint64_t> inodes = ownSocketInodes(readable);
    std::string table;
    bool anyTable = false;
    for (const char* path : {"/proc/self/net/tcp", "/proc/self/net/tcp6"}) {
        if (!readWhole(path, table))
            continue;
        anyTable = true;
        countServiceConnections(table, inodes, address, port, state);
    }
    if (!readable || !anyTable)
        state.link = ServiceLinkState::Link::unknown;
    else if (state.established > 0)
        state.link = ServiceLinkState::Link::up;
    else if (state.connecting > 0)
        state.link = ServiceLinkState::Link::connecting;
    else
        state.link = ServiceLinkState::Link::down;
    return state;
}

} // namespace vlm::host
