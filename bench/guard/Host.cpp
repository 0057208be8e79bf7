#include "Host.h"

#include "ktr/MSManager.h"
#include "ktr/PluginBase.h"
#include "ktr/PluginManager.h"
#include "ktr/common/Logger.h"
#include "ktr/common/MqttClient.h"
#include "ktr/common/NotificationCenter.h"
#include "ktr/common/ThreadPool.h"
#include "ktr/common/WebApiBasic.h"

#include <Poco/AutoPtr.h>
#include <Poco/NullChannel.h>
#include <Poco/String.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace ktr::bench {
namespace {

namespace fs = std::filesystem;

/// Rings when it gets an event, if there is a bell for it.
class Listener : public PluginBase {
public:
    explicit Listener(Bell* bell_) : bell(bell_) {}

    void stop() override {}
    void onMessage(std::string) override {
        if (bell != nullptr)
            bell->ring();
    }

private:
    Bell* const bell;
};

std::string content(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

/// Has the default pool make threads for all that runs at once, so that none is made later.
void fillDefaultPool() {
    constexpr int threads = 8;
    Bell begun;
    Bell end;
    {
        const auto held = end.hold();
        for (int i = 0; i < threads; ++i)
            ThreadPool::defaultPool().start([&] {
                begun.ring();
                end.ring();
            });
        while (!begun.await(threads)) {
        }
    }
    ThreadPool::defaultPool().joinAll();
}

} // namespace

Host::Host() {
    // what becomes of the log's lines is not Ketra's
    cachedLogger().setChannel(Poco::AutoPtr<Poco::Channel>(new Poco::NullChannel));
    fs::current_path(root.path());
    fs::create_directory("plugins");
    fs::create_directory("microservices");
}

Host::~Host() {
    MSManager::instance().stop();
    WebApiBasic::instance()->stop();
    ThreadPool::defaultPool().joinAll();
    PluginUnLoadAll();
    NotificationCenter::defaultCenter().removeObserver("MSNotification");
    fs::current_path("/");
}

std::string Host::guid(int number) {
    const std::string digits = std::to_string(number);
    std::string guid = GUARD_PLUGIN_GUID;
    return guid.replace(guid.size() - digits.size(), digits.size(), digits);
}

void Host::putPlugins(int count) const {
    const std::string library = content(GUARD_PLUGIN_FILE);
    if (library.find(GUARD_PLUGIN_GUID) == std::string::npos)
        throw std::runtime_error("the guid is not in " GUARD_PLUGIN_FILE);
    for (int i = 0; i < count; ++i)
        std::ofstream("plugins/libKetraPluginGuard" + std::to_string(i) + ".so", std::ios::binary)
            << Poco::replace(library, std::string(GUARD_PLUGIN_GUID), guid(i));
}

void Host::startPlugins(int count) {
    InitThreadPool();
    putPlugins(count);
    PluginLoadAll();
    for (int i = 0; i < count; ++i) {
        Bell* const bell = i == count - 1 ? &delivered : nullptr;
        registerPlugin([bell] { return std::make_shared<Listener>(bell); }, guid(i).c_str());
    }
    const auto webApi = WebApiBasic::instance();
    const Poco::Net::SocketAddress address = webApi->bind();
    MSManager::instance().start("127.0.0.1", address.port());
    PluginInstallApi(webApi, std::make_shared<MqttClient>());
    webApi->serve();
    fillDefaultPool();
    client.emplace(address);
    client->stream().setReceiveTimeout(Poco::Timespan(60, 0));
    for (int i = 0; i < count; ++i) {
        request = requestOf(i);
        report();
    }
}

std::string Host::requestOf(int number) const {
    return "GET /index/api/all/report?ip=127.0.0.1&port=12345&type=1&guid=" + guid(number) +
           " HTTP/1.1\r\nHost: localhost\r\n\r\n";
}

void Host::report() {
    client->send(request);
    const std::string answer = client->answer();
    if (answer.find("success") == std::string::npos)
        throw std::runtime_error("the report was answered with " + answer);
    ThreadPool::defaultPool().joinAll();
}

} // namespace ktr::bench
