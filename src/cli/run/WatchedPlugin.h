#pragma once

#include "PluginWatch.h"

namespace ktr::cli {

/// Stands before a plugin's object and passes every call on, exceptions included.
class WatchedPlugin final : public PluginBase {
public:
    WatchedPlugin(PluginWatch& watch_, std::shared_ptr<PluginBase> inner_);

    void setEventCallback(std::function<void(std::string)> callback) override;
    void start(std::shared_ptr<WebApiBasic> webApi_, std::shared_ptr<MqttClient> mqttClient_,
               std::string ip_, unsigned short port_) override;
    void stop() override;
    void onMessage(std::string text) override;

private:
    PluginWatch& watch;
    const std::shared_ptr<PluginBase> inner;
};

} // namespace ktr::cli
