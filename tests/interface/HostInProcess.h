#pragma once

#include "ktr/MSManager.h"
#include "ktr/PluginManager.h"
#include "ktr/common/MqttClient.h"
#include "ktr/common/NotificationCenter.h"
#include "ktr/common/ThreadPool.h"
#include "ktr/common/WebApiBasic.h"
#include "support/TempDir.h"
#include "support/fakes/FakeHttp.h"

#include <filesystem>
#include <memory>
#include <string>
#include <unordered_map>

namespace ktr::test {

/// A host in this process, on a root that holds one plugin and no services.
class HostInProcess {
public:
    explicit HostInProcess(const std::filesystem::path& plugin) {
        std::filesystem::create_directory(root / "plugins");
        std::filesystem::copy_file(plugin, pluginFile());
        std::filesystem::current_path(root.path());
        InitThreadPool();
        PluginLoadAll();
        PluginInstallApi(WebApiBasic::instance(), std::make_shared<MqttClient>());
    }
    ~HostInProcess() {
        ThreadPool::defaultPool().joinAll();
        PluginUnLoadAll();
        NotificationCenter::defaultCenter().removeObserver("MSNotification");
        std::filesystem::current_path(formerPath);
    }
    HostInProcess(const HostInProcess&) = delete;
    HostInProcess& operator=(const HostInProcess&) = delete;

    /// The plugin as it was loaded.
    std::filesystem::path pluginFile() const { return root / "plugins/libKetraPluginProbe.so"; }

    /// A report as a service makes it; returns the answer. What it sets off has ended by then.
    static std::string report(const std::string& guid, const std::string& ip,
                              const std::string& port) {
        fakes::FakeResponse response;
        fakes::FakeRequest request("/index/api/all/report", response);
        MSManager::instance().reportProcess(
            request, response, {{"ip", ip}, {"port", port}, {"type", "7"}, {"guid", guid}});
        ThreadPool::defaultPool().joinAll();
        return response.body();
    }

private:
    TempDir root;
    const std::filesystem::path formerPath = std::filesystem::current_path();
};

} // namespace ktr::test
