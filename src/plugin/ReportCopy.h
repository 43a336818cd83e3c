#pragma once

// The exported C reports (link health, metrics, configuration actions) hand
// their text to the host the way snprintf does, so the host can size a buffer
// by asking once with none.

#include <cstddef>
#include <string>

namespace vlm {

/// Writes at most `size - 1` bytes of `text` and a terminating NUL into
/// `buffer` (nothing when `buffer` is null or `size` is 0) and returns the
/// length of the whole text without the NUL; a result of `size` or more means
/// the copy was cut. Any thread; never throws.
std::size_t copyReport(const std::string& text, char* buffer, std::size_t size) noexcept;

} // namespace vlm
