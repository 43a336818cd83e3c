#pragma once

// Reading a "/host/metrics" scrape in a test: one sample's value by family
// and labels, and promtool's verdict on the whole text.

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vlm::e2e {

/// The value of the one sample named exactly `name` that carries every label
/// in `labels` (others may be there too); nothing when none does, or when
/// more than one does (the test then named its series too loosely).
std::optional<double> sampleValue(const std::string& scrape, const std::string& name,
                                  const std::vector<std::pair<std::string, std::string>>& labels = {});

struct PromtoolVerdict {
    bool ran = false;  // false: promtool is not installed
    int exitCode = -1;
    std::string output;
};

/// Runs `promtool check metrics` on the text (through files in `dir`).
PromtoolVerdict checkWithPromtool(const std::string& scrape, const std::string& dir);

} // namespace vlm::e2e
