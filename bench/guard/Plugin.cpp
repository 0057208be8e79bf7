#include "ktr/PluginEntry.h"

namespace {

/// Of the library only the record is wanted: the program registers listeners of its own.
class Plugin final : public ktr::PluginBase {
    void stop() override {}
    void onMessage(std::string) override {}
};

} // namespace

KETRA_PLUGIN(Plugin, 1, "guard", GUARD_PLUGIN_GUID);
