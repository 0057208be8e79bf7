#include "WatchedPlugin.h"

#include <utility>

namespace ktr::cli {

WatchedPlugin::WatchedPlugin(PluginWatch& watch_, std::shared_ptr<PluginBase> inner_)
    : watch(watch_), inner(std::move(inner_)) {}

void WatchedPlugin::setEventCallback(std::function<void(std::string)> callback) {
    if (callback)
        callback = [&seen = watch, raise = std::move(callback)](std::string event) {
            seen.raised(event);
            raise(std::move(event));
        };
    watch.call("setEventCallback()", [&] { inner->setEventCallback(std::move(callback)); });
}

void WatchedPlugin::start(std::shared_ptr<WebApiBasic> webApi_,
                          std::shared_ptr<MqttClient> mqttClient_, std::string ip_,
                          unsigned short port_) {
    watch.call("start()", [&] {
        inner->start(std::move(webApi_), std::move(mqttClient_), std::move(ip_), port_);
    });
    watch.started();
}

void WatchedPlugin::stop() {
    watch.call("stop()", [&] { inner->stop(); });
}

void WatchedPlugin::onMessage(std::string text) {
    /// Also an event that the plugin threw at has reached it.
    struct Delivered {
        PluginWatch& watch;
        const std::string text;
        ~Delivered() { watch.delivered(text); }
    } const delivered{watch, text};
    watch.call("onMessage()", [&] { inner->onMessage(std::move(text)); });
}

} // namespace ktr::cli
