#include "RunOptions.h"

#include <Poco/Net/IPAddress.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <unistd.h>

namespace ktr::cli {
namespace {

using std::chrono::seconds;

constexpr std::int64_t kDay = 86'400;

std::filesystem::path pluginIn(const Arguments& arguments) {
    if (arguments.operands.size() != 1)
        throw Failure(ExitUsage, "name one plugin, such as libKetraPluginHello.so");
    return std::filesystem::absolute(arguments.operands.front());
}

std::filesystem::path serviceIn(const Arguments& arguments) {
    const auto text = arguments.value("service");
    if (!text)
        return {};
    for (const char* option : {"ip", "port", "type"})
        if (arguments.has(option))
            throw Failure(ExitUsage, "--" + std::string(option) +
                                         " and --service exclude each other: the service reports "
                                         "by itself");
    if (access(text->c_str(), X_OK) != 0)
        throw Failure(ExitNoInput, "the service " + *text + " cannot be run: " +
                                       std::strerror(errno) + "; make it executable with chmod +x");
    if (!std::filesystem::is_regular_file(*text))
        throw Failure(ExitNoInput, "the service " + *text + " is no file");
    return std::filesystem::absolute(*text);
}

ServiceReport reportIn(const Arguments& arguments) {
    ServiceReport report;
    report.ip = arguments.value("ip").value_or("127.0.0.1");
    Poco::Net::IPAddress address;
    if (!Poco::Net::IPAddress::tryParse(report.ip, address))
        throw Failure(ExitUsage, "--ip takes an IP address, not '" + report.ip + "'");
    report.port =
        static_cast<unsigned short>(arguments.number("port", 1025, 65'535).value_or(65'535));
    report.type = static_cast<int>(
        arguments.number("type", std::numeric_limits<int>::min(), std::numeric_limits<int>::max())
            .value_or(1));
    return report;
}

std::string mqttUrlIn(const Arguments& arguments) {
    std::string url = arguments.value("mqtt-url").value_or("");
    // whoever may list processes reads the command line
    if (url.find('@') != std::string::npos)
        throw Failure(ExitUsage, "--mqtt-url must not hold user or password");
    return url;
}

} // namespace

std::vector<Option> runOptionTable() {
    return {
        {"service", "FILE", "run this microservice too; it reports by itself"},
        {"ip", "IP", "without it: the address to start the plugin with (default: 127.0.0.1)"},
        {"port", "PORT", "likewise, 1025 to 65535 (default: 65535)"},
        {"type", "NUMBER", "likewise (default: 1)"},
        {"log-level", "LEVEL", "of the log, as for ketra-host (default: information)"},
        {"mqtt-url", "URL", "broker: tcp://HOST:PORT or ssl://HOST:PORT"},
        {"web-port", "PORT", "where the plugin's routes are served (default: 0, a free one)"},
        {"wait", "SECONDS", "how long the plugin may take to start (default: 10)"},
        {"linger", "SECONDS", "go on so long after the input's end (default: 1; at a terminal: 0)"},
        {"keep", "", "go on after the input's end, until SIGINT or SIGTERM"},
        {"shutdown-timeout", "SECONDS", "how long the end may take (default: 10)"},
    };
}

RunOptions readRunOptions(const Arguments& arguments) {
    RunOptions options;
    options.plugin = pluginIn(arguments);
    options.service = serviceIn(arguments);
    options.report = reportIn(arguments);
    options.logLevel = arguments.value("log-level").value_or("information");
    options.mqtt.url = mqttUrlIn(arguments);
    options.webPort =
        static_cast<unsigned short>(arguments.number("web-port", 0, 65'535).value_or(0));
    options.wait = seconds(arguments.number("wait", 1, kDay).value_or(10));
    if (const auto linger = arguments.number("linger", 0, kDay))
        options.linger = seconds(*linger);
    options.keep = arguments.has("keep");
    options.shutdownTimeout = seconds(arguments.number("shutdown-timeout", 1, kDay).value_or(10));
    return options;
}

} // namespace ktr::cli
