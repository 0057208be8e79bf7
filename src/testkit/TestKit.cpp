#include "ktr/TestKit.h"

#include "Host.h"
#include "Inbox.h"
#include "Listeners.h"
#include "LogLines.h"
#include "PluginWatch.h"
#include "Registration.h"
#include "TempRoot.h"

#include "ktr/PluginManager.h"

#include <Poco/Exception.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <algorithm>
#include <atomic>
#include <iostream>
#include <set>
#include <stdexcept>

namespace ktr {
namespace testkit {
namespace {

/// Registry, router and log are the process's.
class OnlyOne {
public:
    OnlyOne() {
        if (lives.exchange(true))
            throw std::runtime_error("there is a TestKit already; destroy it before the next");
    }
    ~OnlyOne() { lives = false; }
    OnlyOne(const OnlyOne&) = delete;
    OnlyOne& operator=(const OnlyOne&) = delete;

private:
    static inline std::atomic<bool> lives{false};
};

/// Factories that are registered while it lives make watched objects.
class Watching {
public:
    explicit Watching(const std::shared_ptr<PluginWatch>& watch) { watchRegistrations(watch); }
    ~Watching() { watchRegistrations(nullptr); }
    Watching(const Watching&) = delete;
    Watching& operator=(const Watching&) = delete;
};

const TestKit::Options& usable(const TestKit::Options& options) {
    if (options.deadline < std::chrono::milliseconds(1))
        throw std::runtime_error("the test kit's deadline is " +
                                 std::to_string(options.deadline.count()) +
                                 " ms; allow at least 1, better some thousands");
    return options;
}

bool names(const std::string& text, const std::string& guid) {
    Poco::JSON::Parser parser;
    const auto event = parser.parse(text).extract<Poco::JSON::Object::Ptr>();
    const Poco::JSON::Array::Ptr to = event->getArray("to");
    return to && std::any_of(to->begin(), to->end(), [&guid](const Poco::Dynamic::Var& recipient) {
               return recipient.isString() && recipient.extract<std::string>() == guid;
           });
}

void requireEventFor(const std::string& text, const std::string& guid) {
    std::string reason = "it does not name the plugin";
    try {
        if (names(text, guid))
            return;
    } catch (const Poco::Exception& e) {
        reason = e.displayText();
    }
    throw std::runtime_error("the event would not reach the plugin (" + reason +
                             R"(); give it a JSON object with "to":[")" + guid + "\"]");
}

void requireGuids(const std::vector<std::string>& guids, const std::string& plugin) {
    std::set<std::string> seen{plugin};
    for (const std::string& guid : guids)
        if (guid.empty() || !seen.insert(guid).second)
            throw std::runtime_error("the test kit cannot listen as '" + guid +
                                     "'; name guids that are not empty, differ from each other "
                                     "and from the plugin's");
}

/// What the log says of the loading of `file`, from line `first` on; returns the plugin's guid.
std::string requireLoaded(const LogLines& log, std::size_t first, const std::string& file) {
    std::string missing;
    for (const std::string name :
         {"PluginLoad", "PluginUnLoad", "PluginType", "PluginName", "PluginGuid"}) {
        std::string line = "error: interface '";
        line.append(name).append("' not exist, plugin: ").append(file);
        if (log.restOfLineSince(first, line))
            missing += (missing.empty() ? "" : ", ") + name;
    }
    if (!missing.empty())
        throw std::runtime_error("the plugin lacks the entry points " + missing +
                                 R"(; define them as extern "C" KTR_API)");
    if (!log.restOfLineSince(first, "information: plugin '" + file + "' loaded"))
        throw std::runtime_error("the host cannot load the plugin" + log.errorsSince(first));
    return log.restOfLineSince(first, "information: plugin guid: ").value_or("");
}

} // namespace
} // namespace testkit

struct TestKit::Impl {
    Impl(const std::string& pluginFile, const std::vector<std::string>& listenAs,
         const Options& options_);
    ~Impl();
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void load();
    void activate(const std::string& ip, unsigned short port);
    std::string waitForStart(std::size_t first) const;
    void deliver(const std::string& text) const;
    void deactivate();
    std::string deadlineText() const;

    const testkit::OnlyOne onlyOne;
    const Options options;
    const testkit::TempRoot root;
    const testkit::LogLines log;
    const std::shared_ptr<testkit::PluginWatch> watch = std::make_shared<testkit::PluginWatch>();
    const std::shared_ptr<testkit::Inbox> inbox = std::make_shared<testkit::Inbox>();
    const testkit::Watching watching;
    testkit::Host host;
    std::string guid;
};

