#include "ThrowAwayRoot.h"

#include "Tell.h"

#include "../ExitCode.h"

#include "ktr/common/ProcessControl.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace ktr::cli {
namespace {

namespace fs = std::filesystem;

std::atomic<ThrowAwayRoot*> only{nullptr};

std::string uniqueName(const fs::path& service) {
    if (service.empty())
        return "";
    std::random_device random;
    std::ostringstream name;
    // a file name has at most 255 bytes
    name << "ketra-run-" << std::hex << random() << random() << "-"
         << service.filename().string().substr(0, 200);
    return name.str();
}

/// The host loads by name.
std::string pluginName(const fs::path& plugin) {
    std::string name = plugin.filename();
    if (name.find("libKetraPlugin") != std::string::npos)
        return name;
    tell("a host loads files only whose name contains libKetraPlugin: rename " + name +
         " before you install it");
    return "libKetraPlugin-" + name;
}

void waitForEnd(int lifeLine) {
    char byte = 0;
    while (read(lifeLine, &byte, 1) < 0 && errno == EINTR) {
    }
}

[[noreturn]] void clean(int lifeLine, const fs::path& folder, const std::string& service) {
    prctl(PR_SET_NAME, "ketra-cleaner");
    waitForEnd(lifeLine);
    cleanProcessByName(service);
    std::error_code error;
    fs::remove_all(folder, error);
    if (error)
        tell("cannot remove " + folder.string() + ": " + error.message() + "; remove it by hand");
    _exit(ExitSuccess);
}

/// No key typed at a terminal ends it, and nobody waits for it at the other end of a pipe.
void detach() {
    setsid();
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    dup2(null, STDIN_FILENO);
    dup2(null, STDOUT_FILENO);
    close(null);
}

} // namespace

ThrowAwayRoot::ThrowAwayRoot(const fs::path& plugin, const fs::path& service)
    : serviceName(uniqueName(service)) {
    std::string name = (fs::temp_directory_path() / "ketra-run-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
        throw Failure(ExitCannotCreate, "cannot make a temporary folder " + name + ": " +
                                            std::strerror(errno) + "; name another with TMPDIR");
    folder = name;
    try {
        makeTree(plugin, service);
        startCleaner();
    } catch (...) {
        std::error_code ignored;
        fs::remove_all(folder, ignored);
        throw;
    }
    only = this;
}

ThrowAwayRoot::~ThrowAwayRoot() {
    removeOnly();
}

void ThrowAwayRoot::enter() const {
    fs::current_path(folder);
}

void ThrowAwayRoot::removeOnly() {
    if (ThrowAwayRoot* const root = only.exchange(nullptr))
        root->remove();
}

void ThrowAwayRoot::remove() {
    close(lifeLine);
    while (waitpid(cleaner, nullptr, 0) < 0 && errno == EINTR) {
    }
}

void ThrowAwayRoot::makeTree(const fs::path& plugin, const fs::path& service) const {
    fs::create_directory(folder / "plugins");
    fs::create_directory(folder / "microservices");
    fs::create_symlink(plugin, folder / "plugins" / pluginName(plugin));
    if (!service.empty())
        fs::create_symlink(service, folder / "microservices" / serviceName);
}

void ThrowAwayRoot::startCleaner() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0)
        throw Failure(ExitSystem, std::string("no pipe: ") + std::strerror(errno));
    cleaner = fork();
    if (cleaner == 0) {
        close(ends[1]);
        detach();
        clean(ends[0], folder, serviceName);
    }
    close(ends[0]);
    lifeLine = ends[1];
    if (cleaner < 0)
        throw Failure(ExitSystem, std::string("no process: ") + std::strerror(errno));
}

} // namespace ktr::cli
