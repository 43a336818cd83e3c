// pilot-rpc's pure parts: the command line, typed arguments and the decoding
// of answers.

#include <gtest/gtest.h>

#include "answer_text.h"
#include "command_line.h"
#include "rpc/codec.h"
#include "typed_arguments.h"

namespace pilot_rpc_tool {
namespace {

tool_options parse(std::vector<std::string> args) { return parse_command_line(args); }

std::string decodedText(const msgpack::sbuffer& packed)
{
    const auto handle = pilot_rpc::unpack_object(std::string_view(packed.data(), packed.size()));
    return to_json(handle.get());
}

TEST(PilotRpcCommandLine, AddressesAreNumericWithAPort)
{
    EXPECT_EQ(parse_service_address("127.0.0.1:7700").host, "127.0.0.1");
    EXPECT_EQ(parse_service_address("127.0.0.1:7700").port, 7700);
    EXPECT_EQ(parse_service_address("[::1]:7701").host, "::1");
    EXPECT_EQ(parse_service_address("::1:7702").host, "::1");
    EXPECT_EQ(parse_service_address("::1:7702").port, 7702);
    // A name's refusal text is checked on the real program.
    for (const char* bad : {"localhost:7700", "127.0.0.1", "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536", "127.0.0.1:-1",
                            "127.0.0.1:77x", "[::1]7700", ":7700", "300.0.0.1:7700"})
        EXPECT_THROW(parse_service_address(bad), usage_error) << bad;
}

TEST(PilotRpcCommandLine, TypedArgumentsKeepTheirPlaceAmongPlainOnes)
{
    const auto options = parse({"--json", "call", "127.0.0.1:7700", "proc", "a", "-i", "-5", "b", "-b", "true",
                                "-j", R"({"k":[1,2]})", "--", "-x", "--timeout", "2"});
    EXPECT_TRUE(options.json);
    EXPECT_EQ(options.command, subcommand::call);
    EXPECT_EQ(options.procedure, "proc");
    ASSERT_EQ(options.arguments.size(), 8u);
    // After "--" everything is a text, flags included.
    EXPECT_EQ(options.arguments[6].text, "--timeout");
    EXPECT_EQ(options.timeout_seconds, 5.0);
    EXPECT_EQ(decodedText(pack_arguments(options.arguments)),
              R"(["a",-5,"b",true,{"k":[1,2]},"-x","--timeout","2"])");
}

TEST(PilotRpcCommandLine, EachSubcommandTakesOnlyItsOwnFlags)
{
    EXPECT_EQ(parse({"subscribe", "127.0.0.1:1", "a", "b", "--count", "3"}).topics,
              (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(parse({"record", "127.0.0.1:1", "--out", "f", "--duration", "0.5"}).duration_seconds, 0.5);
    for (const std::vector<std::string>& bad : std::vector<std::vector<std::string>>{
             {},
             {"call"},
             {"call", "127.0.0.1:1"},
             {"fetch", "127.0.0.1:1", "x"},
             {"call", "127.0.0.1:1", "x", "--out", "f"},
             {"call", "127.0.0.1:1", "x", "--count", "2"},
             {"call", "127.0.0.1:1", "-i", "5", "x"},
             {"call", "127.0.0.1:1", "x", "-i"},
             {"subscribe", "127.0.0.1:1"},
             {"subscribe", "127.0.0.1:1", "t", "--count", "0"},
             {"record", "127.0.0.1:1"},
             {"record", "127.0.0.1:1", "topic", "--out", "f"},
             {"record", "127.0.0.1:1", "--out", "f", "--count", "1"},
             {"call", "127.0.0.1:1", "x", "--timeout", "0"},
             {"call", "127.0.0.1:1", "x", "--timeout", "nan"},
             {"call", "127.0.0.1:1", "x", "--verbose"},
         })
        EXPECT_THROW(parse(bad), usage_error) << ::testing::PrintToString(bad);
    EXPECT_TRUE(parse({"--help"}).help);
}

TEST(PilotRpcArguments, BadTypedValuesNameTheArgument)
{
    const auto expectRefused = [](argument_kind kind, const std::string& text, const std::string& why) {
        try {
            pack_arguments({{argument_kind::text, "first"}, {kind, text}});
            ADD_FAILURE() << text << " was packed";
        } catch (const std::invalid_argument& e) {
            EXPECT_EQ(std::string(e.what()), "argument 2 \"" + text + "\" " + why);
        }
    };
    for (const char* notWhole : {"5.5", "99999999999999999999", ""})
        expectRefused(argument_kind::integer, notWhole,
                      "is not a whole number from -9223372036854775808 to 9223372036854775807");
    expectRefused(argument_kind::boolean, "yes", "is neither true nor false");
    expectRefused(argument_kind::json, "{\"a\":", "is not valid JSON");
    expectRefused(argument_kind::json, "[1,]", "is not valid JSON");
}

TEST(PilotRpcArguments, JsonValuesBecomeTheMatchingMessagePackValues)
{
    EXPECT_EQ(decodedText(pack_arguments({{argument_kind::json, R"({"b":null,"a":[1.5,-2,"x",false]})"},
                                          {argument_kind::json, "9007199254740993"},
                                          {argument_kind::json, "\"t\""}})),
              R"([{"b":null,"a":[1.5,-2,"x",false]},9007199254740993,"t"])");
    EXPECT_EQ(decodedText(pack_arguments({})), "[]");
    // Nothing may slip past the single value: two values, or none.
    EXPECT_THROW(pack_arguments({{argument_kind::json, "1,2"}}), std::invalid_argument);
    EXPECT_THROW(pack_arguments({{argument_kind::json, ""}}), std::invalid_argument);
    EXPECT_THROW(pack_arguments({{argument_kind::json, "1]"}}), std::invalid_argument);
}

TEST(PilotRpcAnswer, ValuesAreShownAsTextOrJson)
{
    const auto body = [](const auto&... parts) {
        const msgpack::sbuffer packed = pilot_rpc::pack_args(parts...);
        return std::string(packed.data(), packed.size());
    };
    auto answer = decode_answer(body(0, std::string("SIM \"1\"")));
    EXPECT_EQ(answer.code, 0);
    EXPECT_EQ(answer.value_text, "SIM \"1\"");
    EXPECT_EQ(answer.value_json, R"("SIM \"1\"")");
    answer = decode_answer(body(0, std::vector<int>{1, 2}));
    EXPECT_EQ(answer.value_text, "[1,2]");
    answer = decode_answer(body(-3, std::string("bad\nthing")));
    EXPECT_EQ(answer.code, -3);
    EXPECT_EQ(answer.value_json, R"("bad\nthing")");
    answer = decode_answer(body(0));
    EXPECT_EQ(answer.value_json, "null");

    EXPECT_THROW(decode_answer(""), std::invalid_argument);
    EXPECT_THROW(decode_answer(body(std::string("0"), 1)), std::invalid_argument);
    EXPECT_THROW(decode_answer(body()), std::invalid_argument);
}

TEST(PilotRpcAnswer, AHostileAnswerIsCutNotFollowed)
{
    // 200 nested arrays: the rendering stops at its depth bound.
    std::string deep(200, '\x91');
    deep += '\xc0';
    const std::string body = std::string("\x92\x00", 2) + deep;
    const auto answer = decode_answer(body);
    EXPECT_NE(answer.value_json.find("\"<nested too deep>\""), std::string::npos);
    EXPECT_LT(answer.value_json.size(), 200u);

    // A map with a non-text key and a control character in a text.
    const std::string mapBody = std::string("\x92\x00\x81\x01\xa2\x61\x01", 7);
    EXPECT_EQ(decode_answer(mapBody).value_json, "{\"1\":\"a\\u0001\"}");
}

} // namespace
} // namespace pilot_rpc_tool
