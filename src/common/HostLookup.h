#pragma once

#include <Poco/Net/IPAddress.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace ktr {

/// The addresses of `host`, at least one. Unlike the system's call it can be given up: after
/// `limit` (Poco::TimeoutException) or when `cancelled` turns true (Poco::RuntimeException), for
/// which it looks every few milliseconds. Throws Poco::Net's exceptions for an unknown name.
///
/// A call that was given up is left to a thread of its own, until the system's resolver gives up
/// too.
std::vector<Poco::Net::IPAddress> lookUpHost(const std::string& host,
                                             std::chrono::milliseconds limit,
                                             const std::function<bool()>& cancelled);

} // namespace ktr
