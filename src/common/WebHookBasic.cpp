#include "ktr/common/WebHookBasic.h"

#include "WebHookPost.h"
#include "WebHookTarget.h"
#include "ktr/common/Logger.h"

#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Format.h>
#include <Poco/Net/SSLManager.h>
#include <Poco/Timestamp.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <sstream>
#include <thread>
#include <utility>

namespace ktr {
namespace {

using Clock = std::chrono::steady_clock;
using Settings = WebHookBasic::Settings;

std::chrono::microseconds toChrono(const Poco::Timespan& span) {
    return std::chrono::microseconds(span.totalMicroseconds());
}

void warning(const std::string& text) {
    if (cachedLogger().warning())
        cachedLogger().warning(text, __FILE__, __LINE__);
}

void error(const std::string& text) {
    if (cachedLogger().error())
        cachedLogger().error(text, __FILE__, __LINE__);
}

void check(const Settings& settings) {
    for (const std::string& url : settings.urls)
        WebHookTarget::parse(url);
    if (settings.timeout < Poco::Timespan(0, 1000))
        throw Poco::InvalidArgumentException("the web hook's timeout must be at least 1 ms");
    if (settings.firstDelay < 0 || settings.maxDelay < settings.firstDelay)
        throw Poco::InvalidArgumentException(
            "the web hook's delays must not be negative, nor the longest below the first");
    if (!settings.caFile.empty() && !Poco::File(settings.caFile).exists())
        throw Poco::InvalidArgumentException("the web hook's caFile does not exist",
                                             settings.caFile);
}

std::string makeBody(const std::string& event, const Poco::JSON::Object& details) {
    Poco::JSON::Object body(Poco::JSON_PRESERVE_KEY_ORDER);
    const auto time =
        Poco::DateTimeFormatter::format(Poco::Timestamp(), Poco::DateTimeFormat::ISO8601_FORMAT);
    body.set("event", event);
    body.set("time", time);
    for (const auto& [name, value] : details)
        if (name != "event" && name != "time")
            body.set(name, value);
    std::ostringstream text;
    body.stringify(text);
    return text.str();
}

/// One report on its way to one URL.
struct Delivery {
    std::shared_ptr<const Settings> settings;
    std::shared_ptr<const std::string> body;
    std::string event;
    int attempts = 0;
};

/// What one URL is still to be sent, in order. While its first report waits for another attempt,
/// the others wait behind it, but other URLs do not.
struct Lane {
    std::deque<Delivery> waiting;
    Clock::time_point due = Clock::now();
};

enum class Outcome { Delivered, Refused, Failed };

/// Whether a post that was answered so is to be repeated.
Outcome outcomeOf(int status) {
    constexpr int kClassWidth = 100;
    constexpr int kSuccess = 2;
    constexpr int kClientError = 4;
    if (status / kClassWidth == kSuccess)
        return Outcome::Delivered;
    const bool mayPass = status == Poco::Net::HTTPResponse::HTTP_REQUEST_TIMEOUT ||
                         status == Poco::Net::HTTPResponse::HTTP_TOO_MANY_REQUESTS;
    return status / kClassWidth == kClientError && !mayPass ? Outcome::Refused : Outcome::Failed;
}

std::string describe(const Poco::Net::HTTPResponse& response) {
    std::string text = Poco::format("HTTP status %d %s", static_cast<int>(response.getStatus()),
                                    response.getReason());
    const std::string location = response.get("Location", "");
    if (!location.empty())
        text += ", moved to " + location.substr(0, location.find('?')) +
                " (redirects are not followed, configure that URL)";
    return text;
}

} // namespace

struct WebHookBasic::Impl {
    // Poco's TLS statics must outlive the default web hook, so they are made before it.
    Impl() { Poco::Net::SSLManager::instance(); }

    void configure(const Settings& next) {
        check(next);
        auto copy = std::make_shared<const Settings>(next);
        const std::lock_guard<std::mutex> lock(mutex);
        settings.swap(copy);
    }

    void queue(const std::string& event, const Poco::JSON::Object& details) {
        const std::lock_guard<std::mutex> lock(mutex);
        if (settings->urls.empty())
            return;
        if (stopping) {
            warning("web hook report " + event + " dropped: the web hook has stopped");
            return;
        }
        const auto body = std::make_shared<const std::string>(makeBody(event, details));
        for (const std::string& url : settings->urls)
            append(url, {settings, body, event});
        if (!worker.joinable())
            worker = std::thread([this] { run(); });
        changed.notify_all();
    }

    void stop(const Poco::Timespan& grace) {
        const std::lock_guard<std::mutex> once(ending);
        std::unique_lock<std::mutex> lock(mutex);
        if (!stopping) {
            deadline = Clock::now() + toChrono(grace);
            stopping = true;
        }
        changed.notify_all();
        if (!worker.joinable())
            return;
        changed.wait_until(lock, deadline, [this] { return ended; });
        if (current != nullptr)
            current->abort();
        lock.unlock();
        worker.join();
    }

private:
    // with mutex held
    void append(const std::string& url, Delivery delivery) {
        Lane& lane = lanes[url];
        if (lane.waiting.size() >= settings->queueCapacity) {
            error("web hook report " + delivery.event + " dropped: too many wait for " +
                  WebHookTarget::parse(url).name());
            return;
        }
        lane.waiting.push_back(std::move(delivery));
    }

    void run() {
        pthread_setname_np(pthread_self(), "web-hook");
        std::unique_lock<std::mutex> lock(mutex);
        while (const std::optional<std::string> url = nextUrl(lock))
            attempt(*url, lock);
        dropRest();
        ended = true;
        changed.notify_all();
    }

