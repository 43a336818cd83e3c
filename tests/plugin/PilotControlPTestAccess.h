#pragma once

#include "PilotControlP.h"
#include "PilotControlPImpl.h"

namespace vlm {

/// Reaches the private operations of PilotControlP, for tests only.
class PilotControlPTestAccess {
public:
    static PilotControlPImpl& impl(PilotControlP& p) { return *p.impl; }

    static std::string shortError(PilotControlP& p, const std::string& text, PilotControlP::ErrorCode code)
    {
        return p.makeErrorMsg(text, code);
    }
    static std::string fullError(PilotControlP& p, const std::string& text, const Poco::JSON::Object& request,
                                 PilotControlP::ErrorCode code)
    {
        return p.makeErrorMsg(text, request, code);
    }
};

} // namespace vlm
