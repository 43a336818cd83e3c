// Link type: reading it from a request, announcing a change on the host bus,
// and the micro service's vehicle online reports.

#include <Poco/JSON/Array.h>

#include "PilotControlP.h"
#include "PilotControlPImpl.h"
#include "PluginTexts.h"
#include "ServiceTopics.h"
#include "VelmoraCommon.h"
#include "rpc/rpc_client.h"
#include "uav/PilotControlCommon/PilotControlCommon.h"
#include "uav/PilotControlCommon/PilotControlLog.h"

namespace vlm {

unsigned int PilotControlP::getLinkType(const Poco::JSON::Object& request)
{
    if (!request.has("message")) {
        PCP_LOG_ERROR("request not exist message");
        return 0;
    }
    auto message = request.getObject("message");
    if (!message || !message->has("data")) {
        PCP_LOG_ERROR("request not exist data");
        return 0;
    }
    auto data = message->getObject("data");
    if (data && data->has("link"))
        return data->getValue<unsigned int>("link");
    return 0;
}

void PilotControlP::notifyLinkTypeChange(unsigned int linkType)
{
    PCP_LOG_INFO("notifyLinkTypeChange linkType: %d", static_cast<int>(linkType));
    if (!callback)
        return;

    Poco::JSON::Object data(Poco::JSON_PRESERVE_KEY_ORDER);
    data.set("linkType", linkType);
    Poco::JSON::Array to;
    to.add(texts::gimbalPluginGuid);
    to.add(pluginGuidString());
    to.add(texts::linkPluginGuid);
    to.add(texts::gimbalPeerPluginGuid);

    // "msg_id" and "seq" are fixed for this notice; receivers key on them.
    Poco::JSON::Object notice(Poco::JSON_PRESERVE_KEY_ORDER);
    notice.set("api", texts::switchLink);
    notice.set("data", data);
    notice.set("guid", texts::linkNoticeSenderGuid);
    notice.set("interface", texts::switchLink);
    notice.set("msg_id", 900);
    notice.set("seq", 1);
    notice.set("to", to);
    callback(jsonToString(notice));
}

void PilotControlP::procLinkSwitch(const Poco::JSON::Object& request) {}

void PilotControlP::rpcSubscribeVehicleOnlineStatus()
{
    auto client = impl->subscriptionClient();
    if (!client)
        return;
    std::weak_ptr<PilotControlP> weakSelf = impl->self;
    client->subscribe(serviceTopics::vehicleOnlineStatus, [weakSelf](std::string_view data) {
        if (auto self = weakSelf.lock())
            self->handleVehicleOnlineStatus(data);
    });
}

void PilotControlP::handleVehicleOnlineStatus(std::string_view data)
{
    const std::string text(data);
    PCP_LOG_INFO("vehicleOnlineStatus %s linktype: %d", text.c_str(), impl->linkType.load());
}

} // namespace vlm
