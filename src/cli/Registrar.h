#pragma once

#include "ktr/PluginBase.h"

#include <functional>
#include <memory>

namespace ktr::cli {

/// Takes what plugins hand to ktr::registerPlugin and ktr::unregisterPlugin, and may pass it on to
/// the library. Called by plugins, on any thread, several at once.
class Registrar {
public:
    using Factory = std::function<std::shared_ptr<PluginBase>()>;

    Registrar() = default;
    virtual ~Registrar() = default;
    Registrar(const Registrar&) = delete;
    Registrar& operator=(const Registrar&) = delete;

    /// These pass on all, as the library documents it.
    virtual void registerPlugin(Factory factory, const char* guid);
    virtual void unregisterPlugin(const char* guid);

    /// Stands between plugins and the library from now on, until the process ends.
    static void install(Registrar& registrar);
};

} // namespace ktr::cli
