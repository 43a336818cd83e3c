#include "EventStreamData.h"

namespace vlm {

void writeEventData(std::ostream& out, const std::string& text)
{
    std::string::size_type start = 0;
    for (;;) {
        const auto end = text.find_first_of("\r\n", start);
        const auto lineEnd = end == std::string::npos ? text.size() : end;
        out << "data: ";
        out.write(text.data() + start, static_cast<std::streamsize>(lineEnd - start));
        out << '\n';
        if (end == std::string::npos)
            break;
        start = end + 1;
        if (text[end] == '\r' && start < text.size() && text[start] == '\n')
            ++start;
    }
    out << '\n';
}

} // namespace vlm
