#include "TokenFile.h"

#include "ExitCode.h"
#include "ShellCommand.h"

#include <Poco/String.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace ktr::host {
namespace {

// longer than any token that is taken
constexpr std::size_t kMostBytes = 8192;

[[noreturn]] void reject(const std::string& path, const std::string& reason) {
    throw StartError(ExitConfig, "the token file " + path + " " + reason);
}

[[noreturn]] void rejectUnreadable(const std::string& path) {
    reject(path, std::string("cannot be read (") + std::strerror(errno) +
                     "); name a readable one with --api-token-file");
}

class Descriptor {
public:
    explicit Descriptor(int number_) : number(number_) {}
    ~Descriptor() {
        if (number >= 0)
            ::close(number);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    operator int() const { return number; }

private:
    const int number;
};

std::string remedy(const std::string& command, const std::string& path) {
    return "; mend it with: " + shellCommand(command, std::filesystem::absolute(path).string());
}

void checkOwner(const std::string& path, const struct stat& status) {
    if (status.st_uid == 0 || status.st_uid == ::geteuid())
        return;
    reject(path, "belongs to user " + std::to_string(status.st_uid) +
                     ", not to root or the host's user" +
                     remedy("chown " + std::to_string(::geteuid()), path));
}

void checkMode(const std::string& path, const struct stat& status) {
    if ((status.st_mode & (S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH)) != 0)
        reject(path, "can be read or written by others" + remedy("chmod 600", path));
}

} // namespace

std::string readTokenFile(const std::string& path) {
    // does not wait for somebody to write into a pipe
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    // of what is open: by its name another file could be put there between the check and the read
    if (file < 0 || ::fstat(file, &status) != 0)
        rejectUnreadable(path);
    if (!S_ISREG(status.st_mode))
        reject(path, "is no regular file; name one with --api-token-file");
    checkOwner(path, status);
    checkMode(path, status);
    std::array<char, kMostBytes> content;
    const ssize_t size = ::read(file, content.data(), content.size());
    if (size < 0)
        rejectUnreadable(path);
    const std::string text(content.data(), static_cast<std::size_t>(size));
    return Poco::trimRight(text.substr(0, text.find('\n')));
}

} // namespace ktr::host
