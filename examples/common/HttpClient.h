#pragma once

#include <Poco/Timespan.h>

#include <mutex>
#include <set>
#include <string>

namespace Poco::Net {
class HTTPRequest;
class StreamSocket;
} // namespace Poco::Net

namespace ktr::example {

struct HttpAnswer {
    int status = 0;
    std::string body;
};

/// Plain HTTP requests to one address, each on a connection of its own, which another thread can
/// abort.
///
/// Thread safety: all functions may be called from any thread.
class HttpClient {
public:
    /// `ip` is a numeric address: looking up a name could not be aborted. `timeout` bounds
    /// connecting, and again the exchange that follows.
    HttpClient(std::string ip, unsigned short port, const Poco::Timespan& timeout);
    ~HttpClient() = default;
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    /// Asks for `target` (path and query). Any status is an answer; no answer, one above 1 MiB and
    /// an aborted request throw a Poco::Exception.
    HttpAnswer get(const std::string& target);
    /// Likewise, sending `body` as application/json.
    HttpAnswer post(const std::string& target, const std::string& body);

    /// Makes every request that waits for an answer, and every later one, throw at once. A request
    /// that is still connecting ends with its timeout.
    void abort();

    /// "ip:port", for log lines.
    std::string address() const;

private:
    class OpenConnection;
    HttpAnswer exchange(Poco::Net::HTTPRequest& request, const std::string& body);

    const std::string ip;
    const unsigned short port;
    const Poco::Timespan timeout;

    // guards what follows
    std::mutex mutex;
    std::set<int> openConnections;
    bool aborted = false;
};

} // namespace ktr::example
