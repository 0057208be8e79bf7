#pragma once

#include "ktr/Export.h"

#include <Poco/Notification.h>
#include <Poco/Process.h>
#include <Poco/RefCountedObject.h>
#include <Poco/SharedPtr.h>

#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>

namespace Poco::Net {
class HTTPServerRequest;
class HTTPServerResponse;
} // namespace Poco::Net

namespace ktr {

/// Where a microservice serves, as it last reported. A record handed out by
/// MSManager::getMSProperty is updated in place when the service reports again.
struct MSProperty {
    /// Address, as text and unchecked.
    std::string ip;
    /// Port, 0 to 65535.
    unsigned short port = 0;
};

/// One launched executable.
struct ProcessProperty {
    /// Full path, as found below "microservices"; also the command of every relaunch.
    std::string path;
    /// The process that runs now, replaced on each restart.
    Poco::ProcessHandle handle;
};

/// Posted on Poco::NotificationCenter::defaultCenter() for every accepted report of a microservice,
/// on a thread of the default pool. Not synchronised: written before it is posted, only read later.
class KTR_API MSNotification : public Poco::Notification {
public:
    /// The address is "127.0.0.1", port and type are 0, the guid is empty.
    MSNotification();
    ~MSNotification() override;

    /// Always "MSNotification".
    std::string name() const override;

    /// Sets what getRpcIp tells; any text.
    void setRpcIp(std::string ip);
    /// Sets what getRpcPort tells.
    void setRpcPort(unsigned short port);
    /// Sets what getMSGuid tells; any text.
    void setMSGuid(std::string guid);
    /// Sets what getMsType tells.
    void setMsType(int type);

    /// Address at which the service serves its remote calls, as reported.
    std::string getRpcIp();
    /// Port at which it serves them, 0 to 65535, as reported.
    unsigned short getRpcPort();
    /// The reported guid, which is also the plugin's.
    std::string getMSGuid();
    /// The reported type; any 32-bit number.
    int getMsType();

private:
    std::string rpcIp = "127.0.0.1";
    unsigned short rpcPort = 0;
    std::string msGuid;
    int msType = 0;
};

/// Launches the microservices, restarts those that exit, ends them at shutdown, and takes their
/// reports. One for the process.
///
/// Thread safety: start and stop are called by one thread; getMSProperty and reportProcess may be
/// called by any number of threads at once.
class KTR_API MSManager {
public:
    /// The process-wide manager, made by the first call and deleted when the library is torn down.
    static MSManager& instance();

    MSManager();
    /// Calls stop(). Executables launched by a start() after stop() are left running.
    ~MSManager();
    MSManager(const MSManager&) = delete;
    MSManager& operator=(const MSManager&) = delete;

    /// Registers the report route "/index/api/all/report" on WebApiBasic::instance(), ends whatever
    /// on this machine bears the file name of a microservice, launches every executable below the
    /// child directory "microservices" of the current directory with the decimal `hostPort` as its
    /// only argument, and starts supervision: whatever exits is relaunched within about a second,
    /// in the directory of the host's executable.
    ///
    /// Services start in the current directory, with no signal blocked or ignored, as leaders of a
    /// process group of their own, and read from /dev/null. `hostIp` is only stored.
    ///
    /// A service that cannot be launched is logged and passed over. An empty or missing directory
    /// is logged; the route then still answers. Call it once: a second call without stop() in
    /// between ends the process; after stop() it launches, but supervises and ends nothing.
    void start(std::string hostIp, unsigned short hostPort);

    /// Ends supervision, then ends every service that still runs and waits for it. Takes up to a
    /// second, and another for each service that does not heed SIGTERM. Only the first call has an
    /// effect; failures are logged and leave the services not yet visited running.
    void stop();

    /// The address that the service of `guid` reported last; null (and an error line) if it never
    /// did. The caller shares the record.
    Poco::SharedPtr<MSProperty> getMSProperty(std::string guid);

    /// Handles one report: the parameters "ip", "port" (0 to 65535), "type" (a 32-bit number) and
    /// "guid" are all required. Answers {"code":0,"msg":"success"} or code -1 with the reason,
    /// always with status 200, and has an MSNotification posted from the default pool. Lets out
    /// what the pool or the response throw; the router answers 500 then.
    void reportProcess(Poco::Net::HTTPServerRequest& request,
                       Poco::Net::HTTPServerResponse& response,
                       const std::unordered_map<std::string, std::string>& params);

private:
    friend MSProperty copyMSProperty(const MSProperty& record);
    using ExitCodes = std::unordered_map<const ProcessProperty*, int>;

    void launchAll();
    void launchOne(const std::string& path, const std::string& directory);
    void processCheckThread();
    void scan(ExitCodes& failedRelaunches);
    void restartIfExited(ProcessProperty& process, ExitCodes& failedRelaunches) const;
    void updateProperty(const std::string& guid, const std::string& ip, unsigned short port);

    std::string reportRoute = "/index/api/all/report";
    std::string hostIp;
    unsigned short hostPort = 0;

    // guards processes
    std::mutex processMutex;
    std::list<Poco::SharedPtr<ProcessProperty>> processes;
    std::thread checkThread;
    // written by stop(), read by the supervision thread; joining it is the hand-over
    bool running = false;

    // guards properties
    std::mutex propertyMutex;
    std::unordered_map<std::string, Poco::SharedPtr<MSProperty>> properties;
    bool stopped = false;
};

} // namespace ktr
