// A plugin of the boot storm: its start takes as long as the storm says, and is noted.

#include "Shared.h"

#include <ktr/PluginEntry.h>

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

namespace {

using namespace ktr::bench;

class BootPlugin final : public ktr::PluginBase {
public:
    void start(std::shared_ptr<ktr::WebApiBasic> webApi_,
               std::shared_ptr<ktr::MqttClient> mqttClient_, std::string ip_,
               unsigned short port_) override {
        PluginBase::start(std::move(webApi_), std::move(mqttClient_), std::move(ip_), port_);
        const char* const file = std::getenv(kStormVariable);
        static Storm* const storm = file == nullptr ? nullptr : mapStorm(file);
        if (storm == nullptr)
            throw std::runtime_error("there is no storm");
        // what is measured: a start that takes its time
        std::this_thread::sleep_for(std::chrono::nanoseconds(storm->startNanoseconds));
        Notes& notes = storm->notes.at(static_cast<std::size_t>(port) - kFirstPort);
        notes.started = monotonicTime();
        ++notes.starts;
    }
    void stop() override {}
    void onMessage(std::string) override {}
};

} // namespace

// the copies get guids of their own in place of this one
KETRA_PLUGIN(BootPlugin, 1, "boot", kGuid);
