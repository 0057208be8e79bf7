// The library under which the test kit files its listeners: the registry knows records only by the
// guid of a library that it has loaded. It is loaded once for each listener.

#include "ktr/Export.h"

#include <cstdint>
#include <string>

namespace {

std::string& guid() {
    static std::string text;
    return text;
}

} // namespace

extern "C" {

/// What PluginGuid answers from now on.
KTR_API void ketraSpyAnswer(const char* text) {
    guid() = text;
}

// the kit registers the factory
KTR_API void PluginLoad() {}

KTR_API void PluginUnLoad() {}

KTR_API std::int32_t PluginType() {
    return 0;
}

KTR_API const char* PluginName() {
    return "test kit's listener";
}

KTR_API const char* PluginGuid() {
    return guid().c_str();
}
}
