#include "ExitGuard.h"

#include "EmergencyEnd.h"

#include <atomic>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace ktr::host {
namespace {

/// The process that is guarded; what it forks may end as it likes.
std::atomic<pid_t> guarded{0};

void refuseExit() {
    if (guarded.exchange(0) == getpid())
        endAtOnce(ExitSoftware, "somebody within the host, most likely a plugin, called exit(); "
                                "it ends now with code " +
                                    std::to_string(ExitSoftware) +
                                    "; the log's last lines tell who");
}

} // namespace

void ExitGuard::goFirst() {
    guarded = getpid();
    // a second registration does no harm: the first call disarms
    std::atexit(&refuseExit);
}

ExitGuard::~ExitGuard() {
    guarded = 0;
}

} // namespace ktr::host
