// The library's function of the same name, before which the dynamic linker finds this one, for the
// executable comes first: so the tool stands between a plugin and the library, and sees also those
// events that reach nobody. ketra.exports lets it out.

#include "PluginWatch.h"

#include <dlfcn.h>
#include <stdexcept>
#include <utility>

namespace ktr {
namespace {

using Factory = std::function<std::shared_ptr<PluginBase>()>;

void registerAtLibrary(Factory factory, const char* guid) {
    constexpr const char* kName =
        "_ZN3ktr14registerPluginESt8functionIFSt10shared_ptrINS_10PluginBaseEEvEEPKc";
    static const auto next =
        reinterpret_cast<void (*)(Factory, const char*)>(dlsym(RTLD_NEXT, kName));
    if (next == nullptr)
        throw std::runtime_error("libKetraPlugins.so lacks registerPlugin; install the libraries "
                                 "that this tool came with");
    next(std::move(factory), guid);
}

} // namespace

void registerPlugin(Factory factory, const char* guid) {
    cli::PluginWatch* const watch = cli::PluginWatch::current();
    if (watch != nullptr && guid != nullptr)
        factory = watch->watched(std::move(factory), guid);
    registerAtLibrary(std::move(factory), guid);
}

} // namespace ktr
