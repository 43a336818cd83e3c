#pragma once

// Operation and topic names travel as 32-bit function ids in the frame header.

#include <cstdint>
#include <string_view>

namespace pilot_rpc {

/// The first four bytes of the MD5 digest of `name`, read big-endian. Only the
/// bytes before the first NUL count, as the name is a C string on the wire's
/// other end. Pure; any thread.
std::uint32_t function_id(std::string_view name);

}  // namespace pilot_rpc
