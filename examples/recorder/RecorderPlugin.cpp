#include "common/Guids.h"
#include "common/HttpClient.h"
#include "common/Worker.h"
#include "recorder/EventQueue.h"

#include "ktr/PluginEntry.h"
#include "ktr/common/JsonAnswer.h"
#include "ktr/common/Logger.h"
#include "ktr/common/WebApiBasic.h"

#include <Poco/Exception.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/URI.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>

namespace {

using ktr::cachedLogger;
using ktr::makeJsonDefault;
using ktr::example::EventQueue;
using ktr::example::HttpAnswer;
using ktr::example::HttpClient;
using ktr::example::Worker;
using Poco::Net::HTTPResponse;

constexpr const char* kRoute = "/recorder/readings";
constexpr std::size_t kMaxEvents = 1000;
constexpr std::size_t kMaxEventBytes = std::size_t{16} * 1024;
const Poco::Timespan kTimeout(1, 0);

void warn(const std::string& text, int line) {
    if (cachedLogger().warning())
        cachedLogger().warning("recorder: " + text, __FILE__, line);
}

bool isGood(int status) {
    return status == HTTPResponse::HTTP_OK;
}

/// Asking again would bring the same answer.
bool isRefusal(int status) {
    return status >= 400 && status < 500;
}

std::string readingOf(const std::string& event) {
    Poco::JSON::Parser parser;
    const auto reading =
        parser.parse(event).extract<Poco::JSON::Object::Ptr>()->getObject("reading");
    if (!reading)
        throw Poco::DataFormatException("it has no \"reading\" object");
    std::ostringstream text;
    reading->stringify(text);
    return text.str();
}

/// Takes events from the queue to the service, oldest first, from its making to its end. An event
/// leaves the queue when the service has it, so what is under way at the end is sent again later.
class Forwarder {
public:
    Forwarder(std::shared_ptr<EventQueue> queue_, std::shared_ptr<HttpClient> service_)
        : queue(std::move(queue_)), service(std::move(service_)),
          worker([this](Worker& self) { run(self); }) {}
    ~Forwarder() {
        ended = true;
        worker.requestEnd();
        queue->wake();
        service->abort();
    }
    Forwarder(const Forwarder&) = delete;
    Forwarder& operator=(const Forwarder&) = delete;

private:
    void run(Worker& self) {
        while (const auto event = queue->front(ended)) {
            if (forward(event->text))
                queue->remove(event->number);
            else
                self.pause(std::chrono::seconds(1));
        }
    }

    /// False if it should be tried again.
    bool forward(const std::string& event) {
        std::string reading;
        try {
            reading = readingOf(event);
        } catch (const std::exception& e) {
            warn(std::string("event dropped, no reading in it: ") + describe(e), __LINE__);
            return true;
        }
        try {
            return settle(service->post("/readings", reading));
        } catch (const std::exception& e) {
            return tellFailure(describe(e));
        }
    }

    bool settle(const HttpAnswer& answer) {
        if (isGood(answer.status)) {
            if (std::exchange(failing, false) && cachedLogger().information())
                cachedLogger().information("recorder: service answers again", __FILE__, __LINE__);
            return true;
        }
        if (isRefusal(answer.status)) {
            warn("event dropped, refused by the service: " + answer.body, __LINE__);
            return true;
        }
        return tellFailure("HTTP status " + std::to_string(answer.status));
    }

    bool tellFailure(const std::string& reason) {
        if (!ended && !std::exchange(failing, true))
            warn("events wait, service at " + service->address() + " fails: " + reason, __LINE__);
        return false;
    }

    static std::string describe(const std::exception& e) {
        const auto* const poco = dynamic_cast<const Poco::Exception*>(&e);
        return poco != nullptr ? poco->displayText() : e.what();
    }

