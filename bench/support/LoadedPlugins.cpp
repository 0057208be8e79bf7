#include "LoadedPlugins.h"

#include "plugins/Board.h"
#include "support/WaitUntil.h"

#include "ktr/MSManager.h"
#include "ktr/PluginManager.h"
#include "ktr/common/Logger.h"
#include "ktr/common/MqttClient.h"
#include "ktr/common/NotificationCenter.h"
#include "ktr/common/ThreadPool.h"
#include "ktr/common/WebApiBasic.h"

#include <Poco/Net/HTMLForm.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/NullStream.h>
#include <Poco/StreamCopier.h>

#include <filesystem>
#include <stdexcept>

namespace ktr::bench {
namespace {

namespace fs = std::filesystem;

constexpr const char* kReportRoute = "/report";

void load(const fs::path& root) {
    fs::create_directory(root / "plugins");
    for (const fs::directory_entry& entry : fs::directory_iterator(KETRA_BENCH_PLUGINS))
        fs::create_symlink(entry.path(), root / "plugins" / entry.path().filename());
    const fs::path former = fs::current_path();
    fs::current_path(root);
    PluginLoadAll();
    fs::current_path(former);
}

/// Reports as the service of the plugin `number` would.
void report(unsigned short hostPort, std::size_t number) {
    Poco::Net::HTMLForm form;
    form.set("ip", "127.0.0.1");
    form.set("port", "40000");
    form.set("type", "1");
    form.set("guid", guidOf(number));
    Poco::Net::HTTPClientSession session("127.0.0.1", hostPort);
    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_POST, kReportRoute,
                                   Poco::Net::HTTPRequest::HTTP_1_1);
    form.prepareSubmit(request);
    form.write(session.sendRequest(request));
    Poco::Net::HTTPResponse response;
    Poco::NullOutputStream nowhere;
    Poco::StreamCopier::copyStream(session.receiveResponse(response), nowhere);
}

bool isStarted(std::size_t number) {
    return board().plugins.at(number) != nullptr;
}

} // namespace

LoadedPlugins::LoadedPlugins() : mqttClient(std::make_shared<MqttClient>()) {
    cachedLogger().setLevel(Poco::Message::PRIO_WARNING);
    InitThreadPool();
    load(root.path());
    const std::shared_ptr<WebApiBasic> webApi = WebApiBasic::instance();
    // without the manager's start, which would also look for services to launch
    webApi->apiRegist(kReportRoute, [](auto& request, auto& response, const auto& params) {
        MSManager::instance().reportProcess(request, response, params);
    });
    const unsigned short port = webApi->bind("127.0.0.1", 0).port();
    PluginInstallApi(webApi, mqttClient);
    webApi->serve();
    for (std::size_t i = 0; i < kPluginCount; ++i) {
        report(port, i);
        if (!test::waitUntil([i] { return isStarted(i); }))
            throw std::runtime_error("the plugin " + guidOf(i) + " has not started");
    }
}

LoadedPlugins::~LoadedPlugins() {
    WebApiBasic::instance()->stop();
    WebApiBasic::instance()->apiUnregist(kReportRoute);
    ThreadPool::defaultPool().joinAll();
    PluginUnLoadAll();
    NotificationCenter::defaultCenter().removeObserver("MSNotification");
}

} // namespace ktr::bench
