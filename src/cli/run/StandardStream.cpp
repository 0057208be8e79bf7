#include "StandardStream.h"

#include "../ExitCode.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace ktr::cli {

int takeStandardStream(int stream, int replacement) {
    const int own = fcntl(stream, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (own < 0 || dup2(replacement, stream) < 0)
        throw Failure(ExitSystem, "standard stream " + std::to_string(stream) +
                                      " cannot be used: " + std::strerror(errno));
    return own;
}

int takeStandardInput() {
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int own = takeStandardStream(STDIN_FILENO, null);
    close(null);
    return own;
}

} // namespace ktr::cli
