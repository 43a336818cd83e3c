#include "ReportCopy.h"

#include <algorithm>
#include <cstring>

namespace vlm {

std::size_t copyReport(const std::string& text, char* buffer, std::size_t size) noexcept
{
    if (buffer && size > 0) {
        const std::size_t copied = std::min(text.size(), size - 1);
        std::memcpy(buffer, text.data(), copied);
        buffer[copied] = '\0';
    }
    return text.size();
}

} // namespace vlm
