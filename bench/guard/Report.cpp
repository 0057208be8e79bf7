#include "Count.h"
#include "Host.h"
#include "Paths.h"

namespace ktr::bench {

void countReport() {
    constexpr int reports = 50;
    Host host;
    host.startPlugins(1);
    count(reports, [&] {
        for (int i = 0; i < reports; ++i)
            host.report();
    });
}

} // namespace ktr::bench
