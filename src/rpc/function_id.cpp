#include "rpc/function_id.h"

#include <Poco/MD5Engine.h>

namespace pilot_rpc {

std::uint32_t function_id(std::string_view name)
{
    const auto nul = name.find('\0');
    if (nul != std::string_view::npos)
        name = name.substr(0, nul);

    Poco::MD5Engine md5;
    md5.update(name.data(), static_cast<unsigned>(name.size()));
    const Poco::DigestEngine::Digest& digest = md5.digest();
    return (std::uint32_t{digest[0]} << 24) | (std::uint32_t{digest[1]} << 16) |
           (std::uint32_t{digest[2]} << 8) | std::uint32_t{digest[3]};
}

}  // namespace pilot_rpc
