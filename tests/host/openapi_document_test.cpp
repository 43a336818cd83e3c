// The API description built from route tables and API lists made up for each
// case; the real plug-in and server are in api_description_route_test.cpp.

#include <set>

#include <gtest/gtest.h>

#include "app/console/ConsoleRoute.h"
#include "app/openapi/OpenApiDocument.h"

namespace {

using namespace vlm::host;
using Poco::JSON::Object;

PluginApi api(std::string name, int number, std::optional<std::string> category, bool streaming, bool needsVehicle,
              bool withPath = true)
{
    PluginApi result;
    result.name = name;
    result.number = number;
    result.category = std::move(category);
    result.streaming = streaming;
    result.needsVehicle = needsVehicle;
    if (withPath)
        result.httpPath = "/api/" + name;
    return result;
}

class OpenApiDocumentTest : public ::testing::Test {
protected:
    OpenApiDocumentTest()
    {
        inputs.version = "9.8.7";
        inputs.plugins.push_back(PluginApiList{"PluginA",
                                               "{A}",
                                               {api("getThing", 3, "telementry", false, false),
                                                api("pushThing", 2, "telementry", true, true),
                                                api("flyThing", 30, "flightControl", false, true),
                                                api("oddThing", 135, std::nullopt, false, true),
                                                api("hiddenThing", 308, std::nullopt, false, true, false),
                                                api("notServed", 40, "flightControl", false, true)}});
        inputs.registeredPaths = {"/api/getThing", "/api/pushThing", "/api/flyThing", "/api/oddThing",
                                  "/other/plugin/route", "/host/health", "/host/bus", "/host/openapi.json"};
        for (const auto& route : consoleRoutes())
            inputs.registeredPaths.push_back(route.path);
    }

    Object::Ptr build() { return buildOpenApiDocument(inputs); }

    static Object::Ptr operation(const Object::Ptr& document, const std::string& path, const std::string& method)
    {
        const auto item = document->getObject("paths")->getObject(path);
        return item ? item->getObject(method) : nullptr;
    }

