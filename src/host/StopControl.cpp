#include "StopControl.h"

#include "EmergencyEnd.h"
#include "ExitCode.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace ktr::host {
namespace {

int checked(int fd, const char* what) {
    if (fd < 0)
        throw std::system_error(errno, std::generic_category(), what);
    return fd;
}

} // namespace

sigset_t blockStopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    struct sigaction hangUp {};
    if (sigaction(SIGHUP, nullptr, &hangUp) == 0 && hangUp.sa_handler != SIG_IGN)
        sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

StopControl& StopControl::install(const sigset_t& signals, std::chrono::seconds timeout) {
    static auto* const control = new StopControl(signals, timeout);
    return *control;
}

StopControl::StopControl(const sigset_t& signals, std::chrono::seconds timeout_)
    : timeout(timeout_),
      signalFd(checked(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK), "signalfd")),
      wakeFd(checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")) {
    // what came while the options were read counts from here on
    takeSignal();
    std::thread([this] { watch(); }).detach();
}

void StopControl::enter(const char* step) {
    std::unique_lock<std::mutex> lock(mutex);
    // What hung may go on when the services are killed, but the end is decided: nobody waits here
    // for more than that.
    changed.wait(lock, [this] { return !givenUp; });
    currentStep = step;
}

// Does not log: the watching thread calls it, and the log may be what hangs.
void StopControl::request(const std::string& reason) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (stopping)
            return;
        stopping = true;
        firstReason = reason;
        deadline = std::chrono::steady_clock::now() + timeout;
    }
    changed.notify_all();
    eventfd_write(wakeFd, 1);
}

bool StopControl::requested() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return stopping;
}

std::string StopControl::reason() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return firstReason;
}

void StopControl::wait() {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [this] { return stopping; });
}

std::chrono::milliseconds StopControl::remaining() const {
    const std::lock_guard<std::mutex> lock(mutex);
    if (!stopping)
        return timeout;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    return std::max(left, std::chrono::milliseconds(0));
}

void StopControl::watch() {
    pthread_setname_np(pthread_self(), "stop-control");
    while (!requested() || remaining().count() > 0) {
        std::array<pollfd, 2> fds{{{signalFd, POLLIN, 0}, {wakeFd, POLLIN, 0}}};
        poll(fds.data(), fds.size(), pollTimeout());
        eventfd_t ignored = 0;
        eventfd_read(wakeFd, &ignored);
        takeSignal();
    }
    giveUp();
}

void StopControl::takeSignal() {
    signalfd_siginfo info{};
    if (read(signalFd, &info, sizeof info) != sizeof info)
        return;
    const char* name = sigabbrev_np(static_cast<int>(info.ssi_signo));
    request(std::string("SIG") + (name ? name : "?"));
}

int StopControl::pollTimeout() const {
    // rounded up, so that the deadline has passed when poll returns for it
    return requested() ? static_cast<int>(remaining().count()) + 1 : -1;
}

void StopControl::giveUp() {
    std::string step;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        givenUp = true;
        step = currentStep;
    }
    endAtOnce(ExitHung, "step '" + step + "' hangs: not ended " +
                            std::to_string(timeout.count() / 1000) +
                            " s after the host was told to; it ends now with code " +
                            std::to_string(ExitHung) +
                            "; the log's last lines tell who, --shutdown-timeout sets the time");
}

} // namespace ktr::host
