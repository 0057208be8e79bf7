#include "ktr/PluginManager.h"

#include "LibraryFile.h"
#include "Log.h"
#include "MSPropertyCopy.h"
#include "ktr/MSManager.h"
#include "ktr/common/FileSystem.h"
#include "ktr/common/NotificationCenter.h"
#include "ktr/common/ThreadPool.h"
#include "ktr/common/WebHookBasic.h"

#include <Poco/Dynamic/Var.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Format.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Path.h>
#include <Poco/SharedLibrary.h>
#include <Poco/SharedPtr.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace ktr {

/// The registry's record of one opened plugin library.
struct Plugin {
    // Stays empty for libraries that PluginLoadAll opened: their code must stay mapped while any
    // object or callback of theirs may still run.
    Poco::SharedPtr<Poco::SharedLibrary> library;
    std::function<std::shared_ptr<PluginBase>()> factory;
    void (*loadFn)() = nullptr;
    void (*unloadFn)() = nullptr;
    std::int32_t (*typeFn)() = nullptr;
    const char* (*nameFn)() = nullptr;
    const char* (*guidFn)() = nullptr;
    std::int32_t type = 0;
    std::string name;
    std::string guid;
    std::shared_ptr<PluginBase> instance;
};

/// One routed event; never changed once it is queued.
struct Message {
    Poco::JSON::Array::Ptr to;
    std::string text;
};

using MessageList = std::list<std::shared_ptr<Message>>;

static constexpr const char* kSourceFile = "src/pluginmgr/PluginManager";

// The registry. The mutex guards the map, and the factory and instance of its records; it is not
// recursive and held while a plugin's stop, factory, setEventCallback and onMessage run.
static std::unordered_map<std::string, std::shared_ptr<Plugin>> s_plugins_map;
static std::mutex s_plugin_mutex;
// Plugins loaded but not yet started. Deliberately plain: pool threads count it down unguarded.
static std::int32_t s_plugin_cnt = 0;

// Pending events of the two paths, each guarded by its mutex. The pools are declared after them
// and after the registry, so that they end first.
static std::shared_ptr<MessageList> s_transform_message_queue(new MessageList);
static std::mutex s_transform_message_mutex;
static std::shared_ptr<MessageList> s_rapid_transform_message_queue(new MessageList);
static std::mutex s_rapid_transform_message_mutex;
// an idle slot, kept as part of the layout
[[maybe_unused]] static std::shared_ptr<MessageList> s_transform_message_cache(new MessageList);
// Set when either queue overflows; the first transformer that sees it gives up its batch.
static std::atomic<bool> s_is_discard_message{false};
static std::shared_ptr<ThreadPool> s_thread_pool;
static std::shared_ptr<ThreadPool> s_rapid_thread_pool;

// made once, not for every event
static const std::string s_task_name("eventCallback");
static const std::string s_rapid_task_name("rapidEventCallBack");

static constexpr std::size_t kQueueLimit = 50;
static constexpr std::size_t kRapidQueueLimit = 20;
static constexpr unsigned short kHighestReservedPort = 1024;

namespace {

/// At the end of the process lets the tasks of both pools end before either pool goes: a delivery
/// on one may raise an event on the other.
struct EventPoolsEnd {
    ~EventPoolsEnd() {
        for (const auto& pool : {s_thread_pool, s_rapid_thread_pool})
            if (pool)
                pool->close();
    }
};

const EventPoolsEnd s_event_pools_end;

} // namespace

std::thread _loop_thread_get_cpu_temp;
std::atomic<bool> _loop_thread_get_cpu_temp_run{false};

// ---- registry