    OpenApiInputs inputs;
};

TEST_F(OpenApiDocumentTest, DescribesExactlyTheRegisteredPaths)
{
    const auto document = build();
    std::set<std::string> described;
    for (const auto& path : document->getObject("paths")->getNames())
        described.insert(path);
    EXPECT_EQ(described, std::set<std::string>(inputs.registeredPaths.begin(), inputs.registeredPaths.end()));
    EXPECT_EQ(document->getValue<std::string>("openapi"), "3.0.3");
    EXPECT_EQ(document->getObject("info")->getValue<std::string>("version"), "9.8.7");

    // What the plug-in lists but the server does not serve is named apart.
    const auto plugin = document->getArray("x-velmora-plugins")->getObject(0);
    EXPECT_EQ(plugin->getValue<int>("apis"), 6);
    EXPECT_EQ(plugin->getValue<int>("endpoints"), 4);
    const auto missing = plugin->getArray("apisWithoutEndpoint");
    ASSERT_EQ(missing->size(), 2u);
    EXPECT_EQ(missing->getElement<std::string>(0), "hiddenThing");
    EXPECT_EQ(missing->getElement<std::string>(1), "notServed");
}

TEST_F(OpenApiDocumentTest, AStreamIsAGetAnsweredWithAnEventStream)
{
    const auto document = build();
    const auto stream = operation(document, "/api/pushThing", "get");
    ASSERT_TRUE(stream);
    EXPECT_FALSE(operation(document, "/api/pushThing", "post"));
    EXPECT_TRUE(stream->getValue<bool>("x-velmora-streaming"));
    EXPECT_FALSE(stream->has("requestBody"));
    const auto content = stream->getObject("responses")->getObject("200")->getObject("content");
    EXPECT_TRUE(content->has("text/event-stream"));
    EXPECT_TRUE(content->has("application/json")) << "the refusal without a vehicle";
}

TEST_F(OpenApiDocumentTest, ARequestTakesTheEnvelopeAndNamesItsErrorAnswers)
{
    const auto document = build();
    const auto request = operation(document, "/api/flyThing", "post");
    ASSERT_TRUE(request);
    EXPECT_FALSE(request->getValue<bool>("x-velmora-streaming"));
    EXPECT_TRUE(request->getValue<bool>("x-velmora-needs-vehicle"));
    EXPECT_EQ(request->getValue<int>("x-velmora-api-number"), 30);
    EXPECT_EQ(request->getArray("tags")->getElement<std::string>(0), "flightControl");
    EXPECT_NE(request->getValue<std::string>("description").find("4001"), std::string::npos);
    EXPECT_EQ(request->getObject("requestBody")->getValue<std::string>("$ref"), "#/components/requestBodies/Envelope");
    const auto responses = request->getObject("responses");
    for (const char* status : {"200", "400", "413", "500", "503"})
        EXPECT_TRUE(responses->has(status)) << status;
    EXPECT_FALSE(responses->has("401")) << "no token configured";

    const auto free = operation(document, "/api/getThing", "post");
    EXPECT_FALSE(free->getValue<bool>("x-velmora-needs-vehicle"));
    EXPECT_EQ(free->getValue<std::string>("description").find("4001"), std::string::npos);

    const auto shortError = document->getObject("components")->getObject("schemas")->getObject("ShortError");
    const auto codes = shortError->getObject("properties")->getObject("code")->getArray("enum");
    EXPECT_EQ(codes->getElement<int>(0), -1);
    EXPECT_EQ(codes->getElement<int>(1), 4001);
}

TEST_F(OpenApiDocumentTest, UncategorisedAndUnlistedEndpointsGetTagsOfTheirOwn)
{
    const auto document = build();
    const auto odd = operation(document, "/api/oddThing", "post");
    EXPECT_EQ(odd->getArray("tags")->getElement<std::string>(0), "no category");
    EXPECT_TRUE(odd->isNull("x-velmora-category"));
    const auto unlisted = operation(document, "/other/plugin/route", "post");
    ASSERT_TRUE(unlisted);
    EXPECT_EQ(unlisted->getArray("tags")->getElement<std::string>(0), "other");

    std::vector<std::string> tags;
    const auto list = document->getArray("tags");
    for (std::size_t i = 0; i < list->size(); ++i)
        tags.push_back(list->getObject(static_cast<unsigned>(i))->getValue<std::string>("name"));
    // Host first, then the categories by their lowest API number.
    EXPECT_EQ(tags, (std::vector<std::string>{"host", "console", "telementry", "flightControl", "no category",
                                              "other"}));
}

TEST_F(OpenApiDocumentTest, WithATokenEveryRouteButTheConsoleFilesNeedsIt)
{
    inputs.tokenRequired = true;
    const auto document = build();
    const auto security = document->getArray("security");
    ASSERT_TRUE(security);
    EXPECT_TRUE(security->getObject(0)->has("bearerToken"));
    EXPECT_TRUE(operation(document, "/api/flyThing", "post")->getObject("responses")->has("401"));
    EXPECT_TRUE(operation(document, "/host/health", "get")->getObject("responses")->has("401"));

    const auto page = operation(document, consolePath, "get");
    ASSERT_TRUE(page);
    EXPECT_EQ(page->getArray("security")->size(), 0u);
    EXPECT_FALSE(page->getObject("responses")->has("401"));
    EXPECT_TRUE(document->getObject("components")->getObject("responses")->has("Unauthorized"));
}

TEST_F(OpenApiDocumentTest, TwoPluginsWithOneApiNameGetDistinctOperationIds)
{
    inputs.plugins.push_back(PluginApiList{"PluginB", "{B}", {api("getThing", 3, "telementry", false, false)}});
    inputs.plugins.back().apis[0].httpPath = "/b/getThing";
    inputs.registeredPaths.push_back("/b/getThing");
    const auto document = build();
    const auto first = operation(document, "/api/getThing", "post")->getValue<std::string>("operationId");
    const auto second = operation(document, "/b/getThing", "post")->getValue<std::string>("operationId");
    EXPECT_NE(first, second);
    EXPECT_EQ(operation(document, "/b/getThing", "post")->getValue<std::string>("x-velmora-plugin"), "PluginB");
}

} // namespace
