#include "PluginWatch.h"

#include "Stop.h"
#include "Tell.h"
#include "WatchedPlugin.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace ktr::cli {
namespace {

constexpr std::chrono::milliseconds kTick{100};

/// Time that a debugger had the process stopped in counts for a tick at most.
class WakingTime {
public:
    std::chrono::nanoseconds step() {
        const auto now = std::chrono::steady_clock::now();
        const auto passed = std::min<std::chrono::nanoseconds>(now - last, kTick);
        last = now;
        return passed;
    }

private:
    std::chrono::steady_clock::time_point last = std::chrono::steady_clock::now();
};

std::string reasonOfException() {
    try {
        throw;
    } catch (const Poco::Exception& e) {
        return e.displayText();
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "an exception that is not derived from std::exception";
    }
}

} // namespace

void PluginWatch::registerPlugin(Factory factory, const char* guid) {
    if (guid != nullptr) {
        const std::lock_guard<std::mutex> lock(mutex);
        guids.emplace_back(guid);
    }
    Registrar::registerPlugin(watched(std::move(factory)), guid);
}

Registrar::Factory PluginWatch::watched(Factory factory) {
    if (!factory)
        return factory;
    return [this, factory = std::move(factory)]() -> std::shared_ptr<PluginBase> {
        return std::make_shared<WatchedPlugin>(*this, call("the factory", [&] {
            std::shared_ptr<PluginBase> made = factory();
            if (!made)
                throw std::runtime_error("it returned no object, which would crash the host");
            return made;
        }));
    };
}

std::vector<std::string> PluginWatch::registrations() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return guids;
}

void PluginWatch::started() {
    const std::lock_guard<std::mutex> lock(mutex);
    hasStarted = true;
    changed.notify_all();
}

void PluginWatch::delivered(const std::string& text) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (missing > 0 && text == expected)
        --missing;
    changed.notify_all();
}

bool PluginWatch::waitStarted(std::chrono::seconds most) {
    std::unique_lock<std::mutex> lock(mutex);
    const auto isOver = [this] { return hasStarted || !thrown.empty() || stopRequested(); };
    WakingTime time;
    for (std::chrono::nanoseconds waited{0}; !isOver() && waited < most; waited += time.step())
        changed.wait_for(lock, kTick);
    return isOver();
}

void PluginWatch::expect(const std::string& text, int deliveries) {
    const std::lock_guard<std::mutex> lock(mutex);
    expected = text;
    missing = deliveries;
}

bool PluginWatch::waitDelivered(std::chrono::seconds most, const std::function<void()>& raiseNext) {
    std::unique_lock<std::mutex> lock(mutex);
    std::chrono::nanoseconds idle{0};
    std::chrono::nanoseconds held{0};
    long holder = 0;
    for (WakingTime time; missing > 0 && !stopRequested();) {
        // only to an idle plugin, or they would fill the queue that they are to empty
        if (changed.wait_for(lock, kTick) == std::cv_status::timeout && running.empty()) {
            lock.unlock();
            raiseNext();
            lock.lock();
        }
        const auto passed = time.step();
        const long first = running.empty() ? 0 : running.front().number;
        // calls that come and go hold nothing up
        if (first == 0 || first != std::exchange(holder, first)) {
            idle += passed;
            held = std::chrono::nanoseconds(0);
        } else if (held < most && (held += passed) >= most) {
            tell(std::string(running.front().name) + " of the plugin has not returned for " +
                 std::to_string(most.count()) +
                 " s; on a host no other plugin would get an event meanwhile");
        }
        if (idle > most)
            return false;
    }
    return true;
}

std::string PluginWatch::firstThrown() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return thrown;
}

std::string PluginWatch::runningCall() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return running.empty() ? "" : running.front().name;
}

void PluginWatch::noteThrown(const char* name) {
    const std::string text = std::string(name) + ": " + reasonOfException();
    tell("the plugin threw in " + text);
    const std::lock_guard<std::mutex> lock(mutex);
    if (thrown.empty())
        thrown = text;
    changed.notify_all();
}

PluginWatch::Running::Running(PluginWatch& watch_, const char* name) : watch(watch_) {
    const std::lock_guard<std::mutex> lock(watch.mutex);
    at = watch.running.insert(watch.running.end(), {name, ++watch.calls});
}

PluginWatch::Running::~Running() {
    const std::lock_guard<std::mutex> lock(watch.mutex);
    watch.running.erase(at);
    watch.changed.notify_all();
}

} // namespace ktr::cli
