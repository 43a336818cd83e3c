// The API list the plug-in library exports for hosts that describe their
// endpoints, read through the exported C function as a host reads it.

#include <dlfcn.h>

#include <map>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include "ApiCatalogue.h"

namespace {

class ExportedApiList : public ::testing::Test {
protected:
    void SetUp() override
    {
        handle = dlopen(PLUGIN_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(handle, nullptr) << dlerror();
        function = reinterpret_cast<const char* (*)()>(dlsym(handle, "PluginApiCatalogue"));
        ASSERT_NE(function, nullptr) << "PluginApiCatalogue is not exported";
        const char* text = function();
        ASSERT_NE(text, nullptr);
        Poco::JSON::Object::Ptr document = Poco::JSON::Parser().parse(text).extract<Poco::JSON::Object::Ptr>();
        apis = document->getArray("apis");
        ASSERT_TRUE(apis);
        for (std::size_t i = 0; i < apis->size(); ++i) {
            auto entry = apis->getObject(static_cast<unsigned>(i));
            ASSERT_TRUE(entry) << "entry " << i << " is not an object";
            byName[entry->getValue<std::string>("name")] = entry;
        }
    }
    void TearDown() override
    {
        if (handle)
            dlclose(handle);
    }

    void* handle = nullptr;
    const char* (*function)() = nullptr;
    Poco::JSON::Array::Ptr apis;
    std::map<std::string, Poco::JSON::Object::Ptr> byName;
};

TEST_F(ExportedApiList, ListsEveryCatalogueApiOnceInAscendingNumberWithTheCatalogueNumbers)
{
    ASSERT_EQ(apis->size(), 288u);
    EXPECT_EQ(byName.size(), 288u) << "a name occurs twice";
    int previous = 0;
    for (std::size_t i = 0; i < apis->size(); ++i) {
        const auto entry = apis->getObject(static_cast<unsigned>(i));
        const auto name = entry->getValue<std::string>("name");
        const int number = entry->getValue<int>("number");
        EXPECT_GT(number, previous) << name;
        previous = number;
        EXPECT_EQ(vlm::apiNumber(name), number) << name;
    }
}

TEST_F(ExportedApiList, HttpPathsStopAtTheRegistrationLimitAndFollowThePrefix)
{
    int withPath = 0;
    for (const auto& [name, entry] : byName) {
        const int number = entry->getValue<int>("number");
        if (number < vlm::api::httpRegistrationLimit) {
            ++withPath;
            EXPECT_EQ(entry->getValue<std::string>("httpPath"), "/index/api/pilot/" + name);
        } else {
            EXPECT_TRUE(entry->isNull("httpPath")) << name;
        }
    }
    EXPECT_EQ(withPath, 285);
    EXPECT_TRUE(byName.at("getPhotoCount")->isNull("httpPath"));
    EXPECT_EQ(byName.at("pushRoute")->getValue<std::string>("httpPath"), "/index/api/pilot/pushRoute");
}

TEST_F(ExportedApiList, MarksTheFiveStreamsTheCategoriesAndTheVehicleRule)
{
    std::set<std::string> streams;
    for (const auto& [name, entry] : byName) {
        if (entry->getValue<bool>("streaming"))
            streams.insert(name);
    }
    EXPECT_EQ(streams, (std::set<std::string>{"pushTelemetry", "updateProgress", "softUpdateStatus",
                                              "getUpdateProgress", "updateMagneticCompassCali"}));

    EXPECT_EQ(byName.at("pushTelemetry")->getValue<std::string>("category"), "telementry");
    EXPECT_EQ(byName.at("getHLT")->getValue<std::string>("category"), "multiRotor");
    EXPECT_EQ(byName.at("setTxWifiCmd")->getValue<std::string>("category"), "project");
    EXPECT_TRUE(byName.at("hangerImageTransSwitch")->isNull("category"));
    EXPECT_FALSE(byName.at("hangerImageTransSwitch")->isNull("httpPath"));

    EXPECT_FALSE(byName.at("getConfig")->getValue<bool>("needsVehicle"));
    EXPECT_FALSE(byName.at("updateStationSetting")->getValue<bool>("needsVehicle"));
    EXPECT_FALSE(byName.at("payloadOnlineStatus")->getValue<bool>("needsVehicle"));
    EXPECT_TRUE(byName.at("setPowerBatteryHeatModel")->getValue<bool>("needsVehicle"));
    EXPECT_TRUE(byName.at("pushRoute")->getValue<bool>("needsVehicle"));
}

TEST_F(ExportedApiList, TheTextStaysTheSameForEveryCall)
{
    const char* first = function();
    EXPECT_EQ(function(), first) << "the host may keep the pointer while the library is loaded";
}

} // namespace
