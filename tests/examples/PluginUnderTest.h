#pragma once

#include "ktr/PluginBase.h"

#include <Poco/SharedLibrary.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace ktr::example::test {

/// A plugin library, loaded as the host does. It stays mapped, as in the host.
class PluginUnderTest {
public:
    /// `name` as in "lib<name>.so".
    explicit PluginUnderTest(const std::string& name);

    /// Runs PluginLoad and returns the factory that it registered.
    std::function<std::shared_ptr<PluginBase>()> load();
    /// The guid that it registered with.
    const std::string& registeredGuid() const { return guid; }
    std::string callText(const std::string& symbol);

private:
    // Poco's destructor does not unload
    Poco::SharedLibrary library;
    std::string guid;
};

std::string examplePlugin(const std::string& name);

/// How long `action` takes.
template <class Action>
std::chrono::steady_clock::duration timeOf(Action action) {
    const auto begin = std::chrono::steady_clock::now();
    action();
    return std::chrono::steady_clock::now() - begin;
}

} // namespace ktr::example::test
