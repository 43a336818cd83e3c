#include "CommandLedger.h"

#include <Poco/JSON/Parser.h>

namespace vlm::chaos {
namespace {

constexpr std::size_t lostExampleCount = 10;

CommandClass answerClass(int code)
{
    if (code == 200)
        return CommandClass::answered;
    if (code == 4001 || code == 4002)
        return CommandClass::refused;
    return CommandClass::answeredError;
}

} // namespace

const char* className(CommandClass c)
{
    switch (c) {
    case CommandClass::answered: return "answered, code 200";
    case CommandClass::refused: return "answered, refused (4001/4002)";
    case CommandClass::answeredError: return "answered, other error code";
    case CommandClass::duplicate: return "answered more than once";
    case CommandClass::notSent: return "not sent (publish failed at the driver)";
    case CommandClass::oversize: return "no answer: oversize, host size limit";
    case CommandClass::linkDown: return "no answer: sent while the simulator was down";
    case CommandClass::reconnecting: return "no answer: probe during broker reconnection";
    case CommandClass::queueDropped: return "no answer: full queue, counted in health";
    case CommandClass::lost: return "no answer, no documented reason";
    }
    return "?";
}

const char* kindName(CommandKind k)
{
    switch (k) {
    case CommandKind::regular: return "regular";
    case CommandKind::burst: return "burst";
    case CommandKind::oversize: return "oversize";
    case CommandKind::probe: return "probe";
    }
    return "?";
}

bool isFailure(CommandClass c)
{
    return c == CommandClass::duplicate || c == CommandClass::lost;
}

std::string CommandLedger::open(CommandKind kind, double atSeconds)
{
    std::lock_guard<std::mutex> lock(mutex);
    std::string id = "chaos-" + std::to_string(++nextId);
    entries.emplace(id, Entry{kind, atSeconds});
    return id;
}

void CommandLedger::publishFailed(const std::string& msgId)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (const auto it = entries.find(msgId); it != entries.end())
        it->second.published = false;
}

void CommandLedger::onMessage(const std::string& payload)
{
    // Our own requests come back on the same topic, some of them megabytes
    // long: only texts that can be answers are parsed.
    if (payload.find("\"response\"") == std::string::npos)
        return;
    std::string msgId;
    int code = -1;
    try {
        const auto answer = Poco::JSON::Parser().parse(payload).extract<Poco::JSON::Object::Ptr>();
        if (!answer || answer->optValue<std::string>("type", "") != "response" || !answer->has("msgId"))
            return;
        msgId = answer->get("msgId").toString();
        if (answer->isObject("message") && answer->getObject("message")->has("code"))
            code = answer->getObject("message")->getValue<int>("code");
        else if (answer->has("code"))
            code = answer->getValue<int>("code");
    } catch (const std::exception&) {
        return;  // not an answer of the gateway's form
    }
    std::lock_guard<std::mutex> lock(mutex);
    const auto it = entries.find(msgId);
    if (it == entries.end()) {
        ++foreign;
        return;
    }
    if (it->second.answers++ == 0)
        it->second.code = code;
}

bool CommandLedger::answered(const std::string& msgId) const
{
    std::lock_guard<std::mutex> lock(mutex);
    const auto it = entries.find(msgId);
    return it != entries.end() && it->second.answers > 0;
}

std::size_t CommandLedger::outstanding() const
{
    std::lock_guard<std::mutex> lock(mutex);
    std::size_t n = 0;
    for (const auto& [id, e] : entries)
        n += e.published && e.answers == 0 && e.kind != CommandKind::oversize ? 1 : 0;
    return n;
}

void CommandLedger::addLinkDownWindow(double from, double to)
{
    std::lock_guard<std::mutex> lock(mutex);
    linkDownWindows.emplace_back(from, to);
}

CommandLedger::Tally CommandLedger::classify(std::uint64_t queueDrops, long long oversizeRefusals) const
{
    std::lock_guard<std::mutex> lock(mutex);
    Tally tally;
    tally.foreignAnswers = foreign;
    const auto inLinkDown = [this](double at) {
        for (const auto& [from, to] : linkDownWindows) {
            if (at >= from && at <= to)
                return true;
        }
        return false;
    };
    for (const auto& [id, e] : entries) {
        ++tally.sentByKind[e.kind];
        CommandClass c = CommandClass::lost;
        if (e.answers > 1)
            c = CommandClass::duplicate;
        else if (e.answers == 1)
            c = answerClass(e.code);
        else if (!e.published)
            c = CommandClass::notSent;
        else if (e.kind == CommandKind::oversize && oversizeRefusals != 0) {
            c = CommandClass::oversize;
            if (oversizeRefusals > 0)
                --oversizeRefusals;
        } else if (e.kind == CommandKind::probe)
            c = CommandClass::reconnecting;
        else if (inLinkDown(e.sentAt))
            c = CommandClass::linkDown;
        else if (queueDrops > 0) {
            c = CommandClass::queueDropped;
            --queueDrops;
        }
        if (c == CommandClass::lost && tally.lostExamples.size() < lostExampleCount)
            tally.lostExamples.push_back(id + " " + kindName(e.kind) + " at " + std::to_string(e.sentAt) + " s");
        ++tally.byClass[c];
    }
    return tally;
}

} // namespace vlm::chaos
