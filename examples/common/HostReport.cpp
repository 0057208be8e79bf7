#include "common/HostReport.h"

#include <Poco/Exception.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <Poco/URI.h>

#include <algorithm>
#include <iostream>
#include <utility>

namespace ktr::example {

namespace {

std::string reportTarget(const ServiceAddress& service) {
    Poco::URI uri;
    uri.setPath("/index/api/all/report");
    uri.addQueryParameter("ip", service.ip);
    uri.addQueryParameter("port", std::to_string(service.port));
    uri.addQueryParameter("type", std::to_string(service.type));
    uri.addQueryParameter("guid", service.guid);
    return uri.getPathAndQuery();
}

/// Empty for {"code":0,...}, else why the host refused.
std::string refusal(const HttpAnswer& answer) {
    if (answer.status != 200)
        return "HTTP status " + std::to_string(answer.status);
    Poco::JSON::Parser parser;
    const auto json = parser.parse(answer.body).extract<Poco::JSON::Object::Ptr>();
    const int code = json->getValue<int>("code");
    if (code == 0)
        return {};
    return "code " + std::to_string(code) + ", " + json->optValue<std::string>("msg", "");
}

} // namespace

HostReport::HostReport(unsigned short hostPort, ServiceAddress service_, ReportTiming timing_)
    : service(std::move(service_)), timing(timing_), target(reportTarget(service)),
      host("127.0.0.1", hostPort, timing.timeout), worker([this](Worker& self) { run(self); }) {}

HostReport::~HostReport() {
    worker.requestEnd();
    host.abort();
}

void HostReport::run(Worker& self) {
    auto delay = timing.firstDelay;
    while (!self.ending()) {
        const std::string reason = reportOnce();
        if (self.ending())
            return;
        tellChange(reason.empty() ? State::Accepted : State::Failing, reason);
        self.pause(reason.empty() ? timing.repeat : delay);
        delay = reason.empty() ? timing.firstDelay : std::min(delay * 2, timing.maxDelay);
    }
}

std::string HostReport::reportOnce() {
    try {
        return refusal(host.get(target));
    } catch (const Poco::Exception& e) {
        return e.displayText();
    } catch (const std::exception& e) {
        return e.what();
    }
}

void HostReport::tellChange(State now, const std::string& reason) {
    if (std::exchange(state, now) == now)
        return;
    const std::string text = now == State::Accepted ? "reported to the host at " + host.address()
                                                    : "report to the host at " + host.address() +
                                                          " failed, will be repeated: " + reason;
    // one write, so that lines of several threads and processes do not mix
    std::cerr << service.name + ": " + text + "\n" << std::flush;
}

} // namespace ktr::example