    const std::shared_ptr<EventQueue> queue;
    const std::shared_ptr<HttpClient> service;
    std::atomic<bool> ended{false};
    bool failing = false;
    Worker worker;
};

/// Answers the latest readings with what the service says, from its making to its end.
class ReadingsRoute {
public:
    ReadingsRoute(std::shared_ptr<ktr::WebApiBasic> webApi_, std::shared_ptr<HttpClient> service_)
        : webApi(std::move(webApi_)), service(std::move(service_)) {
        webApi->apiRegist(kRoute, [asked = service](auto&, auto& response, const auto& params) {
            answer(*asked, response, params);
        });
    }
    ~ReadingsRoute() {
        // a handler that waits for the service would keep us
        service->abort();
        webApi->apiUnregist(kRoute);
    }
    ReadingsRoute(const ReadingsRoute&) = delete;
    ReadingsRoute& operator=(const ReadingsRoute&) = delete;

private:
    static void answer(HttpClient& service, Poco::Net::HTTPServerResponse& response,
                       const ktr::WebApiBasic::Parameters& params) {
        const HttpAnswer found = ask(service, params);
        response.setStatusAndReason(static_cast<HTTPResponse::HTTPStatus>(found.status));
        response.setContentType("application/json");
        response.setContentLength(static_cast<std::streamsize>(found.body.size()));
        response.send() << found.body;
    }

    static HttpAnswer ask(HttpClient& service, const ktr::WebApiBasic::Parameters& params) {
        Poco::URI target("/readings");
        const auto limit = params.find("limit");
        if (limit != params.end())
            target.addQueryParameter("limit", limit->second);
        try {
            HttpAnswer found = service.get(target.getPathAndQuery());
            if (isGood(found.status) || isRefusal(found.status))
                return found;
            return {HTTPResponse::HTTP_BAD_GATEWAY,
                    makeJsonDefault(-1, "recorder service failed: HTTP status " +
                                            std::to_string(found.status))};
        } catch (const Poco::Exception& e) {
            return {HTTPResponse::HTTP_SERVICE_UNAVAILABLE,
                    makeJsonDefault(-1, "recorder service does not answer, try again in a few "
                                        "seconds: " +
                                            e.displayText())};
        }
    }

    const std::shared_ptr<ktr::WebApiBasic> webApi;
    const std::shared_ptr<HttpClient> service;
};

/// Outlives the plugin's objects: a service that comes back gets what came while it was away.
std::shared_ptr<EventQueue> sharedQueue() {
    static const auto queue = std::make_shared<EventQueue>(kMaxEvents);
    return queue;
}

class RecorderPlugin final : public ktr::PluginBase {
public:
    RecorderPlugin() = default;
    ~RecorderPlugin() override { end(); }
    RecorderPlugin(const RecorderPlugin&) = delete;
    RecorderPlugin& operator=(const RecorderPlugin&) = delete;

    // A second start brings the address of a newer report. One that was queued before the object
    // was retired may come after stop().
    void start(std::shared_ptr<ktr::WebApiBasic> webApi_,
               std::shared_ptr<ktr::MqttClient> mqttClient_, std::string ip_,
               unsigned short port_) override {
        const std::lock_guard<std::mutex> lock(mutex);
        if (stopped)
            return;
        PluginBase::start(std::move(webApi_), std::move(mqttClient_), std::move(ip_), port_);
        route.reset();
        forwarder.reset();
        const auto service = std::make_shared<HttpClient>(ip, port, kTimeout);
        forwarder = std::make_unique<Forwarder>(queue, service);
        route = std::make_unique<ReadingsRoute>(webApi, service);
    }

    void stop() override { end(); }

    void onMessage(std::string text) override {
        if (text.size() > kMaxEventBytes) {
            warn("event dropped, it is longer than " + std::to_string(kMaxEventBytes) + " bytes",
                 __LINE__);
            return;
        }
        const std::uint64_t dropped = queue->push(std::move(text));
        if (dropped % 100 == 1)
            warn("queue full, dropped so far: " + std::to_string(dropped) + ", the oldest first",
                 __LINE__);
    }

private:
    void end() {
        const std::lock_guard<std::mutex> lock(mutex);
        stopped = true;
        route.reset();
        forwarder.reset();
    }

    const std::shared_ptr<EventQueue> queue = sharedQueue();

    // guards what follows and the base's members; neither the route's handler nor the forwarder's
    // thread takes it
    std::mutex mutex;
    bool stopped = false;
    std::unique_ptr<Forwarder> forwarder;
    std::unique_ptr<ReadingsRoute> route;
};

} // namespace

KETRA_PLUGIN(RecorderPlugin, 2, "recorder", ktr::example::kRecorderGuid);
