// Compiles as it stands. Each of the macros that a test defines puts a fault in.
#include <ktr/PluginEntry.h>

namespace {

#ifdef NO_PLUGIN_BASE
class Plugin {
#else
class Plugin : public ktr::PluginBase {
#endif
public:
#ifdef NEEDS_ARGUMENT
    explicit Plugin(int) {}
#endif
#ifndef NO_STOP
#ifdef NO_PLUGIN_BASE
    void stop() {}
    void onMessage(std::string) {}
#else
    void stop() override {}
    void onMessage(std::string) override {}
#endif
#endif
};

} // namespace

#ifndef TYPE
#define TYPE -2147483648LL
#endif
#ifndef NAME
#define NAME "entry"
#endif
#ifndef GUID
#define GUID "0c2f6b9e-5d0a-4c55-9f6b-3f1f0d3c7a11"
#endif

KETRA_PLUGIN(Plugin, TYPE, NAME, GUID);
