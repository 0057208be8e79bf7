#include "LogDisk.h"

#include <array>
#include <fcntl.h>
#include <fstream>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace ktr::soak {
namespace {

/// Without it nobody but the kernel knows who the owner of a file is in there.
void keepUser(uid_t user, gid_t group) {
    const auto line = [](auto id) {
        return std::to_string(id) + " " + std::to_string(id) + " 1\n";
    };
    std::ofstream("/proc/self/uid_map") << line(user);
    std::ofstream("/proc/self/setgroups") << "deny\n";
    std::ofstream("/proc/self/gid_map") << line(group);
}

} // namespace

bool makeMountsPrivate() {
    const uid_t user = getuid();
    const gid_t group = getgid();
    if (unshare(CLONE_NEWNS) != 0) {
        // whoever is not root may mount in a name space of his own users
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
            return false;
        keepUser(user, group);
    }
    return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

LogDisk::LogDisk(std::filesystem::path folder_, bool mayMount) : folder(std::move(folder_)) {
    std::filesystem::create_directories(folder);
    mounted = mayMount && mount("ketra-soak", folder.c_str(), "tmpfs", MS_NOSUID | MS_NODEV,
                                "size=8m,mode=0700") == 0;
}

LogDisk::~LogDisk() {
    if (mounted)
        umount2(folder.c_str(), MNT_DETACH);
}

void LogDisk::fill() const {
    const int fd = open(filler().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::array<char, 4096> block{};
    // a page at a time: it ends where there is none left
    while (write(fd, block.data(), block.size()) > 0) {
    }
    close(fd);
}

void LogDisk::free() const {
    std::error_code ignored;
    std::filesystem::remove(filler(), ignored);
}

} // namespace ktr::soak
