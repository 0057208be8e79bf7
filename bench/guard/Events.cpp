#include "Count.h"
#include "Host.h"
#include "Paths.h"

#include "ktr/PluginManager.h"

namespace ktr::bench {
namespace {

// a busy machine takes its time for each change of threads
constexpr int kEvents = 50;

std::string eventTo(int plugins, std::size_t size) {
    std::string to;
    for (int i = 0; i < plugins; ++i)
        to += (i > 0 ? ",\"" : "\"") + Host::guid(i) + "\"";
    const std::string head = R"({"to":[)" + to + R"(],"payload":")";
    const std::string tail = R"("})";
    return head + std::string(size - head.size() - tail.size(), 'x') + tail;
}

void raise(std::string event) {
    publishMsgToAllPlugin(event);
}

/// Where the machine is so busy that all of the pool's threads are still about to end their last
/// deliveries, an event waits for a later one.
void awaitDelivery(Host& host, int events) {
    while (!host.delivered.await(events))
        raise(R"({"to":[]})");
}

/// Has the pool make all of its threads: each of these events finds the former ones undelivered.
void fillEventPool(Host& host, const std::string& event) {
    constexpr int threads = 4;
    {
        const auto held = host.delivered.hold();
        for (int i = 0; i < threads; ++i)
            raise(event);
    }
    awaitDelivery(host, threads);
}

void countEvents(int plugins, std::size_t size) {
    Host host;
    host.startPlugins(plugins);
    const std::string event = eventTo(plugins, size);
    fillEventPool(host, event);
    count(kEvents, [&] {
        for (int i = 0; i < kEvents; ++i) {
            raise(event);
            awaitDelivery(host, 1);
        }
    });
}

} // namespace

void countIntake() {
    countEvents(1, 1024);
}

void countDelivery() {
    countEvents(10, 1024);
}

} // namespace ktr::bench
