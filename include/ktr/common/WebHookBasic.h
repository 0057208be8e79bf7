#pragma once

#include "ktr/Export.h"

#include <Poco/JSON/Object.h>
#include <Poco/Timespan.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace ktr {

/// Tells other systems what happens here: posts JSON to the configured URLs, from a worker thread
/// of its own, which is made with the first report. Without a URL it does nothing.
///
/// Thread safety: all functions may be called from any thread.
class KTR_API WebHookBasic {
public:
    struct Settings {
        /// http or https; each report goes to every one of them.
        std::vector<std::string> urls;
        /// For connecting, and again for each wait for an answer.
        Poco::Timespan timeout{5, 0};
        /// How often one report is tried at one URL before it is given up with an error line.
        int attempts = 5;
        /// Before the second attempt; doubled for each further one, up to maxDelay.
        Poco::Timespan firstDelay{1, 0};
        Poco::Timespan maxDelay{60, 0};
        /// Reports that may wait; when full, a new one is dropped with an error line.
        std::size_t queueCapacity = 64;
        /// PEM file with the certificate authorities to trust for https; empty for the system's.
        std::string caFile;
    };

    /// The process-wide web hook.
    static std::shared_ptr<WebHookBasic> defaultWebHook();

    WebHookBasic();
    /// Calls stop().
    ~WebHookBasic();
    WebHookBasic(const WebHookBasic&) = delete;
    WebHookBasic& operator=(const WebHookBasic&) = delete;

    /// Replaces the settings for reports queued from now on. Throws Poco::InvalidArgumentException
    /// for a URL that is neither http nor https, naming it; the old settings then stay.
    void configure(const Settings& settings);

    /// Queues {"event":"serverStarted","time":"<ISO 8601, UTC>"}; returns at once.
    void reportServerStarted();

    /// Queues {"event":event,"time":...} with the members of `details` added; returns at once.
    void report(const std::string& event, const Poco::JSON::Object& details = Poco::JSON::Object());

    /// Ends the worker thread: gives what is queued one last attempt for up to `grace`, then drops
    /// the rest with a warning. Reports after it are dropped with a warning.
    void stop(const Poco::Timespan& grace = Poco::Timespan(2, 0));

private:
    struct Impl;
    const std::unique_ptr<Impl> impl;
};

} // namespace ktr
