// A plug-in's API list as the host reads it: the text it parses, and the
// optional exported function it looks for in a loaded library.

#include <gtest/gtest.h>

#include "app/openapi/PluginApiList.h"

namespace {

using vlm::host::parsePluginApiList;
using vlm::host::PluginApiListError;

std::string entry(const std::string& members)
{
    return R"({"apis": [{)" + members + "}]}";
}

const char* const goodMembers = R"("name": "pushRoute", "number": 27, "category": "flightControl",
    "streaming": false, "needsVehicle": true, "httpPath": "/index/api/pilot/pushRoute")";

TEST(PluginApiListText, AnEntryKeepsEveryFieldAndNullMeansNone)
{
    const auto apis = parsePluginApiList(R"({"apis": [{)" + std::string(goodMembers) + R"(},
        {"name": "getPhotoCount", "number": 309, "category": null, "streaming": true, "needsVehicle": false,
         "httpPath": null}]})");
    ASSERT_EQ(apis.size(), 2u);
    EXPECT_EQ(apis[0].name, "pushRoute");
    EXPECT_EQ(apis[0].number, 27);
    EXPECT_EQ(apis[0].category, "flightControl");
    EXPECT_FALSE(apis[0].streaming);
    EXPECT_TRUE(apis[0].needsVehicle);
    EXPECT_EQ(apis[0].httpPath, "/index/api/pilot/pushRoute");
    EXPECT_TRUE(apis[1].streaming);
    EXPECT_FALSE(apis[1].needsVehicle);
    EXPECT_FALSE(apis[1].category);
    EXPECT_FALSE(apis[1].httpPath);
    EXPECT_TRUE(parsePluginApiList(R"({"apis": []})").empty());
}

// Each malformed list is refused with a reason that names what is wrong.
TEST(PluginApiListText, MalformedListsAreRefusedWithTheReason)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"{\"apis\": [", "not JSON"},
        {"[1, 2]", "\"apis\" array"},
        {R"({"apis": {}})", "\"apis\" array"},
        {R"({"apis": [7]})", "entry 0 is not an object"},
        {entry(R"("number": 2, "streaming": false, "needsVehicle": true)"), "\"name\" must be a string"},
        {entry(R"("name": "", "number": 2, "streaming": false, "needsVehicle": true)"), "\"name\" is empty"},
        {entry(R"("name": "a", "number": "2", "streaming": false, "needsVehicle": true)"),
         "\"number\" must be an integer"},
        {entry(R"("name": "a", "number": 2, "streaming": 1, "needsVehicle": true)"),
         "\"streaming\" must be true or false"},
        {entry(R"("name": "a", "number": 2, "streaming": false)"), "\"needsVehicle\" must be true or false"},
        {entry(R"("name": "a", "number": 2, "category": 5, "streaming": false, "needsVehicle": true)"),
         "\"category\" must be a string or null"},
        {entry(R"("name": "a", "number": 2, "streaming": false, "needsVehicle": true, "httpPath": "x/a")"),
         "\"httpPath\" must start with '/'"},
        {entry(R"("name": "a", "number": 99999999999, "streaming": false, "needsVehicle": true)"), "out of range"},
        {R"({"apis": [{"name": "a", "number": 2, "streaming": false, "needsVehicle": true},
                      {"name": "a", "number": 3, "streaming": false, "needsVehicle": true}]})",
         "entry 1 (\"a\"): the name occurs twice"},
    };
    for (const auto& [text, reason] : cases) {
        try {
            parsePluginApiList(text);
            ADD_FAILURE() << "accepted: " << text;
        } catch (const PluginApiListError& e) {
            EXPECT_NE(std::string(e.what()).find(reason), std::string::npos) << e.what() << "\nfor: " << text;
        }
    }
}

TEST(PluginApiListLibrary, ThePilotPluginExportsItsListAndOtherLibrariesHaveNone)
{
    Poco::SharedLibrary plugin(VELMORA_PILOT_PLUGIN, Poco::SharedLibrary::SHLIB_LOCAL);
    const auto text = vlm::host::readPluginApiListText(plugin);
    ASSERT_TRUE(text);
    EXPECT_EQ(parsePluginApiList(*text).size(), 288u);

    Poco::SharedLibrary other(VELMORA_NON_PLUGIN_LIBRARY, Poco::SharedLibrary::SHLIB_LOCAL);
    EXPECT_FALSE(vlm::host::readPluginApiListText(other));
}

} // namespace