void registerPlugin(std::function<std::shared_ptr<PluginBase>()> factory, const char* guid) {
    if (guid == nullptr) {
        KTR_LOG(information, "plugin regist, guid is null");
        return;
    }
    KTR_LOG(information, Poco::format("plugin regist, guid: %s", std::string(guid)));
    const std::string key(guid);
    if (key.empty()) {
        KTR_LOG(information, "plugin regist, guid is empty");
        return;
    }
    KTR_LOG(information, Poco::format("plugin regist, guid: %s", key));
    const std::lock_guard<std::mutex> lock(s_plugin_mutex);
    const auto found = s_plugins_map.find(key);
    if (found == s_plugins_map.end()) {
        KTR_LOG(information, Poco::format("plugin not found, guid: %s", key));
        return;
    }
    if (const std::shared_ptr<Plugin> plugin = found->second)
        plugin->factory = factory;
}

void unregisterPlugin(const char* guid) {
    if (guid == nullptr || *guid == '\0')
        return;
    const std::string key(guid);
    const std::lock_guard<std::mutex> lock(s_plugin_mutex);
    s_plugins_map.erase(key);
}

// ---- loading and unloading

template <class Function>
static void sResolve(Poco::SharedLibrary& library, const std::string& symbol,
                     const std::string& path, Function& entryPoint) {
    if (library.hasSymbol(symbol))
        entryPoint = reinterpret_cast<Function>(library.getSymbol(symbol));
    else
        KTR_LOG(error, Poco::format("interface '%s' not exist, plugin: %s", symbol, path));
}

static void sResolveAll(Poco::SharedLibrary& library, const std::string& path, Plugin& plugin) {
    sResolve(library, "PluginLoad", path, plugin.loadFn);
    sResolve(library, "PluginUnLoad", path, plugin.unloadFn);
    sResolve(library, "PluginType", path, plugin.typeFn);
    sResolve(library, "PluginName", path, plugin.nameFn);
    sResolve(library, "PluginGuid", path, plugin.guidFn);
}

static void sDescribe(Plugin& plugin) {
    if (plugin.typeFn != nullptr) {
        plugin.type = plugin.typeFn();
        KTR_LOG(information, Poco::format("plugin type: %d", plugin.type));
    }
    if (plugin.nameFn != nullptr) {
        plugin.name = plugin.nameFn();
        KTR_LOG(information, Poco::format("plugin name: %s", plugin.name));
    }
    if (plugin.guidFn != nullptr) {
        plugin.guid = plugin.guidFn();
        KTR_LOG(information, Poco::format("plugin guid: %s", plugin.guid));
    }
}

static void sLoadPlugin(const std::string& path) {
    try {
        // Deleted at the end of this function, which leaves the library mapped.
        Poco::SharedPtr<Poco::SharedLibrary> library(new Poco::SharedLibrary);
        refuseTruncatedLibrary(path);
        library->load(path);
        const std::shared_ptr<Plugin> plugin(new Plugin());
        sResolveAll(*library, path, *plugin);
        sDescribe(*plugin);
        {
            const std::lock_guard<std::mutex> lock(s_plugin_mutex);
            s_plugins_map[plugin->guid] = plugin;
        }
        // Without the lock: PluginLoad calls registerPlugin, which takes it.
        if (plugin->loadFn != nullptr) {
            plugin->loadFn();
            KTR_LOG(information, Poco::format("plugin '%s' loaded", path));
            ++s_plugin_cnt;
        }
    } catch (const Poco::Exception& e) {
        KTR_LOG(critical, e.displayText());
    } catch (const std::exception& e) {
        KTR_LOG(critical, e.what());
    }
}

void PluginLoadAll() {
    const std::string directory = getCurrentChildPath("plugins");
    std::list<std::string> paths;
    try {
        listFilesRecursively(Poco::Path(directory), paths, ListFileType::Regular, "libKetraPlugin");
    } catch (const Poco::Exception& e) {
        KTR_LOG(critical, e.displayText());
    } catch (const std::exception& e) {
        KTR_LOG(critical, e.what());
    }
    for (const std::string& path : paths)
        sLoadPlugin(path);
    KTR_LOG(information, Poco::format("load plugin count: %d", s_plugin_cnt));
}

