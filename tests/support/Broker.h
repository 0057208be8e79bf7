#pragma once

#include "support/ChildProcess.h"
#include "support/FreePort.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <cstdint>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace ktr::test {

/// An MQTT broker on a loopback port, running until stop() or the end of the object.
class Broker {
public:
    /// `extra`: further lines of its configuration, which lets anybody in unless they say
    /// otherwise.
    explicit Broker(std::string extra = "allow_anonymous true\n")
        : configuration(std::move(extra)) {
        // another process may take the port between its choice and its use
        for (int attempt = 0; attempt < 5; ++attempt) {
            listenPort = freePort();
            if (tryStart())
                return;
        }
        throw std::runtime_error("the broker does not start");
    }

    std::uint16_t port() const { return listenPort; }
    std::string url(const std::string& scheme = "tcp") const {
        return scheme + "://127.0.0.1:" + std::to_string(listenPort);
    }

    /// Ends it as a crash would.
    void stop() { process.reset(); }

    /// Starts it again on the same port.
    void start() {
        if (!tryStart())
            throw std::runtime_error("the broker does not start again");
    }

    /// Makes it deaf, as if the network were cut, and undoes it.
    void freeze() { process->signal(SIGSTOP); }
    void thaw() { process->signal(SIGCONT); }

    static std::string passwordFile(const TempDir& folder, const std::string& user,
                                    const std::string& password) {
        std::string name = (folder / "passwords").string();
        const std::vector<std::string> command{
            "/usr/bin/mosquitto_passwd", "-b", "-c", name, user, password};
        if (ChildProcess(command, "/dev/null").wait() != 0)
            throw std::runtime_error("cannot make the password file");
        return name;
    }

private:
    bool tryStart() {
        const std::string file = (folder / "mosquitto.conf").string();
        // as root it would otherwise become a user who cannot read the temporary files
        std::ofstream(file) << "listener " << listenPort << " 127.0.0.1\n"
                            << "user root\n"
                            << configuration;
        process.emplace(std::vector<std::string>{"/usr/sbin/mosquitto", "-c", file},
                        (folder / "mosquitto.log").string());
        waitUntil([this] { return !process->isRunning() || isListening(listenPort); });
        return process->isRunning();
    }

    const std::string configuration;
    std::uint16_t listenPort = 0;
    TempDir folder;
    std::optional<ChildProcess> process;
};

} // namespace ktr::test
