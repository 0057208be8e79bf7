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
/// An answer 2xx ends a report at its URL. So does, with an error line, 4xx, but not 408 and 429:
/// repeating it cannot help. Everything else, a redirect too (none is followed), is tried again,
/// and only then the next report to that URL. Meanwhile the other URLs get theirs: a silent one
/// holds them up for no more than `timeout` at a time.
///
/// Thread safety: all functions may be called from any thread.
class KTR_API WebHookBasic {
public:
    /// Whom to tell, and how often to try.
    struct Settings {
        /// http or https; each report goes to every one of them. A user and password in it are sent
        /// as basic authentication; the log shows neither them nor a query. An https peer must bear
        /// a certificate for its host name or address.
        std::vector<std::string> urls;
        /// For connecting, and again for each wait for an answer.
        Poco::Timespan timeout{5, 0};
        /// How often one report is tried at one URL before it is given up with an error line.
        int attempts = 5;
        /// Before the second attempt; doubled for each further one, up to maxDelay.
        Poco::Timespan firstDelay{1, 0};
        /// What that delay grows to at most.
        Poco::Timespan maxDelay{60, 0};
        /// Reports that may wait for each URL; when full, a new one is dropped for that URL with an
        /// error line.
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
    /// for a URL that is neither http nor https, naming it, for a missing caFile and for a timeout
    /// or delay that makes no sense; the old settings then stay.
    void configure(const Settings& settings);

    /// Queues {"event":"serverStarted","time":"<ISO 8601, UTC>"}; returns at once.
    void reportServerStarted();

    /// Queues {"event":event,"time":...} with the members of `details` added, but for any of these
    /// two names; returns at once.
    void report(const std::string& event, const Poco::JSON::Object& details = Poco::JSON::Object());

    /// Ends the worker thread: gives what is queued one last attempt for up to `grace`, then drops
    /// the rest with a warning; a post that goes on after it is aborted. Reports after it are
    /// dropped with a warning.
    void stop(const Poco::Timespan& grace = Poco::Timespan(2, 0));

private:
    struct Impl;
    const std::unique_ptr<Impl> impl;
};

} // namespace ktr
