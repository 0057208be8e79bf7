#include "Count.h"
#include "Host.h"
#include "Paths.h"

#include "ktr/PluginManager.h"

namespace ktr::bench {

void countLoading() {
    constexpr int plugins = 50;
    const Host host;
    host.putPlugins(plugins);
    count(plugins, PluginLoadAll);
}

} // namespace ktr::bench
