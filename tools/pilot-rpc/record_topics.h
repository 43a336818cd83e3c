#pragma once

// The topics `pilot-rpc record` subscribes to: every topic the plug-in
// subscribes to at start, so that a recording holds everything the plug-in
// would have received. Kept equal to the plug-in's list by a test.

#include <string>
#include <vector>

namespace pilot_rpc_tool {

const std::vector<std::string>& record_topics();

}  // namespace pilot_rpc_tool
