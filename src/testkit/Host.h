#pragma once

#include "ktr/common/MqttClient.h"

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

namespace Poco::Net {
class HTMLForm;
}

namespace ktr::testkit {

/// The libraries, brought up and taken down in the host's order, in this process. One thread calls
/// it.
class Host {
public:
    /// Binds the router to a free port. Throws what it and the client throw.
    Host(const MqttClient::Settings& mqtt, std::chrono::milliseconds deadline_);
    /// Calls takeDown().
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    /// Loads what lies in the folder `plugins` of `root`. Throws std::runtime_error for what
    /// PluginLoadAll lets out.
    void loadPlugins(const std::filesystem::path& root) const;

    /// Serves reports from here on; `root` has no services. Throws std::runtime_error if the broker
    /// is not reached.
    void serve(const std::filesystem::path& root);

    /// Reports an address as a service does. Throws std::runtime_error if it is not accepted.
    void report(const std::string& guid, const std::string& ip, unsigned short port) const;

    /// True if no accepted report or start is on its way any more, nor other work on that pool.
    static bool isIdle();

    /// Ends it all. `guid`, the plugin's, leaves the registry even if its stop() throws. A second
    /// call does nothing.
    void takeDown(const std::string& guid = "");

    bool isUp() const { return up; }
    unsigned short port() const { return up ? boundPort : static_cast<unsigned short>(0); }

private:
    void connect() const;
    /// The answer's body. Throws what Poco throws.
    std::string post(const std::string& route, Poco::Net::HTMLForm& form) const;

    const std::chrono::milliseconds deadline;
    const std::shared_ptr<MqttClient> mqttClient;
    const bool wantsBroker;
    unsigned short boundPort = 0;
    bool up = true;
};

} // namespace ktr::testkit
