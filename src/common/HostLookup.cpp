#include "HostLookup.h"

#include <Poco/Exception.h>
#include <Poco/Net/DNS.h>

#include <future>
#include <memory>
#include <thread>
#include <utility>

namespace ktr {
namespace {

using Addresses = std::vector<Poco::Net::IPAddress>;

constexpr std::chrono::milliseconds kLookEvery(20);

std::future<Addresses> startLookup(const std::string& host) {
    std::packaged_task<Addresses()> task(
        [host] { return Addresses(Poco::Net::DNS::hostByName(host).addresses()); });
    std::future<Addresses> found = task.get_future();
    // Detached, for nothing ends a resolver that waits for an answer: an edge device without its
    // network would otherwise hang at every shutdown. The thread touches nothing but its own task.
    std::thread(std::move(task)).detach();
    return found;
}

} // namespace

std::vector<Poco::Net::IPAddress> lookUpHost(const std::string& host,
                                             std::chrono::milliseconds limit,
                                             const std::function<bool()>& cancelled) {
    Poco::Net::IPAddress literal;
    if (Poco::Net::IPAddress::tryParse(host, literal))
        return {literal};
    std::future<Addresses> found = startLookup(host);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (found.wait_for(kLookEvery) != std::future_status::ready) {
        if (cancelled())
            throw Poco::RuntimeException("the look-up of " + host + " was given up");
        if (std::chrono::steady_clock::now() >= deadline)
            throw Poco::TimeoutException("no name server answers for " + host);
    }
    Addresses addresses = found.get();
    if (addresses.empty())
        throw Poco::NotFoundException("the name " + host + " has no address");
    return addresses;
}

} // namespace ktr
