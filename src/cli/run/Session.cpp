#include "Session.h"

#include "InputEvent.h"
#include "InputLines.h"
#include "PluginFile.h"
#include "Stop.h"
#include "Tell.h"

#include "host/ProcessSetup.h"
#include "ktr/MSManager.h"
#include "ktr/PluginManager.h"
#include "ktr/common/NotificationCenter.h"
#include "ktr/common/ThreadPool.h"
#include "ktr/common/WebHookBasic.h"

#include <Poco/Exception.h>
#include <Poco/String.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <functional>
#include <poll.h>
#include <unistd.h>
#include <utility>

namespace ktr::cli {
namespace {

/// How long an event may be on its way to a plugin that is not busy.
constexpr std::chrono::seconds kDelivery{5};

std::shared_ptr<MqttClient> makeMqttClient(const MqttClient::Settings& settings) {
    if (settings.url.empty())
        return std::make_shared<MqttClient>();
    try {
        return std::make_shared<MqttClient>(settings);
    } catch (const Poco::InvalidArgumentException& e) {
        throw Failure(ExitUsage, "--mqtt-url cannot be used: " + e.message());
    }
}

/// An event to nobody, on either path.
void raiseEmptyEvents() {
    for (std::string event : {R"({"to":[]})", R"({"to":[],"api":"pushTelemetry"})"})
        publishMsgToAllPlugin(event);
}

/// Both pools of events exist from here on, so that no plugin's first event has to make one.
void makeEventPools() {
    InitThreadPool();
    raiseEmptyEvents();
}

} // namespace

Session::Session(RunOptions options_, PluginWatch& watch_)
    : options(std::move(options_)), watch(watch_), limit(TimeLimit::install(watch)),
      log(tapLog(options.logLevel)), webApi(WebApiBasic::instance()),
      mqttClient(makeMqttClient(options.mqtt)) {}

int Session::run(int input) {
    int code = ExitSuccess;
    try {
        startUp();
        feed(input);
    } catch (const Failure& e) {
        tell(e.what());
        code = e.exitCode();
    }
    shutDown();
    if (code == ExitSuccess && (isFlawed || !watch.firstThrown().empty()))
        code = ExitFindings;
    return code;
}

void Session::startUp() {
    const std::array<std::function<void()>, 9> steps{
        makeEventPools,
        [this] { bind(); },
        [this] { loadPlugin(); },
        [this] { demandRegistration(); },
        [this] { offerReports(); },
        [this] { mqttClient->connect(); },
        [this] { PluginInstallApi(webApi, mqttClient); },
        [this] { webApi->serve(); },
        [this] { activate(); },
    };
    for (const auto& step : steps)
        if (!stopRequested())
            step();
}

void Session::bind() {
    try {
        address = webApi->bind("127.0.0.1", options.webPort);
    } catch (const Poco::Exception& e) {
        throw Failure(ExitSystem, "cannot listen on port " + std::to_string(options.webPort) +
                                      " (" + e.displayText() +
                                      "); choose another with --web-port (0: a free one)");
    }
}

void Session::loadPlugin() {
    limit.begin("loading the plugin", options.wait, "--wait");
    const std::filesystem::path root = std::filesystem::current_path();
    TimeLimit::refuseExit();
    guid = openPlugin(options.plugin);
    Registrar::install(watch);
    try {
        const host::KeepStandardDescriptors keep;
        PluginLoadAll();
    } catch (...) {
        throw Failure(ExitFindings,
                      "PluginLoad() threw an exception that is not derived from std::exception, "
                      "which would end the host" +
                          hintToCheck(options.plugin));
    }
    // services are looked for below the current directory
    std::filesystem::current_path(root);
    // from here on plugins start on the default pool, whose end waits for them
    ThreadPool::defaultPool();
    TimeLimit::refuseExit();
    limit.end();
}

void Session::demandRegistration() const {
    if (const std::string failure = log->loadFailure(); !failure.empty())
        throw Failure(ExitFindings, "the plugin failed while it was loaded: " + failure +
                                        hintToCheck(options.plugin));
    const std::vector<std::string> guids = watch.registrations();
    if (std::find(guids.begin(), guids.end(), guid) != guids.end())
        return;
    const std::string instead =
        guids.empty() ? "" : ", but '" + guids.front() + "', which it is not";
    throw Failure(ExitFindings, "PluginLoad() did not register the plugin as '" + guid +
                                    "', which PluginGuid() answers" + instead +
                                    hintToCheck(options.plugin));
}

void Session::offerReports() {
    auto& manager = MSManager::instance();
    if (!options.service.empty())
        manager.start(address.host().toString(), address.port());
    else
        webApi->apiRegist("/index/api/all/report",
                          [&manager](auto& request, auto& response, const auto& params) {
                              manager.reportProcess(request, response, params);
                          });
}

void Session::activate() const {
    if (options.service.empty()) {
        ServiceReport report = options.report;
        report.guid = guid;
        const HostAnswer answer = sendReport(address, report, Poco::Timespan(5, 0));
        if (!answer.isTaken)
            throw Failure(ExitSoftware, "the plugin was not started: " + answer.reason);
    }
    demandStart();
    if (!stopRequested())
        tell(guid + " is started; its routes are at http://" + address.toString() +
             "; give it events, each a JSON object on a line of its own");
}

void Session::demandStart() const {
    const bool isInTime = watch.waitStarted(options.wait);
    if (const std::string thrown = watch.firstThrown(); !thrown.empty())
        throw Failure(ExitFindings, "the plugin did not start: it threw in " + thrown +
                                        hintToCheck(options.plugin));
    if (isInTime)
        return;
    const std::string within = " within " + std::to_string(options.wait.count()) + " s";
    if (const std::string call = watch.runningCall(); !call.empty())
        throw Failure(ExitFindings, call + " of the plugin did not return" + within +
                                        "; set a longer --wait, or have it return sooner");
    if (options.service.empty())
        throw Failure(ExitFindings, "the plugin was not started" + within +
                                        "; it may have unregistered itself, or the log tells why" +
                                        hintToCheck(options.plugin));
    throw Failure(ExitFindings, options.service.string() + " did not report " + guid + within +
                                    "; it gets the port as its only argument, see 'ketra report "
                                    "--help'");
}

void Session::feed(int input) {
    InputLines lines(input);
    while (const auto line = lines.next())
        take(*line, lines);
    if (!stopRequested())
        linger(input);
}

// One event after the other: in this order they arrive, and none overflows the queues.
void Session::take(const std::string& line, const InputLines& lines) {
    const std::string where = "line " + std::to_string(lines.number()) + ": ";
    if (lines.wasTooLong())
        return tell(where + "is left out, for it is longer than " +
                    std::to_string(InputLines::kLongest) + " bytes");
    if (Poco::trim(line).empty())
        return;
    try {
        InputEvent event = readEvent(line, guid);
        if (event.deliveries == 0)
            tell(where + "reaches nobody, for \"to\" does not name " + guid);
        watch.expect(event.text, event.deliveries);
        publishMsgToAllPlugin(event.text);
        if (watch.waitDelivered(kDelivery, raiseEmptyEvents))
            return;
        isFlawed = true;
        tell(where + "was not delivered; either the plugin raises so many events that the queue "
                     "overflows, or it has unregistered itself");
    } catch (const BadLine& e) {
        tell(where + "is left out: " + e.what());
    }
}

void Session::linger(int input) const {
    const std::chrono::seconds usual(isatty(input) != 0 ? 0 : 1);
    const std::chrono::milliseconds time = options.linger.value_or(usual);
    pollfd wanted{stopDescriptor(), POLLIN, 0};
    while (poll(&wanted, 1, options.keep ? -1 : static_cast<int>(time.count())) < 0) {
        // a signal, after which the descriptor is readable unless it was another's
    }
}

void Session::shutDown() {
    const std::array<std::pair<const char*, std::function<void()>>, 7> steps{{
        {"ending the service", [] { MSManager::instance().stop(); }},
        {"ending the routes", [this] { webApi->stop(); }},
        {"the start of the plugin", [] { ThreadPool::defaultPool().joinAll(); }},
        {"stopping the plugin", PluginUnLoadAll},
        {"the end of reports",
         [] { NotificationCenter::defaultCenter().removeObserver("MSNotification"); }},
        {"the end of MQTT", [this] { mqttClient->disconnect(); }},
        {"the end of the web hook", [] { WebHookBasic::defaultWebHook()->stop(Poco::Timespan()); }},
    }};
    limit.begin(steps.front().first, options.shutdownTimeout, "--shutdown-timeout");
    for (const auto& [name, work] : steps) {
        limit.enter(name);
        work();
    }
    limit.enter("the end of the process");
    TimeLimit::allowExit();
}

} // namespace ktr::cli
