#pragma once

#include "Bell.h"

#include "support/RawClient.h"
#include "support/TempDir.h"

#include <optional>
#include <string>

namespace ktr::bench {

/// What ketra-host does with the libraries, on a temporary device root. One in a process.
class Host {
public:
    Host();
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    /// The guid of the plugin of that number.
    static std::string guid(int number);

    /// Copies of the plugin's library, numbered from 0, none of which is the others' file to the
    /// loader.
    void putPlugins(int count) const;

    /// Serves, and starts that many plugins, each of which listens in this process instead of in
    /// its library.
    void startPlugins(int count);

    /// Sends one report and returns when its plugin has been made and started.
    void report();

    /// Rung by the last plugin's onMessage.
    Bell delivered;

    const test::TempDir root;

private:
    std::string requestOf(int number) const;

    std::optional<test::RawClient> client;
    std::string request;
};

} // namespace ktr::bench
