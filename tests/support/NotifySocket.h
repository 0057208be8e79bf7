#pragma once

#include "TempDir.h"
#include "WaitUntil.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace ktr::test {

/// An environment variable that has `value` while this object lives.
class Variable {
public:
    Variable(std::string name_, const std::string& value) : name(std::move(name_)) {
        if (const char* const old = std::getenv(name.c_str()))
            former = old;
        setenv(name.c_str(), value.c_str(), 1);
    }
    ~Variable() {
        if (former)
            setenv(name.c_str(), former->c_str(), 1);
        else
            unsetenv(name.c_str());
    }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;

private:
    const std::string name;
    std::optional<std::string> former;
};

/// A service manager as those see it that it starts: a datagram socket, named by NOTIFY_SOCKET
/// while this object lives. Takes what comes at once, for a full socket would have the sender wait.
class NotifySocket {
public:
    NotifySocket() : variable("NOTIFY_SOCKET", (folder / "notify").string()) {
        const std::string path = folder / "notify";
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (bind(descriptor, generic(), sizeof address) != 0)
            throw std::runtime_error("cannot bind " + path);
        reader = std::thread([this] { read(); });
    }
    ~NotifySocket() {
        send(kEnd);
        reader.join();
        close(descriptor);
    }
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    /// Everything that was sent before the call, in its order.
    std::vector<std::string> messages() {
        const int mark = ++marks;
        send(kMark);
        waitUntil([&] {
            const std::lock_guard<std::mutex> lock(mutex);
            return seenMarks >= mark;
        });
        const std::lock_guard<std::mutex> lock(mutex);
        return received;
    }

private:
    static constexpr const char* kMark = "X_MARK=1";
    static constexpr const char* kEnd = "X_END=1";

    const sockaddr* generic() const { return reinterpret_cast<const sockaddr*>(&address); }

    void send(const std::string& text) const {
        sendto(descriptor, text.data(), text.size(), MSG_NOSIGNAL, generic(), sizeof address);
    }

    void read() {
        std::array<char, 4096> buffer;
        for (;;) {
            const ssize_t size = recv(descriptor, buffer.data(), buffer.size(), 0);
            const std::string text(buffer.data(),
                                   static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
            if (size < 0 || text == kEnd)
                return;
            const std::lock_guard<std::mutex> lock(mutex);
            if (text == kMark)
                ++seenMarks;
            else
                received.push_back(text);
        }
    }

    TempDir folder;
    const Variable variable;
    sockaddr_un address{AF_UNIX, {}};
    const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int marks = 0;

    // guards what follows
    std::mutex mutex;
    std::vector<std::string> received;
    int seenMarks = 0;
    std::thread reader;
};

} // namespace ktr::test
