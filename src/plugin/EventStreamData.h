#pragma once

// The data field of one server-sent event, framed so that its text cannot
// forge fields of the stream.

#include <ostream>
#include <string>

namespace vlm {

/// Writes `text` as the data of one event and ends the event: every line of
/// the text gets its own "data: " prefix, followed by a blank line. CR, LF
/// and CRLF all end a line in the event-stream format, so each is a line
/// break here too; a client joins the lines with LF again, so it reads the
/// text exactly, except that a CR or CRLF in it comes back as LF. A text
/// without line breaks goes out as "data: " + text + "\n\n".
void writeEventData(std::ostream& out, const std::string& text);

} // namespace vlm
