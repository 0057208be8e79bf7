#pragma once

#include "AccessSettings.h"

#include "ktr/common/MqttClient.h"
#include "ktr/common/WebApiBasic.h"
#include "ktr/common/WebHookBasic.h"

#include <map>
#include <string>
#include <vector>

namespace ktr::host {

/// One thing that can be set. The option of a key bears its name with dashes for dots.
struct Key {
    const char* name;
    /// What the value is, as --help shows it; empty for a switch: the option has no value, in the
    /// file it is true or false.
    const char* argument;
    const char* help;
    /// The value in force when nobody sets it; empty for none.
    const char* byDefault;
    /// Whether there is an option for it, or only the configuration file.
    bool isOption;
    /// Whether it may be given several times (in the file: NAME.1, NAME.2 ...).
    bool isRepeatable;
};

/// All keys, in the order of --help.
const std::vector<Key>& allKeys();

/// The name of the key's option: "mqtt-url" for "mqtt.url".
std::string optionName(const std::string& key);

/// What command line and configuration file say, still as text: the command line goes first, then
/// the file, then the default.
class RawSettings {
public:
    /// Notes `--option value`; a switch bears no value.
    void addOption(const std::string& option, const std::string& value);

    /// Reads a file in Poco's properties format ("key = value" lines, # begins a comment). Throws
    /// StartError if it cannot be read or holds a key that does not exist.
    void loadFile(const std::string& path);

    /// The key's values, those of the strongest origin only; its default if nobody set it.
    std::vector<std::string> values(const std::string& key) const;
    /// The first of them; empty if there is none.
    std::string value(const std::string& key) const;
    /// As a whole number in [least, most]; throws StartError for anything else.
    int number(const std::string& key, int least, int most) const;
    /// Whether the switch is on; throws StartError for anything but true and false.
    bool isOn(const std::string& key) const;
    /// As an absolute path, taken from the current directory; empty if the key has no value.
    std::string path(const std::string& key) const;

    /// Throws StartError that says where `key` was set, why its value will not do, and the exit
    /// code that fits the origin.
    [[noreturn]] void reject(const std::string& key, const std::string& reason) const;

private:
    std::map<std::string, std::vector<std::string>> fromCommandLine;
    std::map<std::string, std::vector<std::string>> fromFile;
    std::string file;
};

/// What the host runs on. Paths are absolute.
struct Settings {
    std::string root;
    /// Whether a tree that others could change is left out.
    bool strictModes = true;
    std::string bind;
    unsigned short port = 0;
    AccessSettings access;
    MqttClient::Settings mqtt;
    WebHookBasic::Settings webHook;
    WebApiBasic::Limits limits;
    std::string logLevel;
    std::string logFile;
    std::string logRotation;
    int logPurgeCount = 0;
    /// Seconds between two readings; 0 for none.
    int temperaturePeriod = 0;
    /// Seconds.
    int shutdownTimeout = 0;
    /// Where it all came from, for rejecting what turns out to be unusable later.
    RawSettings raw;
};

/// Checks every value. Throws StartError for the first bad one.
Settings readSettings(const RawSettings& raw);

} // namespace ktr::host
