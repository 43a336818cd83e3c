#include <Poco/Net/ICMPClient.h>

#include "PilotControlCommon.h"
#include "PilotControlLog.h"

namespace vlm {

bool pingHost(const std::string& ip)
{
    try {
        // POCO takes the reply time-out in microseconds: this is 2000 ms.
        const int replies = Poco::Net::ICMPClient::pingIPv4(ip, 1, 48, 128, 2000 * 1000);
        return replies == 1;
    } catch (const Poco::Exception& e) {
        PCC_LOG_ERROR("ping failed: %s, ip: %s", e.displayText().c_str(), ip.c_str());
    } catch (const std::exception& e) {
        PCC_LOG_ERROR("ping failed: %s, ip: %s", e.what(), ip.c_str());
    }
    return false;
}

} // namespace vlm
