#pragma once

#include "ktr/Export.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

/// What a plugin author compiles against.
///
/// A plugin is a shared library below the host's "plugins" directory whose file name contains
/// "libKetraPlugin". It exports five undecorated functions:
///
///     extern "C" void PluginLoad();          // calls ktr::registerPlugin
///     extern "C" void PluginUnLoad();        // looked up, never called
///     extern "C" std::int32_t PluginType();  // any number of the author's choice
///     extern "C" const char* PluginName();   // never null
///     extern "C" const char* PluginGuid();   // never null; the guid that the service reports
///
/// They are called once, on the thread that runs PluginLoadAll, in the order PluginType,
/// PluginName, PluginGuid, PluginLoad. The returned texts are copied at once and stay the plugin's.
/// Exceptions derived from std::exception are logged and cost this plugin only; others end the
/// host. The library stays mapped until the process ends.
///
/// The life of a plugin's object:
///   1. the microservice that belongs to the plugin reports its address to the host;
///   2. an earlier object of this plugin, if there is one, gets stop() and is dropped;
///   3. the factory makes a new object, setEventCallback() hands it the way to raise events;
///   4. start() runs on a pool thread;
///   5. onMessage() runs for every event that names the plugin's guid, possibly before start();
///   6. stop() when the service reports again (then from 2. on) or when the host shuts down.
namespace ktr {

class WebApiBasic;
class MqttClient;

/// The object that does a plugin's work. The host holds it by std::shared_ptr and reaches it
/// through the virtual table, so the order of the virtual functions is part of the binary
/// interface.
///
/// Thread safety: the host calls setEventCallback, stop and onMessage one at a time, under the lock
/// of its registry. start() runs without a lock, so onMessage() and stop() may run beside it; two
/// reports in quick succession may even start one object twice. The object guards its own state.
///
/// Under the registry's lock (setEventCallback, stop, onMessage, the factory) a plugin must call
/// neither registerPlugin nor unregisterPlugin, nor wait for a thread that does: that deadlocks. It
/// should return quickly, since no other plugin gets a message meanwhile. Raising an event is
/// allowed everywhere.
class KTR_API PluginBase {
public:
    PluginBase() = default;
    PluginBase(const PluginBase&) = delete;
    PluginBase& operator=(const PluginBase&) = delete;

    /// Runs when the last reference goes: usually after stop(), but without it when the plugin's
    /// record was dropped by unregisterPlugin or replaced by another library of the same guid.
    virtual ~PluginBase() = default;

    /// Replaces eventCallback by a copy of `callback`; an empty one empties it. Called once on a
    /// new object, before start(). An exception is logged and the object stays without start().
    virtual void setEventCallback(std::function<void(std::string)> callback) {
        eventCallback = std::move(callback);
    }

    /// Starts the work. `webApi` is the host's HTTP router and `mqttClient` its MQTT client (never
    /// null with ketra-host); `ip` and `port` (1025 to 65535) are the address that the microservice
    /// reported. The base version keeps all four. A plugin that overrides it calls it first. An
    /// exception is logged by the pool and the plugin does not count as started.
    virtual void start(std::shared_ptr<WebApiBasic> webApi_,
                       std::shared_ptr<MqttClient> mqttClient_, std::string ip_,
                       unsigned short port_) {
        ip = std::move(ip_);
        port = port_;
        webApi = std::move(webApi_);
        mqttClient = std::move(mqttClient_);
    }

    /// Ends the work: afterwards no thread, route or subscription of this object is left. Called
    /// on a live object before it is dropped, also when start() never ran. A std::exception is
    /// logged; at shutdown it keeps the plugins after this one from being stopped.
    virtual void stop() = 0;

    /// Takes one event addressed to this plugin: `text` is byte for byte the JSON text that was
    /// raised. Called on an event thread, under the registry's lock. A std::exception is logged
    /// and costs only this delivery; any other type abandons the rest of the batch.
    virtual void onMessage(std::string text) = 0;

protected:
    /// Address of the microservice; written by start().
    std::string ip;
    /// Port of the microservice, 0 before start().
    unsigned short port = 0;
    /// Raises an event: a JSON object with "to", an array of recipient guids, and optionally "api",
    /// a string ("pushTelemetry" and "smaReceivePilotData" take the rapid path). Callable from any
    /// thread; never blocks on recipients and never throws for bad text, which is only logged.
    /// Empty until setEventCallback().
    std::function<void(std::string)> eventCallback;
    /// The host's HTTP router; null before start().
    std::shared_ptr<WebApiBasic> webApi;
    /// The host's MQTT client; null before start().
    std::shared_ptr<MqttClient> mqttClient;
};

/// Hands the host the factory of this plugin's objects. Call it from inside PluginLoad, with the
/// text that PluginGuid returns. `factory` is copied; it is called under the registry's lock, for
/// every report of the plugin's service, and must return an object, never null. A second call for
/// the same guid replaces the factory. A null, empty or unknown `guid` is logged and changes
/// nothing. Thread-safe; takes the registry's lock and throws std::system_error if that fails.
KTR_API void registerPlugin(std::function<std::shared_ptr<PluginBase>()> factory, const char* guid);

/// Removes the plugin's record for good; `guid` null, empty or unknown does nothing. stop() is not
/// called: a plugin that unregisters itself while running ends its own work first. Its object is
/// destroyed inside this call unless somebody else holds it, so never call it from one of the
/// object's own functions that needs the object afterwards. Thread-safe; takes the registry's lock
/// and throws std::system_error if that fails.
KTR_API void unregisterPlugin(const char* guid);

} // namespace ktr
