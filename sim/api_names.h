#pragma once

// The API names the micro service serves: the same catalogue the plug-in
// forwards from, so the two agree on every name by construction.

#include <string>

namespace pilot_sim {

/// True for a name of the API catalogue (exact, case-sensitive). Any thread.
bool is_known_api(const std::string& name);

}  // namespace pilot_sim