    /// Waits for a URL that is due; none when it is time to end.
    std::optional<std::string> nextUrl(std::unique_lock<std::mutex>& lock) {
        for (;;) {
            const auto first = earliest();
            if (stopping && (first == lanes.end() || Clock::now() >= deadline))
                return std::nullopt;
            if (first == lanes.end())
                changed.wait(lock);
            else if (stopping || first->second.due <= Clock::now())
                return first->first;
            else
                changed.wait_until(lock, Clock::time_point(first->second.due));
        }
    }

    std::map<std::string, Lane>::iterator earliest() {
        for (auto lane = lanes.begin(); lane != lanes.end();)
            lane = lane->second.waiting.empty() ? lanes.erase(lane) : std::next(lane);
        return std::min_element(lanes.begin(), lanes.end(), [](const auto& a, const auto& b) {
            return a.second.due < b.second.due;
        });
    }

    void attempt(const std::string& url, std::unique_lock<std::mutex>& lock) {
        Lane& lane = lanes[url]; // stays: only this thread removes lanes
        Delivery delivery = std::move(lane.waiting.front());
        lane.waiting.pop_front();
        const bool last = stopping;
        const WebHookTarget target = WebHookTarget::parse(url);
        WebHookPost post(target, delivery.settings->caFile, timeoutOf(delivery));
        current = &post;
        lock.unlock();
        ++delivery.attempts;
        std::string reason;
        const Outcome outcome = send(post, *delivery.body, reason);
        if (outcome == Outcome::Delivered && cachedLogger().debug())
            cachedLogger().debug("web hook report " + delivery.event + " delivered to " +
                                     target.name(),
                                 __FILE__, __LINE__);
        lock.lock();
        current = nullptr;
        lane.due = Clock::now();
        if (outcome == Outcome::Delivered)
            return;
        const std::string what =
            "web hook report " + delivery.event + " to " + target.name() + " failed: " + reason;
        const int allowed = std::max(delivery.settings->attempts, 1);
        if (outcome == Outcome::Refused)
            error(what + "; given up, since repeating it cannot help");
        else if (delivery.attempts >= allowed)
            error(what + Poco::format("; given up after %d attempts", delivery.attempts));
        else if (last)
            warning(what + "; dropped, since the web hook stops");
        else
            repeat(lane, std::move(delivery), what);
    }

    // with mutex held
    Poco::Timespan timeoutOf(const Delivery& delivery) const {
        if (!stopping)
            return delivery.settings->timeout;
        // a silent peer must leave the others their share of what remains
        const auto rest =
            std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()) /
            static_cast<int>(lanes.size());
        const Poco::Timespan share(std::max<Poco::Timespan::TimeDiff>(rest.count(), 1000));
        return std::min(delivery.settings->timeout, share);
    }

    static Outcome send(WebHookPost& post, const std::string& body, std::string& reason) {
        try {
            const Poco::Net::HTTPResponse response = post.send(body);
            reason = describe(response);
            return outcomeOf(response.getStatus());
        } catch (const Poco::Exception& e) {
            reason = e.displayText();
        } catch (const std::exception& e) {
            reason = e.what();
        }
        return Outcome::Failed;
    }

    // with mutex held
    static void repeat(Lane& lane, Delivery delivery, const std::string& what) {
        if (delivery.attempts == 1)
            warning(what + "; trying again");
        const auto longest = toChrono(delivery.settings->maxDelay);
        auto delay = toChrono(delivery.settings->firstDelay);
        for (int i = 1; i < delivery.attempts && delay < longest; ++i)
            delay *= 2;
        lane.due = Clock::now() + std::min(delay, longest);
        lane.waiting.push_front(std::move(delivery));
    }

    // with mutex held
    void dropRest() {
        for (auto& [url, lane] : lanes)
            if (!lane.waiting.empty())
                warning(Poco::format("%z web hook reports to %s dropped, since the web hook stops",
                                     lane.waiting.size(), WebHookTarget::parse(url).name()));
        lanes.clear();
    }

    // held by whoever stops; taken before mutex
    std::mutex ending;

    std::mutex mutex;
    std::condition_variable changed;
    // guarded by mutex
    std::shared_ptr<const Settings> settings = std::make_shared<const Settings>();
    std::map<std::string, Lane> lanes;
    WebHookPost* current = nullptr;
    std::thread worker;
    Clock::time_point deadline;
    bool stopping = false;
    bool ended = false;
};

namespace {

struct StopAtExit {
    WebHookBasic& hook;
    ~StopAtExit() { hook.stop(); }
};

} // namespace

std::shared_ptr<WebHookBasic> WebHookBasic::defaultWebHook() {
    // Stopped at exit but never destroyed: statics that end later may still report.
    static auto* const hook = new std::shared_ptr<WebHookBasic>(std::make_shared<WebHookBasic>());
    static const StopAtExit atExit{**hook};
    return *hook;
}

WebHookBasic::WebHookBasic() : impl(std::make_unique<Impl>()) {}

WebHookBasic::~WebHookBasic() {
    stop();
}

void WebHookBasic::configure(const Settings& settings) {
    impl->configure(settings);
}

void WebHookBasic::reportServerStarted() {
    report("serverStarted");
}

void WebHookBasic::report(const std::string& event, const Poco::JSON::Object& details) {
    impl->queue(event, details);
}

void WebHookBasic::stop(const Poco::Timespan& grace) {
    impl->stop(grace);
}

} // namespace ktr
