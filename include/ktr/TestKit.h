#pragma once

#include "ktr/Export.h"
#include "ktr/common/MqttClient.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ktr {

/// Runs one plugin library in the test program as the host does: for a plugin author's unit tests,
/// in any test framework.
///
///     ktr::TestKit kit("build/libKetraPluginHello.so", {"listener"});
///     kit.activate("127.0.0.1", 18080);
///     kit.deliver(R"({"to":["0c2f6b9e-..."],"greet":"you"})");
///     auto raised = kit.waitForEvent(std::chrono::seconds(5)); // addressed to "listener"
///     kit.deactivate();
///
/// The plugin is loaded, filed, activated, given events and stopped by libKetraPlugins.so itself,
/// with a router that serves on a free port of 127.0.0.1; no service is launched or ended. What a
/// plugin sees is what it sees in a host on whose device it is the only plugin.
///
/// To know when start(), onMessage() and stop() have returned, the kit stands between the registry
/// and the plugin's object: this library has a ktr::registerPlugin of its own, which wraps the
/// factory and hands it on. So it must come before libKetraPlugins.so where the test program is
/// linked, as it does with `target_link_libraries(test PRIVATE Ketra::TestKit)`; the constructor
/// refuses to work otherwise. Without a TestKit the function only hands on.
///
/// One object may live at a time, as registry, router, event paths and log are the process's. Any
/// number may follow each other. A library is never unmapped, so that its static state outlives the
/// kit: a later kit with the same file calls PluginLoad on what the earlier one left. Static state
/// that has to be fresh for each test belongs into the plugin's object, or the test into a process
/// of its own. Libraries are opened globally: with several in one process, a function or object
/// that two of them export is the first one's for both, as it is in the host.
///
/// While the object lives, it owns channel and level of cachedLogger(), the report route, and the
/// observer "MSNotification"; the program leaves them alone. The current directory is another one
/// while the constructor runs, and is restored. `$ORIGIN` in the plugin is a temporary folder in
/// which there is only a link to it.
///
/// Every failure is a std::runtime_error whose text names cause and remedy and, where the log tells
/// more, its lines. What never returns from the plugin's PluginLoad, stop() or destructor, or holds
/// up the end of the default pool, cannot be left behind: after the deadline the process says on
/// standard error what hangs and aborts.
///
/// Thread safety: waitForEvent and log may be called from any thread, all else from one at a time.
/// The plugin's code runs where it does in the host: PluginLoad on the thread of the constructor;
/// the factory, setEventCallback, the stop() before a new activation, and start() on the default
/// pool; onMessage() on the event pools; the last stop() on the thread of deactivate() or the
/// destructor. deliver and activate must not be called from there.
class KTR_API TestKit {
public:
    /// What may differ from one test to another.
    struct Options {
        /// The broker of the client that plugins get. Without a url it is not connected; with one
        /// the constructor waits until it is.
        MqttClient::Settings mqtt;
        /// How long each wait may take before it fails: for connecting, start(), a delivery, and
        /// each step of loading and taking down. At least a millisecond.
        std::chrono::milliseconds deadline{10'000};
        /// Writes the log to its former channel (by default standard error) as well.
        bool showLog = false;
    };

    /// Loads the library `pluginFile`, whose name contains "libKetraPlugin", and listens for events
    /// that name one of the guids `listenAs`: they are filed in the registry like further plugins.
    /// Throws if another TestKit lives; the file is missing, misnamed, or cannot be loaded; one of
    /// the five entry points is missing or throws; PluginLoad does not register a factory with the
    /// text of PluginGuid; a guid to listen as is empty, repeated or the plugin's; no port is free;
    /// the broker is not reached. All is taken down again then.
    TestKit(const std::string& pluginFile, const std::vector<std::string>& listenAs);
    /// As above, with other options than the default.
    TestKit(const std::string& pluginFile, const std::vector<std::string>& listenAs,
            const Options& options);

    /// Calls deactivate(), whose failure it writes to standard error, and removes the temporary
    /// folder. What the plugin raised last may still be on its way when the next kit begins.
    ~TestKit();
    TestKit(const TestKit&) = delete;
    TestKit& operator=(const TestKit&) = delete;

    /// What PluginGuid returned.
    const std::string& guid() const;

    /// The router's port on 127.0.0.1, to call the plugin's routes; 0 after deactivate().
    unsigned short port() const;

    /// Reports `ip` (not empty) and `port` (1025 to 65535) as the plugin's service would, over
    /// HTTP, and returns when start() of the new object has returned. An earlier object is stopped
    /// before, and destroyed as soon as the thread that started it has let go of it, too. Throws if
    /// the report is refused; if start() throws, whereupon the object stays, as in the host; if no
    /// object can be made or its start is not reached, as when the factory, setEventCallback or the
    /// earlier object's stop() throws; if the deadline passes, whereupon start() may still be
    /// running; after deactivate().
    void activate(const std::string& ip, unsigned short port);

    /// Raises the event `text`, a JSON object whose "to" names the plugin, as the host does, and
    /// returns when the plugin's onMessage() has returned for this text. Listeners that it names
    /// get it too, perhaps later. Throws if the text is no such event; if no object of the plugin
    /// exists; if onMessage() throws; if the deadline passes.
    void deliver(const std::string& text);

    /// Takes the oldest event that was delivered to one of the guids to listen as and waits for it,
    /// if need be, for `timeout`; empty if none comes. An event that names several of them comes
    /// once for each. Events that were raised in quick succession may come in another order, as in
    /// the host. At most 10,000 wait; throws from then on if there were more, which are lost.
    std::optional<std::string> waitForEvent(std::chrono::milliseconds timeout);

    /// Ends everything in the host's order: nothing is served any more, starts that were accepted
    /// are finished, the object is stopped and dropped. Events that stop() raises reach nobody, as
    /// when the host shuts down. Throws if stop() throws; all is down then, too. A second call does
    /// nothing. To stop an object and go on, activate another one.
    void deactivate();

    /// The log since the constructor began, oldest line first, as "error: text", at information and
    /// above; of more than 10,000 lines the last ones.
    std::vector<std::string> log() const;

private:
    struct Impl;
    const std::unique_ptr<Impl> impl;
};

} // namespace ktr
