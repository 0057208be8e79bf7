#include "ServiceLaunch.h"

#include <Poco/Exception.h>

#include <csignal>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

namespace ktr {
namespace {

// Set on the thread that launches a service, so that other forks of the process stay untouched.
thread_local bool launching = false;

void resetSignals() {
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    // refused for the few that cannot be changed
    for (int number = 1; number < NSIG; ++number)
        sigaction(number, &standard, nullptr);
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

void readFromNull() {
    const int null = open("/dev/null", O_RDONLY);
    if (null > STDIN_FILENO) {
        dup2(null, STDIN_FILENO);
        close(null);
    }
}

/// The service would take the first files that it opens for its outputs.
void replaceLostOutputs() {
    for (const int output : {STDOUT_FILENO, STDERR_FILENO}) {
        const int flags = fcntl(output, F_GETFD);
        if (flags >= 0 && (flags & FD_CLOEXEC) == 0)
            continue;
        const int null = open("/dev/null", O_WRONLY);
        if (null < 0 || null == output)
            continue;
        dup2(null, output);
        close(null);
    }
}

// Runs in the child between fork and exec: only async-signal-safe calls.
void prepareChild() {
    if (!launching)
        return;
    setpgid(0, 0);
    resetSignals();
    readFromNull();
    replaceLostOutputs();
}

struct Launching {
    Launching() { launching = true; }
    ~Launching() { launching = false; }
};

} // namespace

Poco::ProcessHandle launchService(const std::string& path, const Poco::Process::Args& arguments,
                                  const std::string& directory) {
    // Poco forks by itself and offers no hook of its own; a fork handler runs in the child.
    static const int registered = pthread_atfork(nullptr, nullptr, &prepareChild);
    if (registered != 0)
        throw Poco::SystemException("Cannot register the fork handler for", path, registered);
    const Launching scope;
    return Poco::Process::launch(path, arguments, directory);
}

} // namespace ktr
