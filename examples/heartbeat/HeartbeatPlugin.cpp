#include "common/Guids.h"

#include "ktr/PluginEntry.h"
#include "ktr/common/Logger.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace {

void tell(const std::string& text) {
    if (ktr::cachedLogger().information())
        ktr::cachedLogger().information("heartbeat: " + text, __FILE__, __LINE__);
}

/// Says that its service lives. It needs neither the address nor the host's services, so the base's
/// start() has nothing to keep for it.
class HeartbeatPlugin final : public ktr::PluginBase {
public:
    void start(std::shared_ptr<ktr::WebApiBasic>, std::shared_ptr<ktr::MqttClient>, std::string,
               unsigned short) override {
        // may come late, when the object was retired by a newer report
        if (!stopped)
            tell("service reported");
    }
    void stop() override {
        stopped = true;
        tell("stopped, messages taken: " + std::to_string(messages));
    }
    void onMessage(std::string) override { ++messages; }

private:
    std::atomic<bool> stopped{false};
    std::atomic<int> messages{0};
};

} // namespace

KETRA_PLUGIN(HeartbeatPlugin, 3, "heartbeat", ktr::example::kHeartbeatGuid);
