#pragma once

#include "Settings.h"

#include <Poco/Util/Option.h>
#include <Poco/Util/OptionSet.h>
#include <Poco/Util/ServerApplication.h>

#include <csignal>
#include <string>
#include <vector>

namespace ktr::host {

/// The command line of ketra-host. It stays in the foreground: whoever wants it in the background
/// has a service manager, so ServerApplication's options --daemon, --umask and --pidfile are left
/// out.
class HostApplication : public Poco::Util::ServerApplication {
public:
    /// `stopSignals_` are blocked already.
    explicit HostApplication(const sigset_t& stopSignals_) : stopSignals(stopSignals_) {}

    /// The whole life of the host; returns the exit code.
    int runWith(int argc, char** argv);

protected:
    void defineOptions(Poco::Util::OptionSet& options) override;
    void handleOption(const std::string& name, const std::string& value) override;
    int main(const std::vector<std::string>& arguments) override;

private:
    void runHost(const std::vector<std::string>& arguments);
    int printVersion() const;
    int printHelp() const;

    const sigset_t stopSignals;
    RawSettings raw;
    std::string configFile;
    bool versionWanted = false;
    bool helpWanted = false;
};

} // namespace ktr::host
