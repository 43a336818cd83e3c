#pragma once

// Every MQTT command the chaos run sends, by msgId, and every answer seen for
// it on the answer topic; at the end each command falls in exactly one class.

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace vlm::chaos {

enum class CommandKind { regular, burst, oversize, probe };

/// What became of one command. The first three are answers; `duplicate` and
/// `lost` fail the run; the rest are the documented ways to get no answer.
enum class CommandClass {
    answered,         ///< one answer, code 200
    refused,          ///< one answer, code 4001 or 4002
    answeredError,    ///< one answer with another code (the link's error codes)
    duplicate,        ///< more than one answer
    notSent,          ///< the publish failed at the driver, so the broker never had it
    oversize,         ///< no answer; larger than the host's MQTT size limit
    linkDown,         ///< no answer; sent while the simulator was down
    reconnecting,     ///< no answer; a probe sent while the host was restoring its broker link
    queueDropped,     ///< no answer; covered by a drop counter in /host/health
    lost,             ///< no answer and no documented reason
};

const char* className(CommandClass c);
const char* kindName(CommandKind k);
/// Whether a command of this class breaks the "answered once or refused as
/// documented" invariant.
bool isFailure(CommandClass c);

/// Thread-safe: commands are opened by the driver's thread, answers arrive on
/// the MQTT client's callback thread.
class CommandLedger {
public:
    /// Registers a command about to be published at `atSeconds` (run time)
    /// and returns its msgId.
    std::string open(CommandKind kind, double atSeconds);
    /// The publish of `msgId` did not reach the broker.
    void publishFailed(const std::string& msgId);

    /// A message seen on the answer topic; requests (ours echoed) and
    /// answers to msgIds not ours are ignored.
    void onMessage(const std::string& payload);

    /// Whether `msgId` got at least one answer.
    bool answered(const std::string& msgId) const;
    /// Published commands, oversize ones aside, still without an answer.
    std::size_t outstanding() const;

    /// The simulator was down from `from` to `to` (run seconds).
    void addLinkDownWindow(double from, double to);

    struct Tally {
        std::map<CommandClass, std::uint64_t> byClass;
        std::map<CommandKind, std::uint64_t> sentByKind;
        std::uint64_t foreignAnswers = 0;  ///< answers with a msgId we never sent
        std::vector<std::string> lostExamples;  ///< "msgId kind at s", the first few
    };

    /// Classifies every command. Unanswered commands without another reason
    /// are excused as `queueDropped` up to `queueDrops`, and unanswered
    /// oversize ones as `oversize` up to `oversizeRefusals` (negative: no
    /// bound known, all of them); the rest are `lost`.
    Tally classify(std::uint64_t queueDrops, long long oversizeRefusals) const;

private:
    struct Entry {
        CommandKind kind;
        double sentAt;
        bool published = true;
        int answers = 0;
        int code = 0;  // of the first answer
    };

    mutable std::mutex mutex;  // guards everything below
    std::map<std::string, Entry> entries;
    std::vector<std::pair<double, double>> linkDownWindows;
    std::uint64_t nextId = 0;
    std::uint64_t foreign = 0;
};

} // namespace vlm::chaos
