#pragma once

// HTTP requests of the chaos run, counted by what came back. Any status is
// an answer; only a request that got none (connection cut, time-out) fails.

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace vlm::chaos {

enum class HttpClass {
    ok,             ///< 200 with code 200, or 202 for a bus message
    refused,        ///< 503, or an answer with code 4001 or 4002
    answeredError,  ///< 200 with another code (the link's errors)
    otherStatus,    ///< any other status (400, 413, ...): still one answer
    noAnswer,       ///< no HTTP answer at all: fails the run
};
inline constexpr std::size_t httpClassCount = 5;

const char* httpClassName(HttpClass c);

/// The code an answer body carries: "message"."code", else "code"; -1 when none.
int answerCode(const std::string& body);

/// Thread-safe.
class HttpTally {
public:
    /// One request answered with `status` and `body`.
    void answer(int status, const std::string& body);
    /// One request without an answer; `why` is kept for the first few.
    void noAnswer(const std::string& why);

    std::uint64_t count(HttpClass c) const { return counts[static_cast<std::size_t>(c)].load(); }
    std::uint64_t total() const;
    std::map<int, std::uint64_t> statuses() const;
    std::vector<std::string> failures() const;

private:
    std::array<std::atomic<std::uint64_t>, httpClassCount> counts{};
    mutable std::mutex mutex;  // guards byStatus and reasons
    std::map<int, std::uint64_t> byStatus;
    std::vector<std::string> reasons;
};

} // namespace vlm::chaos
