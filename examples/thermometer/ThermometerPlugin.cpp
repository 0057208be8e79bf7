#include "common/Guids.h"
#include "common/HttpClient.h"
#include "common/Worker.h"

#include "ktr/PluginEntry.h"
#include "ktr/common/Logger.h"

#include <Poco/Exception.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>

namespace {

using ktr::cachedLogger;
using ktr::example::HttpClient;
using ktr::example::Worker;

std::string telemetryEvent(const Poco::JSON::Object::Ptr& reading) {
    Poco::JSON::Array to;
    to.add(ktr::example::kRecorderGuid);
    Poco::JSON::Object event(Poco::JSON_PRESERVE_KEY_ORDER);
    event.set("to", to);
    event.set("api", "pushTelemetry");
    event.set("reading", reading);
    std::ostringstream text;
    event.stringify(text);
    return text.str();
}

/// Asks the service for a reading every second, from its making to its end.
class Poller {
public:
    Poller(const std::string& ip, unsigned short port, std::function<void(std::string)> raise_)
        : raise(std::move(raise_)), service(ip, port, Poco::Timespan(1, 0)),
          worker([this](Worker& self) { run(self); }) {}
    ~Poller() {
        worker.requestEnd();
        service.abort();
    }
    Poller(const Poller&) = delete;
    Poller& operator=(const Poller&) = delete;

private:
    enum class State { New, Reading, Failing };

    void run(Worker& self) {
        do {
            const std::string reason = pollOnce();
            if (!self.ending())
                tellChange(reason.empty() ? State::Reading : State::Failing, reason);
        } while (self.pause(std::chrono::seconds(1)));
    }

    /// Empty when a reading was raised, else why not.
    std::string pollOnce() {
        try {
            const auto answer = service.get("/reading");
            if (answer.status != 200)
                return "HTTP status " + std::to_string(answer.status);
            Poco::JSON::Parser parser;
            raise(telemetryEvent(parser.parse(answer.body).extract<Poco::JSON::Object::Ptr>()));
            return {};
        } catch (const Poco::Exception& e) {
            return e.displayText();
        } catch (const std::exception& e) {
            return e.what();
        }
    }

    void tellChange(State now, const std::string& reason) {
        if (std::exchange(state, now) == now)
            return;
        if (now == State::Reading && cachedLogger().information())
            cachedLogger().information("thermometer: readings arrive from " + service.address(),
                                       __FILE__, __LINE__);
        if (now == State::Failing && cachedLogger().warning())
            cachedLogger().warning("thermometer: no reading from " + service.address() +
                                       ", asked again every second: " + reason,
                                   __FILE__, __LINE__);
    }

    const std::function<void(std::string)> raise;
    HttpClient service;
    State state = State::New;
    Worker worker;
};

class ThermometerPlugin final : public ktr::PluginBase {
public:
    ~ThermometerPlugin() override { end(); }
    ThermometerPlugin() = default;
    ThermometerPlugin(const ThermometerPlugin&) = delete;
    ThermometerPlugin& operator=(const ThermometerPlugin&) = delete;

    void setEventCallback(std::function<void(std::string)> callback) override {
        const std::lock_guard<std::mutex> lock(mutex);
        PluginBase::setEventCallback(std::move(callback));
    }

    // A second start brings the address of a newer report. One that was queued before the object
    // was retired may come after stop().
    void start(std::shared_ptr<ktr::WebApiBasic> webApi_,
               std::shared_ptr<ktr::MqttClient> mqttClient_, std::string ip_,
               unsigned short port_) override {
        const std::lock_guard<std::mutex> lock(mutex);
        if (stopped)
            return;
        PluginBase::start(std::move(webApi_), std::move(mqttClient_), std::move(ip_), port_);
        poller.reset();
        poller = std::make_unique<Poller>(ip, port, eventCallback);
    }

    void stop() override { end(); }

    void onMessage(std::string) override {}

private:
    void end() {
        const std::lock_guard<std::mutex> lock(mutex);
        stopped = true;
        poller.reset();
    }

    // guards everything, the base's members too; the poller's thread never takes it
    std::mutex mutex;
    bool stopped = false;
    std::unique_ptr<Poller> poller;
};

} // namespace

KETRA_PLUGIN(ThermometerPlugin, 1, "thermometer", ktr::example::kThermometerGuid);
