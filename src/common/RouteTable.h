#pragma once

#include "ktr/common/WebApiBasic.h"

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace ktr {

/// The handlers by route, and who is calling them.
///
/// Thread safety: everything may be called from any thread, out of handlers too.
class RouteTable {
public:
    using Handler = WebApiBasic::Handler;

    /// See WebApiBasic::apiRegist and apiUnregist.
    void set(const std::string& route, Handler handler);
    void remove(const std::string& route);

    /// A use of one route's handler; whoever removes the handler waits for its end.
    class Call {
    public:
        Call(RouteTable& table, const std::string& path);
        ~Call();
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;

        /// Whether the route is known.
        explicit operator bool() const { return handler != nullptr; }

        /// Runs the handler. What it throws is gone when this returns, for its code may go with the
        /// handler; its text remains.
        std::optional<std::string> run(Poco::Net::HTTPServerRequest& request,
                                       Poco::Net::HTTPServerResponse& response,
                                       const WebApiBasic::Parameters& params);

    private:
        friend class RouteTable;

        RouteTable& table;
        const std::string path;
        std::shared_ptr<const Handler> handler;

        // guarded by table.mutex
        std::uint64_t number = 0;
        bool removing = false;
    };

private:
    struct Route {
        /// Null while a removed handler is still running.
        std::shared_ptr<const Handler> handler;
        std::vector<const Call*> calls;
        int removers = 0;
    };

    bool mayLeave(const Route& route, std::uint64_t before, const Call* own) const;
    void eraseIfUnused(const std::string& path);

    // guards all below
    std::mutex mutex;
    std::condition_variable callEnded;
    std::unordered_map<std::string, Route> routes;
    std::uint64_t lastNumber = 0;
};

} // namespace ktr
