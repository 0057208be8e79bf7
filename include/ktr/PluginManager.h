#pragma once

#include "ktr/Export.h"
#include "ktr/PluginBase.h"

#include <atomic>
#include <memory>
#include <string>
#include <thread>

/// What a host calls to run plugins. The order of the calls:
///
///   start-up:  InitThreadPool, PluginLoadAll, MSManager::start, PluginInstallApi, then serve HTTP
///   shutdown:  MSManager::stop, stop serving HTTP and let ThreadPool::defaultPool() finish,
///              PluginUnLoadAll
///
/// The library does not enforce it. Failures are logged through cachedLogger(), never returned.
namespace ktr {

class WebApiBasic;
class MqttClient;

/// Loads every plugin library below the child directory "plugins" of the current directory, files
/// it under its guid, and calls its PluginLoad. A library that cannot be loaded is logged and
/// passed over. A later library of the same guid replaces the earlier record. Calls into plugins
/// without holding a lock. Not to be called while another thread runs it or PluginUnLoadAll. Lets
/// out what reading the current directory throws, and what a plugin throws that is no
/// std::exception.
KTR_API void PluginLoadAll();

/// Stops and drops every plugin object, empties the registry, and, if _loop_thread_get_cpu_temp is
/// joinable, clears _loop_thread_get_cpu_temp_run and joins it. Holds the registry's lock
/// throughout, so no plugin's stop() and not the sampling thread may take it. If a plugin's stop()
/// throws, that is logged and the rest is left undone. Plugin code stays mapped. Call it when no
/// report is served any more and the default pool is idle. A second call is harmless.
KTR_API void PluginUnLoadAll();

/// Starts plugins from now on: each accepted report of a microservice makes and starts the object
/// of the plugin with the same guid. Both arguments are shared with the plugins' start(). Call it
/// once; a failure is logged at critical and then no plugin starts.
KTR_API void PluginInstallApi(std::shared_ptr<WebApiBasic> webApi,
                              std::shared_ptr<MqttClient> mqttClient);

/// Makes the pool of the rapid event path, replacing an earlier one. Call it before any plugin can
/// raise a rapid event; not thread-safe against events. Throws what making the pool throws; an
/// earlier pool then stays.
KTR_API void InitThreadPool();

/// Raises an event from the host, as a plugin does with its event callback. Despite the name it
/// reaches the plugins that the event's "to" array names. `msg` is left unchanged. Thread-safe;
/// bad text is logged, never thrown.
KTR_API void publishMsgToAllPlugin(std::string& msg);

/// Temperature of thermal zone 0 in whole degrees Celsius, truncated toward zero; 0 when there is
/// no reading. Thread-safe.
KTR_API int getCpuTemperature();

/// The host's sampling thread, if it starts one; PluginUnLoadAll ends it. It must not be joinable
/// when the library is torn down.
extern KTR_API std::thread _loop_thread_get_cpu_temp;

/// True while the sampling thread shall run. The host sets it before it starts the thread, whose
/// loop watches it; PluginUnLoadAll clears it.
extern KTR_API std::atomic<bool> _loop_thread_get_cpu_temp_run;

} // namespace ktr
