#include "FreshProcess.h"

#include <array>
#include <cerrno>
#include <ctime>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace ktr::bench {
namespace {

/// Static objects are left to the parent.
[[noreturn]] void answer(int pipe, const std::function<double()>& work) {
    try {
        const double value = work();
        _exit(write(pipe, &value, sizeof value) == sizeof value ? 0 : 1);
    } catch (const std::exception& e) {
        std::cerr << e.what() << std::endl;
        _exit(1);
    }
}

double processorTime() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

} // namespace

double inFreshProcess(const std::function<double()>& work) {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0)
        throw std::runtime_error("no pipe");
    const pid_t child = fork();
    if (child == 0)
        answer(ends[1], work);
    close(ends[1]);
    double value = 0;
    const bool answered = read(ends[0], &value, sizeof value) == sizeof value;
    close(ends[0]);
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    if (!answered)
        throw std::runtime_error("the child process failed");
    return value;
}

double secondsOf(const std::function<void()>& work) {
    const double begin = processorTime();
    work();
    return processorTime() - begin;
}

} // namespace ktr::bench
