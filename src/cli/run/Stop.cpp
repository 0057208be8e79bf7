#include "Stop.h"

#include "../ExitCode.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <sys/eventfd.h>

namespace ktr::cli {
namespace {

// read by the handler: no statics that are made at the first use
std::atomic<bool> requested{false};
std::atomic<int> descriptor{-1};

void onSignal(int) {
    const int kept = errno;
    requestStop();
    errno = kept;
}

} // namespace

void takeStopSignals() {
    descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (descriptor < 0)
        throw Failure(ExitSystem, "no descriptor left; raise the limit of open files");
    struct sigaction action {};
    action.sa_handler = onSignal;
    action.sa_flags = SA_RESTART;
    sigset_t taken;
    sigemptyset(&taken);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction former {};
        sigaction(number, nullptr, &former);
        // under nohup it goes on
        if (number == SIGHUP && former.sa_handler == SIG_IGN)
            continue;
        sigaction(number, &action, nullptr);
        sigaddset(&taken, number);
    }
    pthread_sigmask(SIG_UNBLOCK, &taken, nullptr);
}

void requestStop() {
    requested = true;
    eventfd_write(descriptor, 1);
}

bool stopRequested() {
    return requested;
}

int stopDescriptor() {
    return descriptor;
}

} // namespace ktr::cli
