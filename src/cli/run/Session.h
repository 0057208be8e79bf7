#pragma once

#include "LogTap.h"
#include "PluginWatch.h"
#include "RunOptions.h"
#include "TimeLimit.h"

#include "ktr/common/MqttClient.h"
#include "ktr/common/WebApiBasic.h"

#include <memory>
#include <string>

namespace ktr::cli {

class InputLines;

/// Runs one plugin as a host does: brings the libraries up, feeds the plugin what is typed, takes
/// them down in the host's order. The current directory is the device's root.
class Session {
public:
    /// `watch_` lives until the process ends. Throws Failure for options that cannot be used.
    Session(RunOptions options_, PluginWatch& watch_);

    /// Returns the exit code when everything is down again; what went wrong has been told.
    int run(int input);

private:
    void startUp();
    void loadPlugin();
    void demandRegistration() const;
    void bind();
    void offerReports();
    void activate() const;
    void demandStart() const;
    void feed(int input);
    void take(const std::string& line, const InputLines& lines);
    void linger(int input) const;
    void shutDown();

    const RunOptions options;
    PluginWatch& watch;
    TimeLimit& limit;
    const Poco::AutoPtr<LogTap> log;
    const std::shared_ptr<WebApiBasic> webApi;
    const std::shared_ptr<MqttClient> mqttClient;
    Poco::Net::SocketAddress address;
    std::string guid;
    bool isFlawed = false;
};

} // namespace ktr::cli
