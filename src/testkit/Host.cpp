#include "Host.h"

#include "PluginWatch.h"
#include "StepWatch.h"

#include "ktr/MSManager.h"
#include "ktr/PluginManager.h"
#include "ktr/common/NotificationCenter.h"
#include "ktr/common/ThreadPool.h"
#include "ktr/common/WebApiBasic.h"

#include <Poco/Net/HTMLForm.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/StreamCopier.h>
#include <Poco/Timespan.h>

#include <mutex>
#include <stdexcept>
#include <thread>

namespace ktr::testkit {
namespace {

namespace fs = std::filesystem;

/// The process's current directory is another one while it lives.
class InFolder {
public:
    explicit InFolder(const fs::path& folder) : former(fs::current_path()) {
        fs::current_path(folder);
    }
    ~InFolder() {
        std::error_code ignored;
        fs::current_path(former, ignored);
    }
    InFolder(const InFolder&) = delete;
    InFolder& operator=(const InFolder&) = delete;

private:
    const fs::path former;
};

/// An event to nobody on each path: what waited for a free thread goes along with it.
void raiseNothing() {
    for (const char* text : {R"({"to":[]})", R"({"to":[],"api":"pushTelemetry"})"}) {
        std::string event = text;
        publishMsgToAllPlugin(event);
    }
}

/// Once only: to replace a pool is not safe while a thread that a plugin left behind raises events.
void makeEventPools() {
    static std::once_flag made;
    std::call_once(made, InitThreadPool);
    raiseNothing();
}

void unload(const std::string& guid) {
    try {
        PluginUnLoadAll();
    } catch (...) {
        // told by whoever watches the plugin's stop()
    }
    // a stop() that throws leaves its record and those behind it
    unregisterPlugin(guid.c_str());
    PluginUnLoadAll();
    raiseNothing();
}

std::shared_ptr<MqttClient> makeClient(const MqttClient::Settings& settings) {
    return settings.url.empty() ? std::make_shared<MqttClient>()
                                : std::make_shared<MqttClient>(settings);
}

} // namespace

Host::Host(const MqttClient::Settings& mqtt, std::chrono::milliseconds deadline_)
    : deadline(deadline_), mqttClient(makeClient(mqtt)), wantsBroker(!mqtt.url.empty()),
      boundPort(WebApiBasic::instance()->bind("127.0.0.1", 0).port()) {
    makeEventPools();
}

Host::~Host() {
    takeDown();
}

void Host::loadPlugins(const fs::path& root) const {
    const InFolder inRoot(root);
    const StepWatch watch("loading the plugin", deadline);
    try {
        PluginLoadAll();
    } catch (...) {
        throw std::runtime_error("loading the plugin ended with " + currentExceptionText() +
                                 ", with which the host's start would fail; throw only what is "
                                 "derived from std::exception");
    }
}

void Host::serve(const fs::path& root) {
    {
        const InFolder inRoot(root);
        MSManager::instance().start("127.0.0.1", boundPort);
    }
    connect();
    PluginInstallApi(WebApiBasic::instance(), mqttClient);
    WebApiBasic::instance()->serve();
}

void Host::connect() const {
    if (!wantsBroker)
        return;
    mqttClient->connect();
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!mqttClient->isConnected()) {
        if (std::chrono::steady_clock::now() >= end)
            throw std::runtime_error("the MQTT broker was not reached within " +
                                     std::to_string(deadline.count()) +
                                     " ms; start it first, and check the settings of the client");
        // the client tells nobody when it has connected
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

void Host::report(const std::string& guid, const std::string& ip, unsigned short port) const {
    Poco::Net::HTMLForm form;
    form.set("ip", ip);
    form.set("port", std::to_string(port));
    form.set("type", "1");
    form.set("guid", guid);
    std::string answer;
    try {
        answer = post("/index/api/all/report", form);
    } catch (const Poco::Exception& e) {
        answer = e.displayText();
    }
    if (answer != R"({"code":0,"msg":"success"})")
        throw std::runtime_error("the report of '" + guid + "' was answered with " + answer +
                                 " instead of success; leave router and report route to the "
                                 "library");
}

std::string Host::post(const std::string& route, Poco::Net::HTMLForm& form) const {
    Poco::Net::HTTPClientSession session("127.0.0.1", boundPort);
    session.setTimeout(
        Poco::Timespan(std::chrono::duration_cast<std::chrono::microseconds>(deadline).count()));
    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_POST, route,
                                   Poco::Net::HTTPRequest::HTTP_1_1);
    form.prepareSubmit(request);
    form.write(session.sendRequest(request));
    Poco::Net::HTTPResponse response;
    std::string answer;
    Poco::StreamCopier::copyToString(session.receiveResponse(response), answer);
    return answer;
}

bool Host::isIdle() {
    return ThreadPool::defaultPool().used() == 0;
}

void Host::takeDown(const std::string& guid) {
    if (!up)
        return;
    up = false;
    MSManager::instance().stop();
    {
        const StepWatch watch("a handler of the plugin's routes", deadline);
        WebApiBasic::instance()->stop();
    }
    {
        const StepWatch watch("the plugin's start() or other work on the default pool", deadline);
        ThreadPool::defaultPool().joinAll();
    }
    {
        const StepWatch watch("the plugin's stop() or destructor", deadline);
        unload(guid);
    }
    NotificationCenter::defaultCenter().removeObserver("MSNotification");
    mqttClient->disconnect();
}

} // namespace ktr::testkit