static void sUnloadPlugin(Plugin& plugin) {
    const std::string name = plugin.name;
    KTR_LOG(information, Poco::format("----before PluginUnLoadAll-plugin: %s", name));
    if (plugin.library) {
        plugin.library->unload();
        plugin.library.reset();
    }
    if (plugin.instance) {
        plugin.instance->stop();
        plugin.instance.reset();
    }
    KTR_LOG(information, Poco::format("----end PluginUnLoadAll-plugin: %s", name));
}

void PluginUnLoadAll() {
    try {
        s_plugin_cnt = 0;
        const std::lock_guard<std::mutex> lock(s_plugin_mutex);
        for (const auto& entry : s_plugins_map)
            if (entry.second)
                sUnloadPlugin(*entry.second);
        s_plugins_map.clear();
        if (_loop_thread_get_cpu_temp.joinable()) {
            _loop_thread_get_cpu_temp_run.exchange(false);
            _loop_thread_get_cpu_temp.join();
        }
    } catch (const Poco::Exception& e) {
        KTR_LOG(critical, e.displayText());
    } catch (const std::exception& e) {
        KTR_LOG(critical, e.what());
    }
}

// ---- event delivery

static void sLogDeliveryFailure(const std::string& reason,
                                const std::shared_ptr<Message>& message) {
    // The message goes in as a pointer, which shows as a format error: the line names the failure,
    // never the text of an event.
    KTR_LOG(error,
            Poco::format("exception in event callback, error: %s, message: %s", reason, message));
}

static void sDeliverTo(const Poco::Dynamic::Var& recipient,
                       const std::shared_ptr<Message>& message) {
    try {
        const auto& guid = recipient.extract<std::string>();
        const std::lock_guard<std::mutex> lock(s_plugin_mutex);
        const auto found = s_plugins_map.find(guid);
        if (found == s_plugins_map.end() || !found->second)
            return;
        const Plugin& plugin = *found->second;
        if (plugin.guid == guid && plugin.instance)
            plugin.instance->onMessage(message->text);
    } catch (const Poco::Exception& e) {
        sLogDeliveryFailure(e.displayText(), message);
    } catch (const std::exception& e) {
        sLogDeliveryFailure(e.what(), message);
    }
}

static void sDeliver(const std::shared_ptr<Message>& message) {
    const Poco::JSON::Array::Ptr to = message->to;
    if (!to)
        return;
    for (const Poco::Dynamic::Var& recipient : *to)
        if (!recipient.isEmpty())
            sDeliverTo(recipient, message);
}

static void sMessageTransformer(std::shared_ptr<MessageList> batch, bool& enabled) {
    if (!batch || !enabled || batch->empty())
        return;
    for (const std::shared_ptr<Message>& message : *batch) {
        try {
            if (s_is_discard_message) {
                s_is_discard_message = false;
                KTR_LOG(information, "recieved service's message discard!");
                return;
            }
            sDeliver(message);
        } catch (const Poco::Exception& e) {
            sLogDeliveryFailure(e.displayText(), message);
        } catch (const std::exception& e) {
            sLogDeliveryFailure(e.what(), message);
        }
    }
}

// ---- event intake

static std::shared_ptr<ThreadPool> sMakeEventPool(const std::string& name) {
    return std::make_shared<ThreadPool>(name, 1, 4, 60, 0);
}

/// Hands everything pending to `pool` as one batch. The queue's mutex is held.
static void sSubmit(std::shared_ptr<MessageList>& queue, ThreadPool& pool,
                    const std::string& name) {
    std::shared_ptr<MessageList> batch(new MessageList);
    batch.swap(queue);
    pool.start(std::bind(sMessageTransformer, std::move(batch), true), name);
}

