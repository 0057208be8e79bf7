// The host's configuration file, up to the services that take its values.

#include "../src/host/ExitCode.h"
#include "../src/host/Settings.h"
#include "Support.h"
#include "support/TempDir.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <fstream>

namespace {

using namespace ktr::fuzz;
using namespace ktr::host;

void checkRanges(const Settings& settings) {
    require(settings.root.empty() || settings.root.front() == '/', "a root is an absolute path");
    require(settings.limits.connections >= 1, "somebody can connect");
    require(settings.limits.bodyBytes >= 1024, "a body may hold a report");
    require(settings.shutdownTimeout >= 1, "a shutdown ends");
    require(settings.logPurgeCount >= 1, "log files are kept");
}

void configureServices(const Settings& settings) {
    try {
        const ktr::MqttClient mqttClient(settings.mqtt);
        ktr::WebHookBasic webHook;
        webHook.configure(settings.webHook);
    } catch (const Poco::InvalidArgumentException& e) {
        require(!e.message().empty(), "a refusal says why");
    }
}

void checkLine(const StartError& error) {
    const std::string line = error.what();
    require(error.exitCode() == ExitConfig, "the configuration file is to blame");
    require(std::none_of(line.begin(), line.end(), [](char c) { return c == '\n' || c == '\0'; }),
            "the operator gets one line");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const ktr::test::TempDir folder;
    [[maybe_unused]] static const bool isSetUp = (muteLog(), true);
    const std::string file = folder / "host.properties";
    std::ofstream(file, std::ios::binary | std::ios::trunc) << text(data, size);
    try {
        RawSettings raw;
        raw.loadFile(file);
        const Settings settings = readSettings(raw);
        checkRanges(settings);
        configureServices(settings);
    } catch (const StartError& error) {
        checkLine(error);
    }
    return 0;
}
