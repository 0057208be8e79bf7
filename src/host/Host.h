#pragma once

#include "ServiceManager.h"
#include "Settings.h"
#include "StopControl.h"
#include "Watchdog.h"

#include "ktr/common/MqttClient.h"
#include "ktr/common/WebApiBasic.h"

#include <Poco/Net/SocketAddress.h>

#include <functional>
#include <memory>
#include <optional>

namespace ktr::host {

/// Runs the libraries: brings them up in order, waits until it is told to end, takes them down in
/// order. One thread calls it.
class Host {
public:
    /// `stop_` and `manager_` outlive the host. Throws StartError for an URL that cannot be used.
    Host(const Settings& settings_, StopControl& stop_, ServiceManager& manager_);

    /// Returns when everything has been taken down, also after a request to stop that comes while
    /// it still starts: the running step ends, the others are left out. Throws StartError if a step
    /// of the start-up fails, after taking down what was up.
    void run();

private:
    struct Step {
        const char* name;
        std::function<void()> work;
    };

    void enter(const Step& step);
    void startUp();
    void shutDown();
    void bind();
    void checkTrees();
    void discardLeftovers() const;
    void loadPlugins() const;
    void startServices() const;
    void tellReady();
    void startWatchdog();
    void stopWebHook();

    const Settings settings;
    StopControl& stop;
    ServiceManager& manager;
    const std::shared_ptr<WebApiBasic> webApi;
    const std::shared_ptr<MqttClient> mqttClient;
    Poco::Net::SocketAddress address;
    bool mayLoadPlugins = false;
    bool mayStartServices = false;
    std::optional<Watchdog> watchdog;
};

} // namespace ktr::host
