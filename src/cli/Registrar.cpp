#include "Registrar.h"

#include <atomic>
#include <dlfcn.h>
#include <stdexcept>
#include <string>
#include <utility>

namespace ktr::cli {
namespace {

Registrar plain;
std::atomic<Registrar*> installed{&plain};

/// The library's function of the same name as one below.
template <class Function>
Function* nextCalled(const char* name) {
    auto* const found = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
    if (found == nullptr)
        throw std::runtime_error("libKetraPlugins.so lacks " + std::string(name) +
                                 "; install the libraries that this tool came with");
    return found;
}

} // namespace

void Registrar::registerPlugin(Factory factory, const char* guid) {
    static auto* const next = nextCalled<void(Factory, const char*)>(
        "_ZN3ktr14registerPluginESt8functionIFSt10shared_ptrINS_10PluginBaseEEvEEPKc");
    next(std::move(factory), guid);
}

void Registrar::unregisterPlugin(const char* guid) {
    static auto* const next = nextCalled<void(const char*)>("_ZN3ktr16unregisterPluginEPKc");
    next(guid);
}

void Registrar::install(Registrar& registrar) {
    installed = &registrar;
}

} // namespace ktr::cli

// The dynamic linker finds these before the library's, for the executable comes first;
// ketra.exports lets them out. So the tool stands between, and sees also those events that reach
// nobody.
namespace ktr {

void registerPlugin(std::function<std::shared_ptr<PluginBase>()> factory, const char* guid) {
    cli::installed.load()->registerPlugin(std::move(factory), guid);
}

void unregisterPlugin(const char* guid) {
    cli::installed.load()->unregisterPlugin(guid);
}

} // namespace ktr
