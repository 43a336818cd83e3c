#pragma once

// Loading one plug-in library the way every Velmora host does: open it, check
// the five entry points, read its identity, let it register its factory and
// make one instance through the registry.

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <Poco/SharedLibrary.h>

#include "PluginBase.h"

namespace vlm::host {

/// Why a library could not be made into a plug-in; the text says it fully.
class PluginLoadError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The five functions every plug-in library exports under these plain names.
struct PluginEntryPoints {
    const char* (*name)() = nullptr;
    int (*type)() = nullptr;
    const char* (*guid)() = nullptr;
    void (*load)() = nullptr;
    void (*unload)() = nullptr;
};

/// The entry point names, in the order above.
extern const char* const pluginEntryPointNames[5];

/// A loaded library with its registered factory and one instance made from it.
struct LoadedPlugin {
    std::string libraryPath;
    std::string name;
    int type = 0;
    /// As the library reports it (braces and case kept).
    std::string guid;
    PluginEntryPoints entry;
    std::shared_ptr<PluginBase> instance;
    /// Kept open for the rest of the process (see PluginLoader.cpp).
    std::shared_ptr<Poco::SharedLibrary> library;
};

/// Loads the first of `candidates` that exists (all of them are named in the
/// error when none does), checks the five entry points, calls PluginLoad and
/// creates the instance through the registry under the plug-in's GUID. On any
/// failure after PluginLoad, PluginUnLoad is called before the error is
/// thrown. Throws PluginLoadError. Runs on the caller's thread.
LoadedPlugin loadPlugin(const std::vector<std::string>& candidates);

} // namespace vlm::host
