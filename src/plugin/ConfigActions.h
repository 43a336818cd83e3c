#pragma once

// The station's configuration routines (restore defaults, back up the
// configuration file, merge the hangar file, ping a host), offered to the
// host. Apart from the five entry points, the library exports one more C
// function for them:
//
//     extern "C" size_t PluginConfigAction(const char* action, const char* argument,
//                                          char* buffer, size_t size);
//
// Contract:
// - `action` is one of the names below; `argument` may be null (read as "").
// - It runs the routine once, on the caller's thread, and writes its answer
//   (JSON text, below) into `buffer` as snprintf does: at most `size - 1`
//   bytes and a terminating NUL, and returns the length of the whole answer
//   without the NUL. Unlike a report, an action is not repeated to fetch a
//   longer answer: give at least 4096 bytes; a cut answer is the caller's loss.
// - It never throws; unknown actions and arguments are answered, not raised.
// - The routines work on the host's configuration (configInstance()) and its
//   saveConfig(); the caller serializes actions (one at a time).
//
// Actions and answers. Every answer has "ok" and "errors": the error lines
// the routine logged while it ran, in order (the routines report every
// failure that way and return nothing); "ok" is true when there were none.
// An unknown action is {"ok": false, "errors": ["unknown action ..."]}.
//   "reset-defaults"  argument "". resetConfigDefaults(); does not save, as
//                     the routine does not: the caller saves when it wants.
//                     {"ok": true, "errors": []}
//   "backup"          argument "". backupConfigFile() on its fixed folder.
//                     {"ok", "source", "target", "errors"}.
//   "load-hangar"     argument: the hangar file, "" for the fixed one.
//                     loadHangarConfig(). {"ok", "hangar_file", "changed",
//                     "errors"}; "changed": whether a setting was changed (and
//                     so saved).
//   "ping"            argument: the address. pingHost().
//                     {"ok", "address", "answered", "errors"} and, when no
//                     answer came, "reason"; ok is "answered".

#include <string>

namespace vlm {

/// The JSON answer above. Any thread; never throws.
std::string runConfigAction(const std::string& action, const std::string& argument);

} // namespace vlm
