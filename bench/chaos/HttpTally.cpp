#include "HttpTally.h"

#include <Poco/JSON/Parser.h>

namespace vlm::chaos {
namespace {

constexpr std::size_t keptReasons = 10;

} // namespace

const char* httpClassName(HttpClass c)
{
    switch (c) {
    case HttpClass::ok: return "answered, 200/code 200 or 202";
    case HttpClass::refused: return "answered, refused (503, 4001/4002)";
    case HttpClass::answeredError: return "answered, other error code";
    case HttpClass::otherStatus: return "answered, other status";
    case HttpClass::noAnswer: return "no HTTP answer";
    }
    return "?";
}

int answerCode(const std::string& body)
{
    try {
        const auto answer = Poco::JSON::Parser().parse(body).extract<Poco::JSON::Object::Ptr>();
        if (!answer)
            return -1;
        if (answer->isObject("message") && answer->getObject("message")->has("code"))
            return answer->getObject("message")->getValue<int>("code");
        if (answer->has("code"))
            return answer->getValue<int>("code");
    } catch (const std::exception&) {
    }
    return -1;
}

void HttpTally::answer(int status, const std::string& body)
{
    HttpClass c = HttpClass::otherStatus;
    if (status == 202) {
        c = HttpClass::ok;
    } else if (status == 503) {
        c = HttpClass::refused;
    } else if (status == 200) {
        const int code = answerCode(body);
        c = code == 200 ? HttpClass::ok
            : code == 4001 || code == 4002 ? HttpClass::refused
                                           : HttpClass::answeredError;
    }
    ++counts[static_cast<std::size_t>(c)];
    std::lock_guard<std::mutex> lock(mutex);
    ++byStatus[status];
}

void HttpTally::noAnswer(const std::string& why)
{
    ++counts[static_cast<std::size_t>(HttpClass::noAnswer)];
    std::lock_guard<std::mutex> lock(mutex);
    if (reasons.size() < keptReasons)
        reasons.push_back(why);
}

std::uint64_t HttpTally::total() const
{
    std::uint64_t n = 0;
    for (const auto& c : counts)
        n += c.load();
    return n;
}

std::map<int, std::uint64_t> HttpTally::statuses() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return byStatus;
}

std::vector<std::string> HttpTally::failures() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return reasons;
}

} // namespace vlm::chaos