static void sQueueRapid(const std::shared_ptr<Message>& message) {
    const std::unique_lock<std::mutex> lock(s_rapid_transform_message_mutex);
    if (s_rapid_transform_message_queue->size() > kRapidQueueLimit) {
        s_is_discard_message = true;
        s_rapid_transform_message_queue->clear();
        KTR_LOG(information,
                Poco::format("sEventCallback recive service's msg cnt: %d",
                             static_cast<int>(s_rapid_transform_message_queue->size())));
    }
    s_rapid_transform_message_queue->push_back(message);
    try {
        if (s_rapid_thread_pool->available() > 0)
            sSubmit(s_rapid_transform_message_queue, *s_rapid_thread_pool, s_rapid_task_name);
    } catch (const std::exception& e) {
        KTR_LOG(information, e.what());
    }
}

static void sQueueNormal(const std::shared_ptr<Message>& message) {
    const std::unique_lock<std::mutex> lock(s_transform_message_mutex);
    if (s_transform_message_queue->size() > kQueueLimit) {
        s_is_discard_message = true;
        s_transform_message_queue->clear();
    }
    s_transform_message_queue->push_back(message);
    try {
        if (s_thread_pool && s_thread_pool->available() > 0)
            sSubmit(s_transform_message_queue, *s_thread_pool, s_task_name);
    } catch (const std::exception& e) {
        KTR_LOG(information, e.what());
    }
}

// Without a lock on purpose: simultaneous first events may replace each other's pool.
static void sEnsureEventPool() {
    if (!s_thread_pool)
        s_thread_pool = sMakeEventPool("eventCallBack");
}

static void sEventCallback(std::string msg) {
    try {
        sEnsureEventPool();
        Poco::JSON::Parser parser;
        const auto event = parser.parse(msg).extract<Poco::JSON::Object::Ptr>();
        if (!event || !event->has("to"))
            return;
        const Poco::JSON::Array::Ptr to = event->getArray("to");
        if (!to)
            return;
        const auto message = std::make_shared<Message>();
        message->text = std::move(msg);
        message->to = to;
        std::string api;
        if (event->has("api"))
            api = event->get("api").convert<std::string>();
        if (api == "smaReceivePilotData" || api == "pushTelemetry")
            sQueueRapid(message);
        else
            sQueueNormal(message);
    } catch (const Poco::Exception& e) {
        KTR_LOG(critical, e.displayText());
    } catch (const std::exception& e) {
        KTR_LOG(critical, e.what());
    }
}

void publishMsgToAllPlugin(std::string& msg) {
    sEventCallback(msg);
}

void InitThreadPool() {
    s_rapid_thread_pool = sMakeEventPool("rapidEvent");
}

// ---- activation

// Whatever object the record holds by now, read without the lock. The copy keeps it alive through
// its own start, should a report or the shutdown replace it meanwhile.
static std::shared_ptr<PluginBase> sInstanceOf(const Plugin& plugin) {
    return plugin.instance;
}

static void sStart(const std::shared_ptr<Plugin>& plugin, const std::string& guid,
                   const std::shared_ptr<WebApiBasic>& webApi,
                   const std::shared_ptr<MqttClient>& mqttClient,
                   const Poco::SharedPtr<MSProperty>& ms) {
    KTR_LOG(information, Poco::format("starting plugin, guid: %s", guid));
    const std::shared_ptr<PluginBase> instance = sInstanceOf(*plugin);
    const MSProperty address = copyMSProperty(*ms);
    instance->start(webApi, mqttClient, address.ip, address.port);
    KTR_LOG(information, Poco::format("started plugin, guid: %s", guid));
}

static void sCountStarted() {
    if (--s_plugin_cnt != 0)
        return;
    WebHookBasic::defaultWebHook()->reportServerStarted();
    KTR_LOG(information, "edge reportServerStarted");
}

