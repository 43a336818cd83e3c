#include "PluginFixture.h"
#include "support/LogCapture.h"

namespace {

using vlm::PilotControlP;
using vlm::test::expectFields;
using Access = vlm::PilotControlPTestAccess;

Poco::JSON::Object::Ptr parse(const std::string& text) { return vlm::test::parseObject(text); }

class ErrorMessages : public ::testing::Test {
protected:
    std::shared_ptr<PilotControlP> plugin = PilotControlP::createInstance();
    vlm::PilotControlPImpl& state = Access::impl(*plugin);
};

TEST_F(ErrorMessages, ShortFormHasSortedKeysAndAlwaysAnId)
{
    EXPECT_EQ(Access::shortError(*plugin, "The vehicle not connected", PilotControlP::vehicleNotConnected),
              R"({"code":4001,"id":"","msg":"The vehicle not connected","type":"response"})");
    state.setPilotId("UAV-7");
    EXPECT_EQ(Access::shortError(*plugin, "current api not exist: nope", PilotControlP::apiNotExist),
              R"({"code":-1,"id":"UAV-7","msg":"current api not exist: nope","type":"response"})");
}

TEST_F(ErrorMessages, FullFormSwapsAddressesKeepsTheRequestsKeysAndDefaultsTheSender)
{
    auto request = parse(R"({"api":"pushRoute","from":"a","target":"b","msgId":"42","type":"request",
                            "message":{"x":1,"code":9,"type":"request"}})");
    auto answer = parse(Access::fullError(*plugin, "The vehicle not connected", *request,
                                          PilotControlP::vehicleNotConnected));
    expectFields(answer, {{"from", "b"}, {"target", "a"}, {"type", "response"}, {"msgId", "42"}, {"api", "pushRoute"}});
    auto inner = answer->getObject("message");
    ASSERT_TRUE(inner);
    EXPECT_EQ(inner->getValue<int>("x"), 1);
    EXPECT_EQ(inner->getValue<int>("code"), 4001);
    expectFields(inner, {{"msg", "The vehicle not connected"}, {"type", "response"}});

    state.setStationId("station-1");
    answer = parse(Access::fullError(*plugin, "Pilot response mqtt error msg: boom", *parse(R"({"api":"x"})"),
                                     PilotControlP::serviceCallFailed));
    expectFields(answer, {{"from", "station-1"}, {"target", ""}});
    inner = answer->getObject("message");
    ASSERT_TRUE(inner);
    EXPECT_EQ(inner->size(), 3u);  // no request message: only msg, code, type
    EXPECT_EQ(inner->getValue<int>("code"), 4002);
}

TEST_F(ErrorMessages, AMessageThatIsNotAnObjectIsLoggedNotThrown)
{
    vlm::test::LogCapture log;
    std::string text;
    EXPECT_NO_THROW(text = Access::fullError(*plugin, "The vehicle not connected",
                                             *parse(R"({"message":"plain text"})"),
                                             PilotControlP::vehicleNotConnected));
    EXPECT_EQ(text, "");
    EXPECT_TRUE(log.contains("makeErrorMsg failed"));
}

// An error answer never carries a big request back: above 1 MiB of answer the
// request's identifiers return, its body does not. Below, nothing changes.
TEST_F(ErrorMessages, ABigRequestIsAnsweredWithItsIdentifiersOnly)
{
    vlm::test::LogCapture log;
    state.setStationId("station-1");
    auto request = [](std::size_t filler) {
        return parse(R"({"api":"pushRoute","from":"app","target":"station-1","msgId":"42","seq":7,"type":"request",)"
                     R"("extra":")" + std::string(300, 'e') + R"(","message":{"msgId":"42","route":")" +
                     std::string(filler, 'w') + R"("}})");
    };
    const std::string small = Access::fullError(*plugin, "boom", *request(900 * 1024), PilotControlP::serviceCallFailed);
    auto kept = parse(small);
    EXPECT_EQ(kept->getObject("message")->getValue<std::string>("route").size(), 900u * 1024);
    EXPECT_EQ(kept->getValue<std::string>("extra").size(), 300u);
    EXPECT_EQ(state.errorEchoesTrimmed.load(), 0u);

    const std::string trimmed = Access::fullError(*plugin, "boom", *request(2u << 20), PilotControlP::serviceCallFailed);
    EXPECT_LT(trimmed.size(), 1024u);
    auto answer = parse(trimmed);
    expectFields(answer, {{"api", "pushRoute"}, {"msgId", "42"}, {"from", "station-1"}, {"target", "app"},
                          {"type", "response"}});
    EXPECT_EQ(answer->getValue<int>("seq"), 7);
    EXPECT_FALSE(answer->has("extra"));  // not an identifier
    auto inner = answer->getObject("message");
    ASSERT_TRUE(inner);
    expectFields(inner, {{"msgId", "42"}, {"msg", "boom"}, {"type", "response"}});
    EXPECT_EQ(inner->getValue<int>("code"), 4002);
    EXPECT_FALSE(inner->has("route"));
    EXPECT_EQ(state.errorEchoesTrimmed.load(), 1u);
    EXPECT_TRUE(log.contains("left the request out (1 so far)"));

    // Identifiers that are themselves big stay behind too.
    auto hostile = parse(R"({"msgId":")" + std::string(2u << 20, 'i') + R"(","from":")" + std::string(300, 'f') +
                         R"("})");
    auto answerToHostile = parse(Access::fullError(*plugin, "boom", *hostile, PilotControlP::vehicleNotConnected));
    EXPECT_FALSE(answerToHostile->has("msgId"));
    EXPECT_EQ(answerToHostile->getValue<std::string>("target"), "");
}

} // namespace
