#pragma once

#include "WebHookTarget.h"

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Timespan.h>

#include <memory>
#include <mutex>
#include <string>

namespace ktr {

/// One HTTP POST of a JSON text, on a connection of its own.
///
/// Thread safety: abort() may be called from any thread.
class WebHookPost {
public:
    /// `caFile` as in WebHookBasic::Settings; `timeout` for connecting, and again for each wait.
    WebHookPost(const WebHookTarget& target, const std::string& caFile,
                const Poco::Timespan& timeout);

    /// Returns when the peer's answer has begun; throws Poco::Exception without one.
    Poco::Net::HTTPResponse send(const std::string& body);

    /// Has send() throw soon, whatever it waits for.
    void abort();

private:
    class Watch;

    std::unique_ptr<Poco::Net::HTTPClientSession>
    openSession(const Poco::Net::StreamSocket& socket);
    Poco::Net::HTTPResponse exchange(const Poco::Net::IPAddress& address, const std::string& body);
    bool isAborted();

    const WebHookTarget target;
    const std::string caFile;
    const Poco::Timespan timeout;

    std::mutex mutex;
    // guarded by mutex
    bool aborted = false;
    int socketHandle = -1;
};

} // namespace ktr
