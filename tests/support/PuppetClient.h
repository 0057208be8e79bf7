#pragma once

#include "HttpClient.h"
#include "WaitUntil.h"

#include <Poco/Exception.h>
#include <Poco/JSON/Array.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace ktr::test {

/// Talks to the routes of a puppet plugin (tests/fixtures/host) and to the report route.
class PuppetClient {
public:
    PuppetClient(unsigned short hostPort_, std::string guid_)
        : hostPort(hostPort_), guid(std::move(guid_)) {}

    /// Reports as the plugin's service would.
    HttpAnswer report(unsigned short servicePort, const std::string& ip = "127.0.0.1") const {
        return httpPost(
            hostPort, "/index/api/all/report",
            {{"ip", ip}, {"port", std::to_string(servicePort)}, {"type", "7"}, {"guid", guid}});
    }

    bool isStarted() const {
        try {
            return httpPost(hostPort, route("state")).status == 200;
        } catch (const Poco::Exception&) {
            return false;
        }
    }
    bool waitStarted() const {
        return waitUntil([this] { return isStarted(); }, std::chrono::seconds(20));
    }

    Poco::JSON::Object::Ptr state() const { return httpPost(hostPort, route("state")).json(); }

    std::vector<std::string> texts(const std::string& member) const {
        std::vector<std::string> found;
        const auto array = state()->getArray(member);
        for (std::size_t i = 0; i < array->size(); ++i)
            found.push_back(array->getElement<std::string>(static_cast<unsigned>(i)));
        return found;
    }

    void raise(const std::string& event) const {
        httpPost(hostPort, route("raise"), {{"text", event}});
    }

    bool publish(const std::string& topic, const std::string& payload) const {
        return httpPost(hostPort, route("publish"), {{"topic", topic}, {"payload", payload}})
            .json()
            ->getValue<bool>("accepted");
    }

    /// Keeps threads of the host's default pool busy; returns once no other thread of it is.
    void occupy(int threads) const {
        httpPost(hostPort, route("occupy"), {{"threads", std::to_string(threads)}});
    }
    void vacate() const { httpPost(hostPort, route("vacate")); }

    /// Has the plugin unregister itself.
    void leave() const { httpPost(hostPort, route("leave")); }

private:
    std::string route(const std::string& name) const { return "/test/" + guid + "/" + name; }

    unsigned short hostPort;
    std::string guid;
};

} // namespace ktr::test