/// Makes a fresh object for the report's plugin and has it started. The registry's lock is held.
static void sActivate(std::shared_ptr<Plugin> plugin, const std::string& guid,
                      const std::shared_ptr<WebApiBasic>& webApi,
                      const std::shared_ptr<MqttClient>& mqttClient) {
    if (!plugin || !plugin->factory) {
        KTR_LOG(error, Poco::format("plugin_ptr is null, guid: %s", guid));
        return;
    }
    const Poco::SharedPtr<MSProperty> ms = MSManager::instance().getMSProperty(guid);
    if (!ms) {
        KTR_LOG(error, Poco::format("ms is null, guid: %s", guid));
        return;
    }
    if (plugin->instance) {
        plugin->instance->stop();
        plugin->instance.reset();
    }
    plugin->instance = plugin->factory();
    plugin->instance->setEventCallback(sEventCallback);
    try {
        if (ThreadPool::defaultPool().available() > 0)
            ThreadPool::defaultPool().start(
                [guid, webApi, mqttClient, ms, plugin] {
                    sStart(plugin, guid, webApi, mqttClient, ms);
                    sCountStarted();
                },
                "startService");
    } catch (const std::exception& e) {
        KTR_LOG(information, e.what());
        // started here and now; deliberately neither counted nor told to the web hook
        sStart(plugin, guid, webApi, mqttClient, ms);
    }
}

static void sOnReport(MSNotification& report, const std::shared_ptr<WebApiBasic>& webApi,
                      const std::shared_ptr<MqttClient>& mqttClient) {
    const std::string guid = report.getMSGuid();
    if (guid.empty()) {
        KTR_LOG(error, "report recieved guid is empty");
        return;
    }
    const std::string ip = report.getRpcIp();
    if (ip.empty()) {
        KTR_LOG(error, "report recieved ip is empty");
        return;
    }
    const int port = report.getRpcPort();
    if (port <= kHighestReservedPort) {
        KTR_LOG(error, Poco::format("report recieved port invalid: %d", port));
        return;
    }
    const std::lock_guard<std::mutex> lock(s_plugin_mutex);
    const auto found = s_plugins_map.find(guid);
    if (found == s_plugins_map.end()) {
        KTR_LOG(error, Poco::format("report recieved plugin not found for guid, guid: %s, ip: %s, "
                                    "port: %d",
                                    guid, ip, port));
        return;
    }
    try {
        sActivate(found->second, guid, webApi, mqttClient);
    } catch (const Poco::Exception& e) {
        KTR_LOG(critical, e.displayText());
    } catch (const std::exception& e) {
        KTR_LOG(critical, e.what());
    }
}

void PluginInstallApi(std::shared_ptr<WebApiBasic> webApi, std::shared_ptr<MqttClient> mqttClient) {
    try {
        NotificationCenter::defaultCenter().addObserver<MSNotification>(
            "MSNotification", [webApi, mqttClient](MSNotification* report) {
                sOnReport(*report, webApi, mqttClient);
            });
    } catch (const Poco::Exception& e) {
        KTR_LOG(critical, e.displayText());
    } catch (const std::exception& e) {
        KTR_LOG(critical, e.what());
    }
}

// ---- CPU temperature

static int sReadCpuTemperature(const std::string& path) {
    int millidegrees = 0;
    if (!Poco::File(path).exists())
        return 0;
    try {
        std::FILE* const file = std::fopen(path.c_str(), "r");
        if (file == nullptr)
            throw Poco::OpenFileException(path);
        std::array<char, 256> line{};
        if (std::fgets(line.data(), line.size(), file) != nullptr)
            std::sscanf(line.data(), "%d", &millidegrees);
        std::fclose(file);
    } catch (const std::exception& e) {
        KTR_LOG(information,
                Poco::format("getCpuTemperature failed, msg: %s", std::string(e.what())));
    }
    return millidegrees / 1000;
}

int getCpuTemperature() {
    return sReadCpuTemperature("/sys/class/thermal/thermal_zone0/temp");
}

} // namespace ktr
