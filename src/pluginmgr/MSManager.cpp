#include "ktr/MSManager.h"

#include "Log.h"
#include "MSPropertyCopy.h"
#include "ServiceLaunch.h"
#include "ktr/common/FileSystem.h"
#include "ktr/common/JsonAnswer.h"
#include "ktr/common/NotificationCenter.h"
#include "ktr/common/ProcessControl.h"
#include "ktr/common/ThreadPool.h"
#include "ktr/common/WebApiBasic.h"

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/NotificationCenter.h>
#include <Poco/Path.h>
#include <Poco/SingletonHolder.h>

#include <chrono>
#include <filesystem>
#include <locale>
#include <pthread.h>
#include <sstream>
#include <utility>

namespace ktr {
namespace {

constexpr const char* kSourceFile = "src/pluginmgr/MSManager";

Poco::SingletonHolder<MSManager> s_ms_manager;

std::string executableName(const ProcessProperty& process) {
    return Poco::Path(process.path).getFileName();
}

Poco::Process::Args serviceArguments(unsigned short hostPort) {
    return {std::to_string(hostPort)};
}

// This version of Poco has no Path::self().
std::string ownExecutableDirectory() {
    return Poco::Path(std::filesystem::read_symlink("/proc/self/exe").string()).parent().toString();
}

// tryWait's answer for a process that has not exited
constexpr int kRunning = -1;
// logged for a child that somebody else waited for, so that its exit code is gone
constexpr int kExitCodeUnknown = -2;

int pollExitCode(const ProcessProperty& process) {
    try {
        return process.handle.tryWait();
    } catch (const Poco::SystemException& e) {
        // It is no child of ours any more; asking again would throw for ever.
        KTR_LOG(critical, e.displayText());
        return kExitCodeUnknown;
    }
}

/// Reads numbers alike wherever the host runs.
struct ClassicStream : std::istringstream {
    ClassicStream() { imbue(std::locale::classic()); }
};

template <class Number>
bool parseNumber(const std::string& text, Number& value) {
    // kept, since to make one takes longer than the rest of a report's check
    thread_local ClassicStream in;
    in.clear();
    in.str(text);
    return static_cast<bool>(in >> value);
}

void postReport(const std::string& ip, unsigned short port, int type, const std::string& guid) {
    Poco::AutoPtr<MSNotification> notification(new MSNotification);
    notification->setRpcIp(ip);
    notification->setRpcPort(port);
    notification->setMsType(type);
    notification->setMSGuid(guid);
    NotificationCenter::defaultCenter();
    Poco::NotificationCenter::defaultCenter().postNotification(notification);
}

} // namespace

MSNotification::MSNotification() = default;

MSNotification::~MSNotification() = default;

std::string MSNotification::name() const {
    return "MSNotification";
}

void MSNotification::setRpcIp(std::string ip) {
    rpcIp = std::move(ip);
}

void MSNotification::setRpcPort(unsigned short port) {
    rpcPort = port;
}

void MSNotification::setMSGuid(std::string guid) {
    msGuid = std::move(guid);
}

void MSNotification::setMsType(int type) {
    msType = type;
}

std::string MSNotification::getRpcIp() {
    return rpcIp;
}

unsigned short MSNotification::getRpcPort() {
    return rpcPort;
}

std::string MSNotification::getMSGuid() {
    return msGuid;
}

int MSNotification::getMsType() {
    return msType;
}

MSManager& MSManager::instance() {
    return *s_ms_manager.get();
}

MSManager::MSManager() = default;

MSManager::~MSManager() {
    stop();
    // A start() after stop() has made a thread that ends by itself and that stop() no longer joins.
    if (checkThread.joinable())
        checkThread.join();
}

void MSManager::start(std::string hostIp_, unsigned short hostPort_) {
    hostIp = std::move(hostIp_);
    hostPort = hostPort_;
    try {
        WebApiBasic::instance()->apiRegist(
            reportRoute,
            [this](Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response,
                   const std::unordered_map<std::string, std::string>& params) {
                reportProcess(request, response, params);
            });
        launchAll();
    } catch (const Poco::Exception& e) {
        KTR_LOG(error, e.displayText());
    } catch (const std::exception& e) {
        KTR_LOG(error, e.what());
    }
}

void MSManager::launchAll() {
    const std::string directory = getCurrentPath();
    const Poco::Path services(getCurrentChildPath("microservices"));
    std::list<std::string> paths;
    listFilesRecursively(services, paths, ListFileType::Executable, "");
    if (paths.empty()) {
        KTR_LOG(error, "microservice empty...");
        return;
    }
    for (const std::string& path : paths)
        launchOne(path, directory);
    checkThread = std::thread(&MSManager::processCheckThread, this);
}

void MSManager::launchOne(const std::string& path, const std::string& directory) {
    try {
        // a copy that an earlier run of the host left behind
        cleanProcessByName(Poco::Path(path).getFileName());
        const Poco::ProcessHandle handle =
            launchService(path, serviceArguments(hostPort), directory);
        processes.push_back(new ProcessProperty{path, handle});
    } catch (const Poco::Exception& e) {
        KTR_LOG(error, e.displayText());
    } catch (const std::exception& e) {
        KTR_LOG(error, e.what());
    }
}

Poco::SharedPtr<MSProperty> MSManager::getMSProperty(std::string guid) {
    const std::lock_guard<std::mutex> lock(propertyMutex);
    const auto found = properties.find(guid);
    if (found == properties.end()) {
        KTR_LOG(error, Poco::format("guid '%s' not exist", guid));
        return nullptr;
    }
    return found->second;
}

MSProperty copyMSProperty(const MSProperty& record) {
    const std::lock_guard<std::mutex> lock(MSManager::instance().propertyMutex);
    return record;
}

void MSManager::processCheckThread() {
    pthread_setname_np(pthread_self(), "supervision");
    running = true;
    ExitCodes failedRelaunches;
    do {
        if (stopped)
            return;
        // the period of supervision, before the first scan too; stop lets it run out
        std::this_thread::sleep_for(std::chrono::seconds(1));
        scan(failedRelaunches);
    } while (running);
}

void MSManager::scan(ExitCodes& failedRelaunches) {
    const std::lock_guard<std::mutex> lock(processMutex);
    for (Poco::SharedPtr<ProcessProperty>& process : processes) {
        if (!running || stopped)
            break;
        if (process)
            restartIfExited(*process, failedRelaunches);
    }
}

void MSManager::restartIfExited(ProcessProperty& process, ExitCodes& failedRelaunches) const {
    try {
        const auto failed = failedRelaunches.find(&process);
        const int code = failed == failedRelaunches.end() ? pollExitCode(process) : failed->second;
        if (code == kRunning)
            return;
        KTR_LOG(information, Poco::format("microservice %s exited, code: %d, restart it",
                                          executableName(process), code));
        // The system tells an exit code once, and the pid is free from then on: should the relaunch
        // fail, the next scan must not ask again.
        failedRelaunches[&process] = code;
        process.handle =
            launchService(process.path, serviceArguments(hostPort), ownExecutableDirectory());
        failedRelaunches.erase(&process);
    } catch (const Poco::Exception& e) {
        KTR_LOG(critical, e.displayText());
    } catch (const std::exception& e) {
        KTR_LOG(critical, e.what());
    }
}

void MSManager::stop() {
    if (stopped)
        return;
    running = false;
    stopped = true;
    if (checkThread.joinable())
        checkThread.join();
    try {
        const std::lock_guard<std::mutex> lock(processMutex);
        for (const Poco::SharedPtr<ProcessProperty>& process : processes) {
            if (!process || pollExitCode(*process) != kRunning)
                continue;
            KTR_LOG(information,
                    Poco::format("microservice %s running, stop it", executableName(*process)));
            cleanProcessById(static_cast<unsigned int>(process->handle.id()));
        }
        processes.clear();
    } catch (const Poco::Exception& e) {
        KTR_LOG(critical, e.displayText());
    } catch (const std::exception& e) {
        KTR_LOG(critical, e.what());
    }
}

void MSManager::reportProcess(Poco::Net::HTTPServerRequest& request,
                              Poco::Net::HTTPServerResponse& response,
                              const std::unordered_map<std::string, std::string>& params) {
    KTR_LOG(information, Poco::format("report recieved: %s", request.getURI()));
    const auto answer = [&response](int code, const std::string& message) {
        response.send() << makeJsonDefault(code, message);
    };
    for (const char* name : {"ip", "port", "type", "guid"})
        if (params.count(name) == 0)
            return answer(-1, std::string("parameter ") + name + " must specified");
    const std::string ip = params.at("ip");
    const std::string portText = params.at("port");
    const std::string typeText = params.at("type");
    const std::string guid = params.at("guid");
    unsigned short port = 0;
    if (!parseNumber(portText, port)) {
        KTR_LOG(error, Poco::format("port number invalid: %s", portText));
        return answer(-1, "port number invalid");
    }
    int type = 0;
    if (!parseNumber(typeText, type)) {
        KTR_LOG(error, Poco::format("type number invalid: %s", typeText));
        return answer(-1, "type number invalid");
    }
    updateProperty(guid, ip, port);
    ThreadPool::defaultPool().start([ip, port, type, guid] { postReport(ip, port, type, guid); });
    answer(0, "success");
}

void MSManager::updateProperty(const std::string& guid, const std::string& ip,
                               unsigned short port) {
    const std::lock_guard<std::mutex> lock(propertyMutex);
    const auto found = properties.find(guid);
    if (found == properties.end()) {
        properties.emplace(guid, new MSProperty{ip, port});
    } else if (found->second) {
        // in place, so that whoever holds the record sees the new address
        found->second->ip = ip;
        found->second->port = port;
    }
}

} // namespace ktr
