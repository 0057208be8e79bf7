// A service of the boot storm: notes that it runs, reports once, and waits to be ended. Bare of
// libraries, so that making the process costs what a process costs.

#include "Shared.h"

#include <arpa/inet.h>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace ktr::bench;

/// One report, whose answer is waited for: until the host serves it lies in the backlog.
void report(std::uint16_t hostPort, unsigned number) {
    std::array<char, 128> body{};
    const int bodyLength =
        std::snprintf(body.data(), body.size(), "ip=127.0.0.1&port=%u&type=1&guid=%.*s%04u",
                      kFirstPort + number, static_cast<int>(kGuidHead), kGuid, number);
    std::array<char, 512> request{};
    const int length = std::snprintf(
        request.data(), request.size(),
        "POST /index/api/all/report HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n"
        "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: %d\r\n\r\n%s",
        bodyLength, body.data());
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(hostPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::array<char, 512> answer{};
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        send(fd, request.data(), static_cast<std::size_t>(length), MSG_NOSIGNAL) == length)
        while (recv(fd, answer.data(), answer.size(), 0) > 0) {
        }
    close(fd);
}

} // namespace

/// Without an argument, the host's port, it does not report.
int main(int argc, char** argv) {
    const std::int64_t now = monotonicTime();
    const char* const file = std::getenv(kStormVariable);
    Storm* const storm = file == nullptr ? nullptr : mapStorm(file);
    const char* const name = std::strrchr(argv[0], '-');
    if (storm == nullptr || name == nullptr)
        return EXIT_FAILURE;
    const auto number = static_cast<unsigned>(std::strtoul(name + 1, nullptr, 10));
    if (number >= kPlugins)
        return EXIT_FAILURE;
    Notes& notes = storm->notes[number];
    notes.launched = now;
    ++notes.launches;
    if (argc == 2)
        report(static_cast<std::uint16_t>(std::strtoul(argv[1], nullptr, 10)), number);
    for (;;)
        pause();
}
