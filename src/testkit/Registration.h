#pragma once

#include "PluginWatch.h"

#include "ktr/PluginBase.h"

#include <functional>
#include <memory>
#include <string>

namespace ktr::testkit {

using Factory = std::function<std::shared_ptr<PluginBase>()>;

/// From now on every factory that a plugin registers is wrapped, and its objects are watched by
/// `watch`; with null none is. Throws std::runtime_error if plugins do not find this library's
/// registerPlugin. Thread-safe.
void watchRegistrations(const std::shared_ptr<PluginWatch>& watch);

/// Registers `factory` as it is, with the registry's own function.
void registerUnwatched(const Factory& factory, const char* guid);

} // namespace ktr::testkit
