#include "Registration.h"

#include <dlfcn.h>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace ktr {
namespace testkit {
namespace {

constexpr const char* kRegisterPlugin =
    "_ZN3ktr14registerPluginESt8functionIFSt10shared_ptrINS_10PluginBaseEEvEEPKc";

/// Stands for the plugin's object in the registry.
class WatchedPlugin : public PluginBase {
public:
    WatchedPlugin(std::shared_ptr<PluginBase> plugin_, std::shared_ptr<PluginWatch> watch_)
        : plugin(std::move(plugin_)), watch(std::move(watch_)), number(watch->made()) {}
    ~WatchedPlugin() override { watch->dropped(); }
    WatchedPlugin(const WatchedPlugin&) = delete;
    WatchedPlugin& operator=(const WatchedPlugin&) = delete;

    void setEventCallback(std::function<void(std::string)> callback) override {
        plugin->setEventCallback(std::move(callback));
    }

    void start(std::shared_ptr<WebApiBasic> webApi_, std::shared_ptr<MqttClient> mqttClient_,
               std::string ip_, unsigned short port_) override {
        tellEnd(Call::start, "", [&] {
            plugin->start(std::move(webApi_), std::move(mqttClient_), std::move(ip_), port_);
        });
    }

    void stop() override {
        tellEnd(Call::stop, "", [this] { plugin->stop(); });
    }

    void onMessage(std::string text) override {
        tellEnd(Call::onMessage, text, [&] { plugin->onMessage(text); });
    }

private:
    template <class Work>
    void tellEnd(Call call, const std::string& text, Work work) {
        try {
            work();
        } catch (...) {
            watch->ended(call, number, text, currentExceptionText());
            throw;
        }
        watch->ended(call, number, text, "");
    }

    const std::shared_ptr<PluginBase> plugin;
    const std::shared_ptr<PluginWatch> watch;
    const unsigned number;
};

std::mutex watchMutex;
std::shared_ptr<PluginWatch> currentWatch;

std::shared_ptr<PluginWatch> watchOfNow() {
    const std::lock_guard<std::mutex> lock(watchMutex);
    return currentWatch;
}

Factory watched(Factory factory, const std::shared_ptr<PluginWatch>& watch) {
    return [factory = std::move(factory), watch]() -> std::shared_ptr<PluginBase> {
        std::shared_ptr<PluginBase> plugin = factory();
        if (!plugin)
            throw std::logic_error("the factory returned null, of which the host would crash");
        return std::make_shared<WatchedPlugin>(std::move(plugin), watch);
    };
}

const void* baseOf(const void* address) {
    Dl_info info{};
    return dladdr(address, &info) != 0 ? info.dli_fbase : nullptr;
}

} // namespace

void watchRegistrations(const std::shared_ptr<PluginWatch>& watch) {
    static const int anchor = 0;
    if (watch && baseOf(dlsym(RTLD_DEFAULT, kRegisterPlugin)) != baseOf(&anchor))
        throw std::runtime_error("plugins find another registerPlugin than the test kit's, which "
                                 "could then not watch them; link libKetraTestKit.so before "
                                 "libKetraPlugins.so, and define no registerPlugin in the test");
    const std::lock_guard<std::mutex> lock(watchMutex);
    currentWatch = watch;
}

void registerUnwatched(const Factory& factory, const char* guid) {
    static const auto real =
        reinterpret_cast<decltype(&registerPlugin)>(dlsym(RTLD_NEXT, kRegisterPlugin));
    if (real == nullptr)
        throw std::runtime_error("libKetraPlugins.so has no registerPlugin; use test kit and "
                                 "library of one version");
    real(factory, guid);
}

} // namespace testkit

// Plugins find this one before the registry's.
void registerPlugin(std::function<std::shared_ptr<PluginBase>()> factory, const char* guid) {
    const std::shared_ptr<testkit::PluginWatch> watch = testkit::watchOfNow();
    if (watch && guid != nullptr && factory) {
        watch->registered(guid);
        factory = testkit::watched(std::move(factory), watch);
    }
    testkit::registerUnwatched(factory, guid);
}

} // namespace ktr