TestKit::Impl::Impl(const std::string& pluginFile, const std::vector<std::string>& listenAs,
                    const Options& options_)
    : options(testkit::usable(options_)), root(pluginFile), log(options.showLog), watching(watch),
      host(options.mqtt, options.deadline) {
    load();
    testkit::requireGuids(listenAs, guid);
    // after the plugin: whose symbols come first wins, as libraries are opened globally
    testkit::fileListeners(host, root, listenAs, inbox);
    host.serve(root.path());
    testkit::activateListeners(host, listenAs, *inbox, options.deadline);
}

TestKit::Impl::~Impl() {
    try {
        deactivate();
    } catch (const std::exception& e) {
        std::cerr << "ketra test kit: " << e.what() << std::endl;
    }
}

void TestKit::Impl::load() {
    const std::size_t first = log.count();
    host.loadPlugins(root.path());
    guid = testkit::requireLoaded(log, first, root.plugin());
    if (guid.empty() || !watch->hasRegistered(guid))
        throw std::runtime_error("PluginLoad has registered no factory as '" + guid +
                                 "', which is what PluginGuid returns; have it call "
                                 "ktr::registerPlugin with a factory and this text, not empty" +
                                 log.errorsSince(first));
}

std::string TestKit::Impl::deadlineText() const {
    return " has not returned within " + std::to_string(options.deadline.count()) + " ms";
}

void TestKit::Impl::activate(const std::string& ip, unsigned short port) {
    if (!host.isUp())
        throw std::runtime_error("the plugin was deactivated; activate it with a new TestKit");
    const std::size_t first = log.count();
    watch->expect(testkit::Call::start);
    host.report(guid, ip, port);
    const std::string thrown = waitForStart(first);
    if (!thrown.empty())
        throw std::runtime_error("start() threw: " + thrown + "; see to it that it does not");
}

/// What start() threw. The log's lines from `first` on are about it.
std::string TestKit::Impl::waitForStart(std::size_t first) const {
    const auto end = std::chrono::steady_clock::now() + options.deadline;
    while (std::chrono::steady_clock::now() < end) {
        // nobody will call it any more
        const bool last = testkit::Host::isIdle();
        if (const auto thrown = watch->waitForOutcome(std::chrono::milliseconds(last ? 0 : 2)))
            return *thrown;
        if (last)
            throw std::runtime_error("the report has not started an object of the plugin; mend "
                                     "what keeps it from that" +
                                     log.errorsSince(first));
    }
    throw std::runtime_error("start()" + deadlineText() +
                             "; let it, and the earlier object's stop(), return sooner" +
                             log.errorsSince(first));
}

void TestKit::Impl::deliver(const std::string& text) const {
    testkit::requireEventFor(text, guid);
    if (!watch->hasObject())
        throw std::runtime_error("there is no object of the plugin to deliver to; activate it");
    const std::size_t first = log.count();
    watch->expect(testkit::Call::onMessage, text);
    std::string event = text;
    publishMsgToAllPlugin(event);
    const std::optional<std::string> thrown = watch->waitForOutcome(options.deadline);
    if (!thrown)
        throw std::runtime_error("onMessage()" + deadlineText() +
                                 "; let it return sooner, and raise fewer events at a time" +
                                 log.errorsSince(first));
    if (!thrown->empty())
        throw std::runtime_error("onMessage() threw: " + *thrown + "; see to it that it does not");
}

void TestKit::Impl::deactivate() {
    watch->expect(testkit::Call::stop);
    host.takeDown(guid);
    const std::optional<std::string> thrown = watch->waitForOutcome(std::chrono::milliseconds(0));
    if (thrown && !thrown->empty())
        throw std::runtime_error("stop() threw: " + *thrown + "; see to it that it does not");
}

TestKit::TestKit(const std::string& pluginFile, const std::vector<std::string>& listenAs)
    : TestKit(pluginFile, listenAs, Options()) {}

TestKit::TestKit(const std::string& pluginFile, const std::vector<std::string>& listenAs,
                 const Options& options) try
    : impl(std::make_unique<Impl>(pluginFile, listenAs, options)) {
} catch (const Poco::Exception& e) {
    throw std::runtime_error("the test kit cannot be set up (" + e.displayText() +
                             "); check its options, and leave router and client to it");
}

TestKit::~TestKit() = default;

const std::string& TestKit::guid() const {
    return impl->guid;
}

unsigned short TestKit::port() const {
    return impl->host.port();
}

void TestKit::activate(const std::string& ip, unsigned short port) {
    impl->activate(ip, port);
}

void TestKit::deliver(const std::string& text) {
    impl->deliver(text);
}

std::optional<std::string> TestKit::waitForEvent(std::chrono::milliseconds timeout) {
    return impl->inbox->take(timeout);
}

void TestKit::deactivate() {
    impl->deactivate();
}

std::vector<std::string> TestKit::log() const {
    return impl->log.lines();
}

} // namespace ktr
