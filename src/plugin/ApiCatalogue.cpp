#include "ApiCatalogue.h"

#include <stdexcept>

#include "ServiceTopics.h"

namespace vlm {
namespace {

struct CategoryRange {
    int first;
    int last;
    const char* category;
};

// Tested in this order; the ranges do not overlap, so the order only matters
// for a number in none of them, which has no category.
constexpr CategoryRange categoryRanges[] = {
    {116, 122, "dataPlayback"},  {125, 132, "electronicFence"}, {103, 113, "firmwareUpdate"},
    {27, 100, "flightControl"},  {245, 305, "multiRotor"},      {138, 242, "project"},
    // "telementry" is the service's own spelling of its handler.
    {2, 24, "telementry"},
};

ApiCatalogue buildCatalogue()
{
    static const std::pair<const char*, int> entries[] = {
#include "ApiCatalogueData.inc"
    };
    ApiCatalogue catalogue;
    for (const auto& entry : entries)
        catalogue.insert_or_assign(entry.first, entry.second);
    return catalogue;
}

} // namespace

// Both tables are built once on first use (the compiler guards that) and never
// written again, so lookups from any thread need no lock.
const ApiCatalogue& apiCatalogue()
{
    static const ApiCatalogue catalogue = buildCatalogue();
    return catalogue;
}

const ServiceFunctionTable& serviceFunctionTable()
{
    static const ServiceFunctionTable table = {
        {0, serviceTopics::responseToCloud}, {1, "publishToGround"}, {2, serviceTopics::toMicroService},
        {3, "setDatDirPath"},   {4, "setPhotoCount"},   {5, "setApmode"},
    };
    return table;
}

const std::string& serviceFunctionName(int key)
{
    const ServiceFunctionTable& table = serviceFunctionTable();
    auto it = table.find(key);
    if (it == table.end())
        throw std::out_of_range("invalid map<K, T> key");
    return it->second;
}

std::optional<int> apiNumber(const std::string& name)
{
    const ApiCatalogue& catalogue = apiCatalogue();
    auto it = catalogue.find(name);
    if (it == catalogue.end())
        return std::nullopt;
    return it->second;
}

std::optional<std::string> apiCategory(int number)
{
    for (const auto& range : categoryRanges) {
        if (number >= range.first && number <= range.last)
            return std::string(range.category);
    }
    return std::nullopt;
}

bool isStreamingApi(int number)
{
    return number == api::pushTelemetry || number == api::updateProgress || number == api::softUpdateStatus ||
           number == api::getUpdateProgress || number == api::updateMagneticCompassCali;
}

bool worksWithoutVehicle(int number)
{
    return number >= 9 && number <= 24;
}

} // namespace vlm
