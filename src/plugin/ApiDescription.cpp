#include "ApiDescription.h"

#include <algorithm>
#include <sstream>
#include <utility>
#include <vector>

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>

#include "ApiCatalogue.h"
#include "PluginTexts.h"
#include "VelmoraExport.h"

namespace vlm {

std::string describeApis()
{
    // The catalogue is ordered by name; readers of a description expect the
    // numbers, which also group the categories.
    std::vector<std::pair<int, std::string>> byNumber;
    for (const auto& [name, number] : apiCatalogue())
        byNumber.emplace_back(number, name);
    std::sort(byNumber.begin(), byNumber.end());

    Poco::JSON::Array::Ptr apis = new Poco::JSON::Array;
    for (const auto& [number, name] : byNumber) {
        Poco::JSON::Object::Ptr entry = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
        entry->set("name", name);
        entry->set("number", number);
        const auto category = apiCategory(number);
        entry->set("category", category ? Poco::Dynamic::Var(*category) : Poco::Dynamic::Var());
        entry->set("streaming", isStreamingApi(number));
        entry->set("needsVehicle", !worksWithoutVehicle(number));
        if (number < api::httpRegistrationLimit)
            entry->set("httpPath", texts::httpApiPathPrefix + name);
        else
            entry->set("httpPath", Poco::Dynamic::Var());
        apis->add(entry);
    }
    Poco::JSON::Object description(Poco::JSON_PRESERVE_KEY_ORDER);
    description.set("apis", apis);
    std::ostringstream out;
    description.stringify(out);
    return out.str();
}

} // namespace vlm

extern "C" VLM_EXPORT const char* PluginApiCatalogue()
{
    // Built once; the host may call from any thread.
    static const std::string text = vlm::describeApis();
    return text.c_str();
}
