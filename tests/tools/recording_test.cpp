// The flight recording file and the playback clock: what pilot-rpc writes,
// pilot-sim reads back, and when each event is due.

#include <gtest/gtest.h>

#include "recording.h"
#include "replay.h"
#include "support/TempDir.h"

namespace velmora_recording {
namespace {

using namespace std::chrono_literals;

TEST(Recording, ALineReadsBackExactlyWhatWasWritten)
{
    recorded_event event;
    event.t_ms = 1250;
    event.topic = "push\"Tele\\metry";
    event.data = "{\"a\":\"b\\n\"}\n\t\x01 \xc3\xa9";
    const auto when = std::chrono::system_clock::time_point(std::chrono::milliseconds(1795450857148));
    const std::string line = format_record_line(event, when);
    EXPECT_EQ(line.find('\n'), std::string::npos);
    EXPECT_NE(line.find("\"time\":\"2026-11-23T16:20:57.148Z\""), std::string::npos) << line;
    std::string why;
    const auto back = parse_record_line(line, why);
    ASSERT_TRUE(back) << why;
    EXPECT_EQ(back->t_ms, 1250);
    EXPECT_EQ(back->topic, event.topic);
    EXPECT_EQ(back->data, event.data);
}

TEST(Recording, BadLinesSayWhy)
{
    const auto reason = [](const std::string& line) {
        std::string why;
        recording_limits limits;
        limits.max_line_bytes = 200;
        limits.max_topic_bytes = 8;
        EXPECT_FALSE(parse_record_line(line, why, limits)) << line;
        return why;
    };
    EXPECT_EQ(reason("not json"), "not a JSON object");
    EXPECT_EQ(reason("[1,2]"), "not a JSON object");
    EXPECT_EQ(reason(R"({"topic":"a","data":"b"})"), "\"t\" is missing");
    EXPECT_EQ(reason(R"({"t":-1,"topic":"a","data":"b"})"), "\"t\" is not a whole number of milliseconds from 0");
    EXPECT_EQ(reason(R"({"t":1.5,"topic":"a","data":"b"})"), "\"t\" is not a whole number of milliseconds from 0");
    EXPECT_EQ(reason(R"({"t":"1","topic":"a","data":"b"})"), "\"t\" is not a whole number of milliseconds from 0");
    EXPECT_EQ(reason(R"({"t":1,"topic":"","data":"b"})"), "\"topic\" is missing or not a text");
    EXPECT_EQ(reason(R"({"t":1,"topic":"abcdefghi","data":"b"})"), "\"topic\" is longer than 8 bytes");
    EXPECT_EQ(reason(R"({"t":1,"topic":"a","data":{"x":1}})"), "\"data\" is missing or not a text");
    EXPECT_EQ(reason("{\"t\":1,\"topic\":\"a\",\"data\":\"" + std::string(200, 'x') + "\"}"),
              "longer than 200 bytes");
    // Keys it does not know are left alone: a later writer may add some.
    std::string why;
    EXPECT_TRUE(parse_record_line(R"({"t":0,"topic":"a","data":"","code":3,"extra":[1]})", why));
}

TEST(Recording, LoadingSkipsBadLinesByNumberAndRefusesAFileWithNothingToPlay)
{
    vlm::test::TempDir dir;
    const std::string path = dir.write("flight.jsonl", "{\"t\":0,\"topic\":\"a\",\"data\":\"1\"}\n"
                                                       "\n"
                                                       "garbage\n"
                                                       "{\"t\":30,\"topic\":\"a\",\"data\":\"2\"}\r\n"
                                                       "{\"t\":10,\"topic\":\"a\",\"data\":\"late\"}\n"
                                                       "{\"t\":30,\"topic\":\"b\",\"data\":\"3\"}");
    std::vector<std::pair<std::size_t, std::string>> bad;
    const auto loaded = load_recording(path, [&](std::size_t n, const std::string& why) { bad.emplace_back(n, why); });
    ASSERT_EQ(loaded.events.size(), 3u);
    EXPECT_EQ(loaded.events[1].data, "2");
    EXPECT_EQ(loaded.events[2].topic, "b");
    EXPECT_EQ(loaded.bad_lines, 2u);
    ASSERT_EQ(bad.size(), 2u);
    EXPECT_EQ(bad[0], (std::pair<std::size_t, std::string>{3, "not a JSON object"}));
    EXPECT_EQ(bad[1].first, 5u);
    EXPECT_EQ(bad[1].second, "\"t\" 10 goes back before the previous line's 30");

    recording_limits few;
    few.max_events = 2;
    EXPECT_EQ(load_recording(path, nullptr, few).events.size(), 2u);
    few.max_file_bytes = 64;
    try {
        load_recording(path, nullptr, few);
        FAIL() << "an oversize file was read";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("more than the 64 a recording may have"), std::string::npos) << e.what();
    }
    const std::string empty = dir.write("empty.jsonl", "garbage\n\n");
    try {
        load_recording(empty, nullptr);
        FAIL() << "a file without events was accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()), empty + ": no event to replay (1 bad lines)");
    }
    EXPECT_THROW(load_recording(dir.file("missing.jsonl"), nullptr), std::runtime_error);
    EXPECT_THROW(load_recording(dir.path, nullptr), std::runtime_error);
}

} // namespace
} // namespace velmora_recording

namespace pilot_sim {
namespace {

using namespace std::chrono_literals;

replay_plan planOf(std::vector<std::int64_t> times, double speed, bool loop)
{
    replay_plan plan;
    for (auto t : times)
        plan.events.push_back({t, "topic", std::to_string(t)});
    plan.speed = speed;
    plan.loop = loop;
    return plan;
}

TEST(ReplayCursor, SpacingIsTheRecordedOneScaledBySpeed)
{
    const auto plan = planOf({1000, 1000, 1400, 3000}, 2.0, false);
    replay_cursor cursor(plan);
    const auto start = replay_cursor::clock::time_point(10s);
    cursor.begin(start);
    std::vector<replay_cursor::clock::duration> due;
    while (cursor.next()) {
        due.push_back(cursor.next_due() - start);
        cursor.advance();
    }
    EXPECT_EQ(due, (std::vector<replay_cursor::clock::duration>{0ms, 0ms, 200ms, 1000ms}));
    EXPECT_EQ(cursor.rounds_done(), 1u);
    cursor.advance();
    EXPECT_EQ(cursor.next(), nullptr);
}

TEST(ReplayCursor, ALoopStartsTheNextRoundOneAverageSpacingLater)
{
    const auto plan = planOf({0, 100, 300}, 1.0, true);
    replay_cursor cursor(plan);
    const auto start = replay_cursor::clock::time_point(0s);
    cursor.begin(start);
    for (int i = 0; i < 3; ++i)
        cursor.advance();
    ASSERT_NE(cursor.next(), nullptr);
    EXPECT_EQ(cursor.next()->data, "0");
    EXPECT_EQ(cursor.next_due() - start, 450ms);
    EXPECT_EQ(cursor.rounds_done(), 1u);

    // All events at one instant: the rounds still move on in time.
    const auto burst = planOf({5, 5}, 1000.0, true);
    replay_cursor fast(burst);
    fast.begin(start);
    fast.advance();
    fast.advance();
    EXPECT_EQ(fast.next_due() - start, 10ms);
    const auto single = planOf({7}, 1.0, true);
    replay_cursor one(single);
    one.begin(start);
    one.advance();
    EXPECT_EQ(one.next_due() - start, 1s);
}

} // namespace
} // namespace pilot_sim
