#pragma once

// The station console's files (host/console/), compiled into the host so that
// it serves them wherever it runs, with no folder to configure or lose.

#include <cstddef>
#include <vector>

namespace vlm::host {

/// One file of the console: its name under host/console/ and its bytes.
struct ConsoleAsset {
    const char* name;
    const unsigned char* data;
    std::size_t size;
};

/// Every file of the console, in name order; index.html among them. Generated
/// at build time. Any thread.
const std::vector<ConsoleAsset>& consoleAssets();

} // namespace vlm::host
