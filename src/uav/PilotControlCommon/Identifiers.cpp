#include "PilotControlCommon.h"

namespace vlm {

std::string pluginGuidString()
{
    return "{D639B3D5-A951-4BC7-A629-91255EBF9638}";
}

std::string topicGuidAppTypeZero()
{
    return "FBE242B9-B226-4401-A340-36ABD4D753AD";
}

std::string topicGuidAppTypeOther()
{
    return "C5E96E6B-8087-4F06-944F-025A84F27DE4";
}

std::string notificationName()
{
    return "PilotNotification";
}

} // namespace vlm
