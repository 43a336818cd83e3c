// The flight recording file: what pilot-rpc writes and pilot-sim reads back.

#include <gtest/gtest.h>

#include "recording.h"
#include "support/TempDir.h"

namespace velmora_recording {
namespace {

TEST(Recording, ALineReadsBackExactlyWhatWasWritten)
{
    const recorded_event event{1250, "push\"Tele\\metry", "{\"a\":\"b\\n\"}\n\t\x01 \xc3\xa9"};
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
    // Keys it does not know are left alone: a later writer may add some.
    EXPECT_TRUE(parse_record_line(R"({"t":0,"topic":"a","data":"","code":3,"extra":[1]})", why));
}

TEST(Recording, BadLinesSayWhy)
{
    recording_limits limits;
    limits.max_line_bytes = 200;
    limits.max_topic_bytes = 8;
    const std::string notWhole = "\"t\" is not a whole number of milliseconds from 0";
    for (const auto& [line, reason] : std::vector<std::pair<std::string, std::string>>{
             {"not json", "not a JSON object"},
             {"[1,2]", "not a JSON object"},
             {R"({"topic":"a","data":"b"})", "\"t\" is missing"},
             {R"({"t":-1,"topic":"a","data":"b"})", notWhole},
             {R"({"t":1.5,"topic":"a","data":"b"})", notWhole},
             {R"({"t":"1","topic":"a","data":"b"})", notWhole},
             {R"({"t":1,"topic":"","data":"b"})", "\"topic\" is missing or not a text"},
             {R"({"t":1,"topic":"abcdefghi","data":"b"})", "\"topic\" is longer than 8 bytes"},
             {R"({"t":1,"topic":"a","data":{"x":1}})", "\"data\" is missing or not a text"},
             {"{\"t\":1,\"topic\":\"a\",\"data\":\"" + std::string(200, 'x') + "\"}", "longer than 200 bytes"},
         }) {
        std::string why;
        EXPECT_FALSE(parse_record_line(line, why, limits)) << line;
        EXPECT_EQ(why, reason) << line;
    }
}

// A file is read line by line: bad lines are skipped and told by number, and
// a file with nothing to play or more than a recording may hold is refused.
TEST(Recording, LoadingSkipsBadLinesByNumberAndRefusesAFileWithNothingToPlay)
{
    vlm::test::TempDir dir;
    const std::string path = dir.write("flight.jsonl", "{\"t\":0,\"topic\":\"a\",\"data\":\"1\"}\n\ngarbage\n"
                                                       "{\"t\":30,\"topic\":\"a\",\"data\":\"2\"}\r\n"
                                                       "{\"t\":10,\"topic\":\"a\",\"data\":\"late\"}\n"
                                                       "{\"t\":30,\"topic\":\"b\",\"data\":\"3\"}");
    std::vector<std::pair<std::size_t, std::string>> bad;
    const auto loaded = load_recording(path, [&](std::size_t n, const std::string& why) { bad.emplace_back(n, why); });
    ASSERT_EQ(loaded.events.size(), 3u);
    EXPECT_EQ(loaded.events[1].data, "2");
    EXPECT_EQ(loaded.events[2].topic, "b");
    EXPECT_EQ(loaded.bad_lines, 2u);
    EXPECT_EQ(bad, (std::vector<std::pair<std::size_t, std::string>>{
                       {3, "not a JSON object"}, {5, "\"t\" 10 goes back before the previous line's 30"}}));

    recording_limits few;
    few.max_events = 2;
    EXPECT_EQ(load_recording(path, nullptr, few).events.size(), 2u);
    few.max_file_bytes = 64;
    const std::string empty = dir.write("empty.jsonl", "garbage\n\n");
    for (const auto& [file, limits, text] : std::vector<std::tuple<std::string, recording_limits, std::string>>{
             {path, few, "more than the 64 a recording may have"},
             {dir.file("missing.jsonl"), recording_limits{}, ""},
             {dir.path, recording_limits{}, ""}}) {
        try {
            load_recording(file, nullptr, limits);
            ADD_FAILURE() << file << " was read";
        } catch (const std::runtime_error& e) {
            EXPECT_NE(std::string(e.what()).find(text), std::string::npos) << e.what();
        }
    }
    try {
        load_recording(empty, nullptr);
        ADD_FAILURE() << "a file without events was accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()), empty + ": no event to replay (1 bad lines)");
    }
}

} // namespace
} // namespace velmora_recording
