#pragma once

#include "common/HttpClient.h"
#include "common/Worker.h"

#include <chrono>
#include <string>

namespace ktr::example {

/// What a microservice tells the host about itself.
struct ServiceAddress {
    /// For log lines.
    std::string name;
    std::string ip;
    unsigned short port = 0;
    int type = 0;
    std::string guid;
};

struct ReportTiming {
    /// After a failed report; doubled for each further one, up to maxDelay.
    std::chrono::milliseconds firstDelay{200};
    std::chrono::milliseconds maxDelay{5000};
    /// After an accepted one: a host that was started anew learns of us without our restart.
    std::chrono::milliseconds repeat{30000};
    Poco::Timespan timeout{5, 0};
};

/// Reports a service to the host at 127.0.0.1 until it is accepted (code 0), and again at intervals
/// for as long as the object lives, on a thread of its own. Says on standard error when the host
/// begins or ceases to accept, not for every report.
class HostReport {
public:
    HostReport(unsigned short hostPort, ServiceAddress service, ReportTiming timing = {});
    /// Aborts a report under way.
    ~HostReport();
    HostReport(const HostReport&) = delete;
    HostReport& operator=(const HostReport&) = delete;

private:
    enum class State { New, Accepted, Failing };
    void run(Worker& self);
    /// Empty when the host accepted, else why not.
    std::string reportOnce();
    void tellChange(State now, const std::string& reason);

    const ServiceAddress service;
    const ReportTiming timing;
    const std::string target;
    HttpClient host;
    State state = State::New;
    Worker worker;
};

} // namespace ktr::example
