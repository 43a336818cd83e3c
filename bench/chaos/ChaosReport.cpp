// The end of a chaos run: what was injected, what became of every request
// and command, and the invariants, printed as tables.

#include <cstdio>
#include <string>

#include "ChaosRun.h"

namespace vlm::chaos {
namespace {

constexpr std::size_t shownTimes = 12;

std::string times(const std::vector<double>& at)
{
    std::string text;
    for (std::size_t i = 0; i < at.size() && i < shownTimes; ++i) {
        char one[16];
        std::snprintf(one, sizeof one, "%s%.1f", i ? ", " : "", at[i]);
        text += one;
    }
    if (at.size() > shownTimes)
        text += ", ...";
    return text;
}

unsigned long long u(std::uint64_t n)
{
    return static_cast<unsigned long long>(n);
}

void printHttp(const char* title, const HttpTally& tally)
{
    std::printf("\n%s: %llu\n", title, u(tally.total()));
    for (std::size_t i = 0; i < httpClassCount; ++i) {
        const auto c = static_cast<HttpClass>(i);
        std::printf("  %-44s %8llu  %s\n", httpClassName(c), u(tally.count(c)),
                    c == HttpClass::noAnswer ? (tally.count(c) ? "FAIL" : "ok") : "answer");
    }
    std::string statuses;
    for (const auto& [status, n] : tally.statuses())
        statuses += (statuses.empty() ? "" : ", ") + std::to_string(status) + ": " + std::to_string(n);
    std::printf("  statuses: %s\n", statuses.empty() ? "none" : statuses.c_str());
    for (const auto& why : tally.failures())
        std::printf("  no answer: %s\n", why.c_str());
}

bool check(bool holds, const std::string& what)
{
    std::printf("  [%s] %s\n", holds ? " ok " : "FAIL", what.c_str());
    return holds;
}

} // namespace

int ChaosRun::report()
{
    std::printf("\nchaos summary after %.0f s (the last %.0f s waiting for the last MQTT answers)\n", elapsed,
                drainSeconds);

    std::printf("\nfaults injected\n  %-32s %5s %7s  %s\n", "kind", "count", "skipped", "at (s)");
    for (const FaultKind kind : {FaultKind::commandBurst, FaultKind::oversizeCommandSmall, FaultKind::oversizeCommandLarge,
                                 FaultKind::busFlood, FaultKind::busFloodBig, FaultKind::simulatorBusFlood,
                                 FaultKind::badFrameZeroLength, FaultKind::badFrameBadType, FaultKind::badFrameOversize,
                                 FaultKind::malformedPublication, FaultKind::vehicleDownUp,
                                 FaultKind::simulatorRestart, FaultKind::brokerRestart}) {
        const auto it = faults.find(kind);
        const FaultRecord record = it == faults.end() ? FaultRecord{} : it->second;
        std::printf("  %-32s %5zu %7d  %s\n", faultName(kind), record.at.size(), record.skipped,
                    times(record.at).c_str());
        if (!record.note.empty())
            std::printf("  %-32s %s\n", "", record.note.c_str());
    }
    if (!reconnectSeconds.empty()) {
        double worst = 0;
        double sum = 0;
        for (double s : reconnectSeconds) {
            worst = std::max(worst, s);
            sum += s;
        }
        std::printf("  %-32s plug-in link up %.2f s (mean), %.2f s (worst) after the simulator listened\n", "",
                    sum / static_cast<double>(reconnectSeconds.size()), worst);
    }

    std::vector<std::string> dropCounters;
    std::vector<std::string> sizeCounters;
    const std::uint64_t queueDrops = answerQueueDrops(healthStart, healthEnd, dropCounters);
    const long long sizeRefused = sizeRefusals(healthStart, healthEnd, sizeCounters);
    const CommandLedger::Tally tally = ledger.classify(queueDrops, sizeRefused);
    std::uint64_t sent = 0;
    std::string kinds;
    for (const auto& [kind, n] : tally.sentByKind) {
        sent += n;
        kinds += (kinds.empty() ? "" : ", ") + std::string(kindName(kind)) + " " + std::to_string(n);
    }
    std::printf("\nMQTT commands with a msgId: %llu (%s)\n", u(sent), kinds.c_str());
    std::uint64_t mqttFailures = 0;
    for (const CommandClass c : {CommandClass::answered, CommandClass::refused, CommandClass::answeredError,
                                 CommandClass::notSent, CommandClass::oversize, CommandClass::linkDown,
                                 CommandClass::reconnecting, CommandClass::queueDropped, CommandClass::duplicate,
                                 CommandClass::lost}) {
        const auto it = tally.byClass.find(c);
        const std::uint64_t n = it == tally.byClass.end() ? 0 : it->second;
        const char* verdict = c == CommandClass::answered || c == CommandClass::refused ||
                                      c == CommandClass::answeredError
                                  ? "answer"
                              : isFailure(c) ? (n ? "FAIL" : "ok")
                                             : "documented";
        if (isFailure(c))
            mqttFailures += n;
        std::printf("  %-44s %8llu  %s\n", className(c), u(n), verdict);
    }
    std::string used;
    for (const auto& path : dropCounters)
        used += " " + path;
    std::printf("  queue drop counters in health:%s (grew by %llu)\n", used.empty() ? " none" : used.c_str(),
                u(queueDrops));
    used.clear();
    for (const auto& path : sizeCounters)
        used += " " + path;
    if (sizeRefused < 0)
        std::printf("  size refusal counters in health: none (unanswered oversize commands excused by their class)\n");
    else
        std::printf("  size refusal counters in health:%s (grew by %lld)\n", used.c_str(), sizeRefused);
    if (tally.foreignAnswers)
        std::printf("  answers with a msgId this run never sent: %llu\n", u(tally.foreignAnswers));
    for (const auto& lost : tally.lostExamples)
        std::printf("  lost: %s\n", lost.c_str());

    printHttp("HTTP requests of the ground apps", groundHttp);
    printHttp("HTTP bus messages posted (POST /host/bus)", busHttp);

    const auto& streams = telemetryStreams->counters();
    const auto& taps = busTaps->counters();
    std::printf("\nevent streams\n  telemetry: %llu opened, %llu refused, %llu ended and reopened, %llu events read\n",
                u(streams.opens), u(streams.refused), u(streams.ends), u(streams.events));
    std::printf("  bus taps:  %llu opened, %llu refused, %llu ended and reopened, %llu messages read\n", u(taps.opens),
                u(taps.refused), u(taps.ends), u(taps.events));

    std::printf("\nhealth counters that moved (start -> end)\n");
    for (const auto& [path, value] : healthEnd) {
        const auto before = healthStart.find(path);
        const double was = before == healthStart.end() ? 0 : before->second;
        if (isCounter(path) && value != was)
            std::printf("  %-44s %12.0f -> %.0f\n", path.c_str(), was, value);
    }

    std::printf("\ninvariants\n");
    bool ok = true;
    ok &= check(mqttFailures == 0, "every MQTT command got exactly one answer or a documented refusal (" +
                                       std::to_string(mqttFailures) + " failed)");
    const std::uint64_t unanswered = groundHttp.count(HttpClass::noAnswer) + busHttp.count(HttpClass::noAnswer);
    ok &= check(unanswered == 0,
                "every HTTP request got exactly one HTTP answer (" + std::to_string(unanswered) + " without)");
    const long growthKiB = rssPeakKiB - rssStartKiB;
    char rss[200];
    std::snprintf(rss, sizeof rss,
                  "host RSS within %ld MiB of its start: %ld KiB under load before the first fault, %ld KiB peak, "
                  "%ld KiB at the end",
                  settings.maxRssGrowthMiB, rssStartKiB, rssPeakKiB, rssEndKiB);
    ok &= check(rssStartKiB > 0 && growthKiB <= settings.maxRssGrowthMiB * 1024, rss);
    ok &= check(hostAlive, hostAlive ? std::string("the host ran throughout")
                                     : "the host ENDED during the run, at " + std::to_string(hostEndedAt) + " s");
    ok &= check(hostExitCode == 0, "the host exited 0 on SIGTERM (exit code " + std::to_string(hostExitCode) + ")");
    ok &= check(comebackFailures.empty(), "the stack came back after every restart");
    for (const auto& failure : comebackFailures)
        std::printf("         %s\n", failure.c_str());
    std::printf("\nchaos: %s\n", ok ? "every invariant held" : "FAILED");
    std::fflush(stdout);
    return ok ? 0 : 1;
}

} // namespace vlm::chaos
