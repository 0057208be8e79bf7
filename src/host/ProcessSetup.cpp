#include "ProcessSetup.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace ktr::host {
namespace {

constexpr rlim_t kOpenFiles = 4096;

void openStandardDescriptors() {
    int fd = 0;
    do
        fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    while (fd >= 0 && fd <= STDERR_FILENO && fcntl(fd, F_SETFD, 0) == 0);
    if (fd >= 0)
        close(fd);
}

void limitDescriptors() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = std::min(limit.rlim_max, kOpenFiles);
    setrlimit(RLIMIT_NOFILE, &limit);
}

} // namespace

void setUpProcess() {
    openStandardDescriptors();
    limitDescriptors();
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGCHLD, SIG_DFL);
}

KeepCrashHandlers::KeepCrashHandlers() {
    for (std::size_t i = 0; i < signals.size(); ++i)
        sigaction(signals[i], nullptr, &kept[i]);
}

KeepCrashHandlers::~KeepCrashHandlers() {
    for (std::size_t i = 0; i < signals.size(); ++i)
        sigaction(signals[i], &kept[i], nullptr);
}

KeepStandardDescriptors::KeepStandardDescriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        kept.at(static_cast<std::size_t>(fd)) = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

KeepStandardDescriptors::~KeepStandardDescriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        const int copy = kept.at(static_cast<std::size_t>(fd));
        if (copy >= 0 && fcntl(fd, F_GETFD) < 0)
            dup2(copy, fd);
        if (copy >= 0)
            close(copy);
    }
}

} // namespace ktr::host
