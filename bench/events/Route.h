#pragma once

#include "plugins/Board.h"

#include <Poco/JSON/Array.h>
#include <Poco/ThreadPool.h>

#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace ktr::bench {

/// A way of an event from who raises it to those that it names.
class Route {
public:
    Route() = default;
    virtual ~Route() = default;
    Route(const Route&) = delete;
    Route& operator=(const Route&) = delete;

    /// Takes a text of its own, as the event callback of plugins does.
    virtual void raise(std::string event) = 0;
};

/// Through the library, raised by a plugin.
class KetraRoute : public Route {
public:
    void raise(std::string event) override;
};

/// The started plugins by their guid.
using Recipients = std::unordered_map<std::string, PluginBase*>;
Recipients startedPlugins();

/// Whom the event names.
Poco::JSON::Array::Ptr recipientsOf(const std::string& event);

/// The barest way there is: all of it inside the call.
class HandRoute : public Route {
public:
    void raise(std::string event) override;

private:
    const Recipients plugins = startedPlugins();
};

/// The barest way that gives the caller back once the event is parsed: one queue, which goes as a
/// whole to a pool of four threads whenever one of them is free.
class BatchRoute : public Route {
public:
    ~BatchRoute() override { pool.joinAll(); }
    void raise(std::string event) override;

private:
    struct Event {
        Poco::JSON::Array::Ptr to;
        std::string text;
    };
    class Batch;
    void deliverAll(const std::vector<Event>& events);

    const Recipients plugins = startedPlugins();
    // A plugin gets one call at a time and may go at any moment, so each call needs a lock: without
    // it this would be another service than the library's.
    std::mutex pluginMutex;
    std::mutex queueMutex;
    std::vector<Event> queue;
    Poco::ThreadPool pool{1, 4};
};

} // namespace ktr::bench
