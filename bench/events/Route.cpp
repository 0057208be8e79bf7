#include "Route.h"

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Runnable.h>

#include <memory>
#include <utility>

namespace ktr::bench {

void KetraRoute::raise(std::string event) {
    board().plugins.front().load()->raise(std::move(event));
}

Recipients startedPlugins() {
    Recipients plugins;
    for (std::size_t i = 0; i < kPluginCount; ++i)
        plugins[guidOf(i)] = board().plugins.at(i);
    return plugins;
}

Poco::JSON::Array::Ptr recipientsOf(const std::string& event) {
    Poco::JSON::Parser parser;
    return parser.parse(event).extract<Poco::JSON::Object::Ptr>()->getArray("to");
}

void HandRoute::raise(std::string event) {
    const Poco::JSON::Array::Ptr to = recipientsOf(event);
    for (const Poco::Dynamic::Var& guid : *to) {
        const auto found = plugins.find(guid.extract<std::string>());
        if (found != plugins.end())
            found->second->onMessage(event);
    }
}

/// Deletes itself when it has run.
class BatchRoute::Batch : public Poco::Runnable {
public:
    Batch(BatchRoute& route_, std::vector<Event> events_)
        : route(route_), events(std::move(events_)) {}

    void run() override {
        const std::unique_ptr<Batch> self(this);
        route.deliverAll(events);
    }

private:
    BatchRoute& route;
    const std::vector<Event> events;
};

void BatchRoute::raise(std::string event) {
    Event taken{recipientsOf(event), {}};
    taken.text = std::move(event);
    const std::lock_guard<std::mutex> lock(queueMutex);
    queue.push_back(std::move(taken));
    if (pool.available() > 0)
        pool.start(*new Batch(*this, std::exchange(queue, {})));
}

void BatchRoute::deliverAll(const std::vector<Event>& events) {
    for (const Event& event : events)
        for (const Poco::Dynamic::Var& guid : *event.to) {
            const std::lock_guard<std::mutex> lock(pluginMutex);
            const auto found = plugins.find(guid.extract<std::string>());
            if (found != plugins.end())
                found->second->onMessage(event.text);
        }
}

} // namespace ktr::bench
