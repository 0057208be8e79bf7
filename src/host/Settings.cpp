#include "Settings.h"

#include "ExitCode.h"

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/FileStream.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/NumberParser.h>
#include <Poco/Path.h>
#include <Poco/String.h>
#include <Poco/Util/PropertyFileConfiguration.h>

#include <algorithm>
#include <array>

namespace ktr::host {
namespace {

const Key* findKey(const std::string& name) {
    for (const Key& key : allKeys())
        if (name == key.name)
            return &key;
    return nullptr;
}

/// The key that a line of the configuration file means; null if there is none. A repeatable one may
/// bear a suffix: "webhook.url.2".
const Key* findFileKey(const std::string& name) {
    if (const Key* key = findKey(name))
        return key;
    const Key* key = findKey(name.substr(0, name.rfind('.')));
    return key && key->isRepeatable ? key : nullptr;
}

/// Shows its entries one by one. Asked level by level for what lies below a key, Poco would find no
/// end below one that begins with a dot.
class Properties : public Poco::Util::PropertyFileConfiguration {
public:
    using MapConfiguration::begin;
    using MapConfiguration::end;
    using PropertyFileConfiguration::PropertyFileConfiguration;
};

std::string absolutePath(const std::string& path) {
    return path.empty() ? path : Poco::Path(path).makeAbsolute().toString();
}

std::string readPassword(const RawSettings& raw) {
    const std::string path = raw.path("mqtt.password.file");
    if (path.empty())
        return raw.value("mqtt.password");
    std::string password;
    try {
        Poco::FileInputStream in(path);
        std::getline(in, password);
    } catch (const Poco::Exception& e) {
        raw.reject("mqtt.password.file", "cannot be read (" + e.displayText() + ")");
    }
    return Poco::trimRightInPlace(password);
}

void requireFile(const RawSettings& raw, const std::string& key) {
    const std::string path = raw.path(key);
    if (!path.empty() && !Poco::File(path).exists())
        raw.reject(key, "names a file that does not exist: " + path);
}

void readMqtt(const RawSettings& raw, MqttClient::Settings& mqtt) {
    mqtt.url = raw.value("mqtt.url");
    // whoever may list processes reads the command line
    if (mqtt.url.find('@') != std::string::npos)
        raw.reject("mqtt.url", "must not hold user or password; set mqtt.user and "
                               "mqtt.password.file in the configuration file");
    mqtt.clientId = raw.value("mqtt.client.id");
    mqtt.user = raw.value("mqtt.user");
    mqtt.password = readPassword(raw);
    for (const char* key : {"mqtt.ca.file", "mqtt.certificate.file", "mqtt.key.file"})
        requireFile(raw, key);
    mqtt.caFile = raw.path("mqtt.ca.file");
    mqtt.certificateFile = raw.path("mqtt.certificate.file");
    mqtt.keyFile = raw.path("mqtt.key.file");
    mqtt.will.topic = raw.value("mqtt.will.topic");
    mqtt.will.payload = raw.value("mqtt.will.payload");
}

void readLog(const RawSettings& raw, Settings& settings) {
    static const std::array<const char*, 9> levels{
        "none", "fatal", "critical", "error", "warning", "notice", "information", "debug", "trace"};
    settings.logLevel = Poco::toLower(raw.value("log.level"));
    if (std::find(levels.begin(), levels.end(), settings.logLevel) == levels.end())
        raw.reject("log.level", "is no log level; take none, fatal, critical, error, warning, "
                                "notice, information, debug or trace");
    settings.logFile = raw.path("log.file");
    settings.logRotation = raw.value("log.rotation");
    settings.logPurgeCount = raw.number("log.purge.count", 1, 10000);
}

Poco::Net::IPAddress readBind(const RawSettings& raw) {
    const std::string text = raw.value("bind");
    Poco::Net::IPAddress address(Poco::Net::IPAddress::IPv6);
    // to Poco's parser "::" looks like a failure of its own
    if (text != "::" && !Poco::Net::IPAddress::tryParse(text, address))
        raw.reject("bind", "must be an IP address such as 127.0.0.1, 0.0.0.0, ::1 or ::, not '" +
                               text + "'");
    return address;
}

} // namespace

const std::vector<Key>& allKeys() {
    static const std::vector<Key> keys{
        {"root", "DIR", "directory with plugins/ and microservices/; becomes the current directory",
         ".", true, false},
        {"no.strict.modes", "",
         "only warn of what others than root and the host's user could change in plugins/ or "
         "microservices/, instead of leaving that tree out",
         "", true, false},
        {"bind", "IP", "address to serve HTTP on", "127.0.0.1", true, false},
        {"port", "NUMBER", "port to serve HTTP on; 0 picks a free one", "8080", true, false},
        {"allow", "NETWORK",
         "network or address whose clients are let in, comma separated, such as 192.168.7.0/24 or "
         "fd00::/8; none: everybody; this machine always is",
         "", true, true},
        {"api.token.file", "FILE",
         "file whose first line other machines must send with each request (Authorization: "
         "Bearer ...)",
         "", true, false},
        {"tls.cert", "FILE", "PEM file of a certificate, and its chain, to serve HTTPS with", "",
         true, false},
        {"tls.key", "FILE", "PEM file of that certificate's key", "", true, false},
        {"mqtt.url", "URL", "broker: tcp://HOST:PORT or ssl://HOST:PORT; none: not connected", "",
         true, false},
        {"mqtt.client.id", "TEXT", "name at the broker; none: ketra- and a random part", "", false,
         false},
        {"mqtt.user", "TEXT", "user at the broker", "", false, false},
        {"mqtt.password", "TEXT", "password at the broker", "", false, false},
        {"mqtt.password.file", "FILE", "file whose first line is that password", "", false, false},
        {"mqtt.ca.file", "FILE", "PEM file of authorities to trust; none: the system's", "", false,
         false},
        {"mqtt.certificate.file", "FILE", "PEM file of the host's own certificate", "", false,
         false},
        {"mqtt.key.file", "FILE", "PEM file of that certificate's key", "", false, false},
        {"mqtt.will.topic", "TEXT", "topic that the broker tells when the host is lost", "", false,
         false},
        {"mqtt.will.payload", "TEXT", "what it tells there", "", false, false},
        {"webhook.url", "URL", "http or https address to tell that all plugins have started", "",
         true, true},
        {"webhook.ca.file", "FILE", "PEM file of authorities to trust; none: the system's", "",
         false, false},
        {"webhook.timeout", "SECONDS", "for connecting, and for each wait for an answer", "5",
         false, false},
        {"http.connections", "NUMBER", "most clients at a time", "256", false, false},
        {"http.body.bytes", "NUMBER", "longest request body", "1048576", false, false},
        {"log.level", "LEVEL",
         "none, fatal, critical, error, warning, notice, information, debug or trace",
         "information", true, false},
        {"log.file", "FILE", "log to this file instead of standard error", "", true, false},
        {"log.rotation", "SIZE", "begin a new log file at this size (10 M) or time (daily)", "10 M",
         false, false},
        {"log.purge.count", "NUMBER", "how many earlier log files to keep", "5", false, false},
        {"temperature.period", "SECONDS", "between readings of the CPU temperature; 0: none", "60",
         true, false},
        {"shutdown.timeout", "SECONDS", "after which a shutdown that hangs is cut short", "10",
         true, false},
    };
    return keys;
}

std::string optionName(const std::string& key) {
    return Poco::translate(key, ".", "-");
}

void RawSettings::addOption(const std::string& option, const std::string& value) {
    const std::string name = Poco::translate(option, "-", ".");
    const Key* key = findKey(name);
    const bool isSwitch = key && key->argument[0] == '\0';
    fromCommandLine[name].push_back(isSwitch ? "true" : value);
}

void RawSettings::loadFile(const std::string& path) {
    file = absolutePath(path);
    std::vector<std::string> names;
    try {
        if (!Poco::File(file).isFile())
            throw Poco::FileException("not a regular file");
        const Poco::AutoPtr<Properties> properties(new Properties(file));
        for (const auto& [name, value] : *properties) {
            names.push_back(name);
            if (const Key* key = findFileKey(name))
                fromFile[key->name].push_back(value);
        }
    } catch (const Poco::Exception& e) {
        throw StartError(ExitConfig, "cannot read the configuration file " + file + " (" +
                                         e.displayText() + "); name a readable one with --config");
    }
    for (const std::string& name : names)
        if (!findFileKey(name))
            throw StartError(ExitConfig, "unknown key '" + name + "' in " + file +
                                             "; ketra-host --help lists the keys");
}

std::vector<std::string> RawSettings::values(const std::string& key) const {
    for (const auto* origin : {&fromCommandLine, &fromFile})
        if (const auto found = origin->find(key); found != origin->end())
            return found->second;
    const std::string byDefault = findKey(key)->byDefault;
    return byDefault.empty() ? std::vector<std::string>{} : std::vector<std::string>{byDefault};
}

std::string RawSettings::value(const std::string& key) const {
    const std::vector<std::string> all = values(key);
    return all.empty() ? std::string() : all.front();
}

int RawSettings::number(const std::string& key, int least, int most) const {
    int number = 0;
    const std::string text = value(key);
    if (!Poco::NumberParser::tryParse(text, number) || number < least || number > most)
        reject(key, "must be a number from " + std::to_string(least) + " to " +
                        std::to_string(most) + ", not '" + text + "'");
    return number;
}

bool RawSettings::isOn(const std::string& key) const {
    const std::vector<std::string> all = values(key);
    if (all.empty() || all.front() == "false")
        return false;
    if (all.front() != "true")
        reject(key, "must be true or false, not '" + all.front() + "'");
    return true;
}

std::string RawSettings::path(const std::string& key) const {
    return absolutePath(value(key));
}

void RawSettings::reject(const std::string& key, const std::string& reason) const {
    if (fromCommandLine.count(key) != 0)
        throw StartError(ExitUsage, "option --" + optionName(key) + " " + reason);
    if (fromFile.count(key) != 0)
        throw StartError(ExitConfig, "key '" + key + "' in " + file + " " + reason);
    throw StartError(ExitConfig, "the default of '" + key + "' " + reason);
}

Settings readSettings(const RawSettings& raw) {
    Settings settings;
    settings.raw = raw;
    settings.root = raw.path("root");
    settings.strictModes = !raw.isOn("no.strict.modes");
    settings.bind = raw.value("bind");
    const Poco::Net::IPAddress address = readBind(raw);
    settings.port = static_cast<unsigned short>(raw.number("port", 0, 65535));
    settings.access = readAccess(raw, address);
    readMqtt(raw, settings.mqtt);
    settings.webHook.urls = raw.values("webhook.url");
    requireFile(raw, "webhook.ca.file");
    settings.webHook.caFile = raw.path("webhook.ca.file");
    settings.webHook.timeout = Poco::Timespan(raw.number("webhook.timeout", 1, 600), 0);
    settings.limits.connections = raw.number("http.connections", 1, 2000);
    settings.limits.bodyBytes =
        static_cast<std::size_t>(raw.number("http.body.bytes", 1024, 1024 * 1024 * 1024));
    readLog(raw, settings);
    settings.temperaturePeriod = raw.number("temperature.period", 0, 86400);
    settings.shutdownTimeout = raw.number("shutdown.timeout", 1, 3600);
    return settings;
}

} // namespace ktr::host
