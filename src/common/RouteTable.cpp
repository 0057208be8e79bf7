#include "RouteTable.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <utility>

namespace ktr {
namespace {

/// The call that this thread is in, whichever table it belongs to.
thread_local RouteTable::Call* currentCall = nullptr;

void checkRoute(const std::string& route) {
    if (route.empty() || route.front() != '/' || route.find_first_of("?#") != std::string::npos)
        throw Poco::InvalidArgumentException(
            "a route starts with / and has neither query nor fragment", route);
}

} // namespace

void RouteTable::set(const std::string& route, Handler handler) {
    checkRoute(route);
    if (!handler)
        throw Poco::InvalidArgumentException("a route needs a handler", route);
    // the former handler ends after the lock: its destructor is strangers' code
    auto kept = std::make_shared<const Handler>(std::move(handler));
    const std::lock_guard<std::mutex> lock(mutex);
    routes[route].handler.swap(kept);
}

void RouteTable::remove(const std::string& route) {
    std::shared_ptr<const Handler> removed;
    std::unique_lock<std::mutex> lock(mutex);
    const auto found = routes.find(route);
    if (found == routes.end())
        return;
    // a node stays where it is until it is erased, and it is not while there is a remover
    Route& entry = found->second;
    removed.swap(entry.handler);
    ++entry.removers;
    const std::uint64_t before = lastNumber;
    Call* const own = currentCall != nullptr && &currentCall->table == this ? currentCall : nullptr;
    if (own != nullptr) {
        own->removing = true;
        callEnded.notify_all();
    }
    callEnded.wait(lock, [&] { return mayLeave(entry, before, own); });
    if (own != nullptr)
        own->removing = false;
    --entry.removers;
    eraseIfUnused(route);
}

/// Whether the calls up to number `before` have ended. Calls that remove a route themselves do not
/// wait for each other: none of them would ever end.
bool RouteTable::mayLeave(const Route& route, std::uint64_t before, const Call* own) const {
    return std::none_of(route.calls.begin(), route.calls.end(), [&](const Call* call) {
        return call->number <= before && call != own && !(own != nullptr && call->removing);
    });
}

void RouteTable::eraseIfUnused(const std::string& path) {
    const auto found = routes.find(path);
    if (found != routes.end() && !found->second.handler && found->second.calls.empty() &&
        found->second.removers == 0)
        routes.erase(found);
}

RouteTable::Call::Call(RouteTable& table_, const std::string& path_) : table(table_), path(path_) {
    const std::lock_guard<std::mutex> lock(table.mutex);
    const auto found = table.routes.find(path);
    if (found == table.routes.end() || !found->second.handler)
        return;
    found->second.calls.push_back(this);
    handler = found->second.handler;
    number = ++table.lastNumber;
}

RouteTable::Call::~Call() {
    if (!handler)
        return;
    // a replaced handler may end here, and its code may be gone as soon as the call counts as over
    handler.reset();
    const std::lock_guard<std::mutex> lock(table.mutex);
    const auto found = table.routes.find(path);
    auto& calls = found->second.calls;
    calls.erase(std::find(calls.begin(), calls.end(), this));
    if (found->second.removers > 0)
        table.callEnded.notify_all();
    table.eraseIfUnused(path);
}

std::optional<std::string> RouteTable::Call::run(Poco::Net::HTTPServerRequest& request,
                                                 Poco::Net::HTTPServerResponse& response,
                                                 const WebApiBasic::Parameters& params) {
    struct Current {
        explicit Current(Call* call) : outer(std::exchange(currentCall, call)) {}
        ~Current() { currentCall = outer; }
        Current(const Current&) = delete;
        Current& operator=(const Current&) = delete;
        Call* const outer;
    };
    const Current current(this);
    try {
        (*handler)(request, response, params);
        return std::nullopt;
    } catch (const Poco::Exception& e) {
        return e.displayText();
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "exception of unknown type";
    }
}

} // namespace ktr
