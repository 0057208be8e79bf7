#pragma once

#include "EventOutput.h"

#include "../Registrar.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace ktr::cli {

/// Knows what a plugin does: its registration, the calls into it and what they throw, what it is
/// delivered and what it raises.
///
/// Waits leave out what time a debugger has the process stopped. They end when the run shall end.
///
/// Thread safety: all functions may be called from any thread.
class PluginWatch : public Registrar {
public:
    explicit PluginWatch(EventOutput& output_) : output(output_) {}

    /// Has watched objects stand before those of `factory`.
    void registerPlugin(Factory factory, const char* guid) override;
    /// The guids that were registered.
    std::vector<std::string> registrations() const;

    /// Makes a call into the plugin; `name` is kept as a pointer. Notes and tells what it throws,
    /// and lets it out.
    template <class Work>
    auto call(const char* name, Work work) {
        const Running entered(*this, name);
        try {
            return work();
        } catch (...) {
            noteThrown(name);
            throw;
        }
    }

    /// The plugin raised an event.
    void raised(const std::string& event) { output.print(event); }
    void started();
    void delivered(const std::string& text);

    /// Waits until a start() has returned or something was thrown; false if neither came in time.
    bool waitStarted(std::chrono::seconds most);

    /// From here on waits for `text` being delivered so often.
    void expect(const std::string& text, int deliveries);
    /// False if it was not delivered though the plugin did nothing else for `most`. A delivery that
    /// does not return is waited for, but told of. An event that found every thread of its pool
    /// busy stays in the queue until the next one comes: `raiseNext` is called now and then while
    /// the plugin does nothing, without a lock.
    bool waitDelivered(std::chrono::seconds most, const std::function<void()>& raiseNext);

    /// What was thrown first, as "start(): reason"; empty if nothing was.
    std::string firstThrown() const;
    /// The call that has been running for longest; empty if there is none.
    std::string runningCall() const;

private:
    struct Call {
        const char* name;
        /// From 1.
        long number;
    };

    /// Enters a call among those that run, for as long as it lives.
    class Running {
    public:
        Running(PluginWatch& watch_, const char* name);
        ~Running();
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;

    private:
        PluginWatch& watch;
        std::list<Call>::iterator at;
    };

    Factory watched(Factory factory);
    void noteThrown(const char* name);

    EventOutput& output;
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> guids;
    /// The one that has been running for longest first.
    std::list<Call> running;
    long calls = 0;
    bool hasStarted = false;
    std::string thrown;
    std::string expected;
    int missing = 0;
};

} // namespace ktr::cli
