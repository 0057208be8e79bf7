#include "Host.h"

#include "ExitCode.h"
#include "ExitGuard.h"
#include "Leftovers.h"
#include "ProcessSetup.h"
#include "StrictModes.h"
#include "Temperature.h"

#include "ktr/MSManager.h"
#include "ktr/PluginManager.h"
#include "ktr/common/Logger.h"
#include "ktr/common/NotificationCenter.h"
#include "ktr/common/ThreadPool.h"
#include "ktr/common/WebHookBasic.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <string>
#include <system_error>

namespace ktr::host {
namespace {

std::shared_ptr<MqttClient> makeMqttClient(const Settings& settings) {
    if (settings.mqtt.url.empty())
        return std::make_shared<MqttClient>();
    try {
        return std::make_shared<MqttClient>(settings.mqtt);
    } catch (const Poco::InvalidArgumentException& e) {
        settings.raw.reject("mqtt.url", "cannot be used: " + e.message());
    }
}

void configureWebHook(const Settings& settings) {
    try {
        WebHookBasic::defaultWebHook()->configure(settings.webHook);
    } catch (const Poco::InvalidArgumentException& e) {
        settings.raw.reject("webhook.url", "cannot be used: " + e.message());
    }
}

void configureTls(WebApiBasic& webApi, const AccessSettings& access) {
    try {
        webApi.useTls(access.certificateFile, access.keyFile);
    } catch (const Poco::InvalidArgumentException& e) {
        throw StartError(ExitConfig, "TLS cannot be served (" + e.message() +
                                         "); name a certificate with --tls-cert and its key, not "
                                         "encrypted, with --tls-key, in PEM");
    }
}

void configureAccess(WebApiBasic& webApi, const Settings& settings) {
    try {
        webApi.allowNetworks(settings.access.networks);
    } catch (const Poco::InvalidArgumentException& e) {
        settings.raw.reject("allow", "cannot be used: " + e.message());
    }
    try {
        webApi.requireToken(settings.access.token);
    } catch (const Poco::InvalidArgumentException& e) {
        throw StartError(ExitConfig, "the token in " + settings.raw.path("api.token.file") +
                                         " cannot be used: " + e.message() +
                                         "; openssl rand -hex 32 makes a good one");
    }
    configureTls(webApi, settings.access);
}

void enterRoot(const Settings& settings) {
    std::error_code error;
    // the directory is read now, since an unreadable one would look like an empty one later
    const std::filesystem::directory_iterator readable(settings.root, error);
    if (!error)
        std::filesystem::current_path(settings.root, error);
    if (error)
        throw StartError(ExitConfig, "root " + settings.root + " cannot be used (" +
                                         error.message() +
                                         "); name with --root a directory that the host may enter "
                                         "and read");
}

/// Both pools of events exist from here on, so that no plugin's first event has to make one.
void makeEventPools() {
    InitThreadPool();
    std::string event = R"({"to":[]})";
    publishMsgToAllPlugin(event);
}

/// From here on plugins start on the default pool, whose end waits for them.
void guardDefaultPool() {
    ThreadPool::defaultPool();
    ExitGuard::goFirst();
}

std::string bindRemedy(int error) {
    switch (error) {
    case EADDRINUSE:
        return "end the program that holds the port, or choose another with --port (0: a free one)";
    case EADDRNOTAVAIL:
        return "choose an address of this machine with --bind";
    case EACCES:
        return "choose a port above 1023 with --port";
    default:
        return "choose other values with --bind and --port";
    }
}

/// What a failed step of the start-up is for the operator.
[[noreturn]] void rethrowNaming(const char* step) {
    const std::string where = std::string("start-up failed at step '") + step + "': ";
    try {
        throw;
    } catch (const StartError&) {
        throw;
    } catch (const Poco::Exception& e) {
        throw StartError(ExitSoftware, where + e.displayText() + "; the log tells more");
    } catch (const std::system_error& e) {
        throw StartError(ExitSystem, where + e.what() + "; the system may be out of resources");
    } catch (const std::exception& e) {
        throw StartError(ExitSoftware, where + e.what() + "; the log tells more");
    } catch (...) {
        throw StartError(ExitSoftware,
                         where + "an exception of unknown type, as only a plugin throws it; remove "
                                 "the plugin that the log's last lines name");
    }
}

void logFailedStep(const char* step) {
    std::string reason = "exception of unknown type";
    try {
        throw;
    } catch (const Poco::Exception& e) {
        reason = e.displayText();
    } catch (const std::exception& e) {
        reason = e.what();
    } catch (...) {
        // the reason stands
    }
    if (cachedLogger().critical())
        cachedLogger().critical("shutdown step '" + std::string(step) + "' failed: " + reason,
                                __FILE__, __LINE__);
}

} // namespace

Host::Host(const Settings& settings_, StopControl& stop_, ServiceManager& manager_)
    : settings(settings_), stop(stop_), manager(manager_), webApi(WebApiBasic::instance()),
      mqttClient(makeMqttClient(settings)) {
    configureAccess(*webApi, settings);
    configureWebHook(settings);
}

void Host::run() {
    try {
        startUp();
        stop.wait();
        if (cachedLogger().information())
            cachedLogger().information("host ends: " + stop.reason(), __FILE__, __LINE__);
    } catch (const StartError& e) {
        stop.request("start-up failed");
        shutDown();
        throw;
    }
    shutDown();
}

void Host::enter(const Step& step) {
    stop.enter(step.name);
    manager.status(step.name);
}

void Host::startUp() {
    // Listens first, so that the port is known to the services and an early report waits; serves
    // last, so that somebody is there to act upon it. In between, before there is a plugin or a
    // service, what outlived an earlier host goes with its reports.
    const std::vector<Step> steps{
        {"enter root", [this] { enterRoot(settings); }},
        {"bind", [this] { bind(); }},
        {"make event pools", makeEventPools},
        {"check trees", [this] { checkTrees(); }},
        {"end leftovers", [this] { discardLeftovers(); }},
        {"load plugins", [this] { loadPlugins(); }},
        {"guard the default pool", guardDefaultPool},
        {"start services", [this] { startServices(); }},
        {"connect mqtt", [this] { mqttClient->connect(); }},
        {"install plugin api", [this] { PluginInstallApi(webApi, mqttClient); }},
        {"serve", [this] { webApi->serve(); }},
        {"start temperature thread",
         [this] { startTemperatureThread(settings.temperaturePeriod); }},
        {"start watchdog", [this] { startWatchdog(); }},
        {"run", [this] { tellReady(); }},
    };
    for (const Step& step : steps) {
        if (stop.requested())
            return;
        enter(step);
        try {
            step.work();
        } catch (...) {
            rethrowNaming(step.name);
        }
    }
}

void Host::shutDown() {
    // Nobody reports any more, then no report is served, then no accepted start waits: only now may
    // the plugins' objects go.
    const std::vector<Step> steps{
        {"stop services", [] { MSManager::instance().stop(); }},
        {"stop serving", [this] { webApi->stop(); }},
        {"finish plugin starts", [] { ThreadPool::defaultPool().joinAll(); }},
        {"unload plugins", PluginUnLoadAll},
        {"end watchdog", [this] { watchdog.reset(); }},
        {"stop temperature thread", stopTemperatureThread},
        {"remove plugin api",
         [] { NotificationCenter::defaultCenter().removeObserver("MSNotification"); }},
        {"disconnect mqtt", [this] { mqttClient->disconnect(); }},
        {"stop web hook", [this] { stopWebHook(); }},
    };
    manager.stopping();
    if (watchdog)
        watchdog->quit();
    for (const Step& step : steps) {
        enter(step);
        try {
            step.work();
        } catch (...) {
            logFailedStep(step.name);
        }
    }
    stop.enter("end of the process");
}

void Host::bind() {
    webApi->setLimits(settings.limits);
    try {
        address = webApi->bind(settings.bind, settings.port);
    } catch (const Poco::Exception& e) {
        throw StartError(ExitSystem, "cannot listen on " + settings.bind + " port " +
                                         std::to_string(settings.port) + " (" + e.displayText() +
                                         "); " + bindRemedy(e.code()));
    }
}

// Both before the first plugin runs, which could change what is found.
void Host::checkTrees() {
    StrictModes strictModes(settings);
    mayLoadPlugins = strictModes.mayUse("plugins", "is not loaded");
    mayStartServices = strictModes.mayUse("microservices", "is not started, nor a report taken");
}

// Only with the port: a host that is started twice must not end the services of the one that runs.
void Host::discardLeftovers() const {
    if (!mayStartServices)
        return;
    endLeftovers();
    // Nobody has been launched yet, so that no other service can have reported by now.
    const std::size_t closed = webApi->discardWaiting();
    if (closed != 0 && cachedLogger().information())
        cachedLogger().information("closed unread what had connected before the leftovers were "
                                   "ended, " +
                                       std::to_string(closed) + " in all",
                                   __FILE__, __LINE__);
}

/// What plugins do to the whole process while they load is undone where it would harm others.
void Host::loadPlugins() const {
    if (!mayLoadPlugins)
        return;
    {
        const KeepStandardDescriptors keep;
        PluginLoadAll();
    }
    // the services are looked for below the current directory
    enterRoot(settings);
}

void Host::startServices() const {
    if (mayStartServices)
        MSManager::instance().start(address.host().toString(), address.port());
}

void Host::tellReady() {
    const bool tls = !settings.access.certificateFile.empty();
    if (!settings.access.token.empty() && !tls && !address.host().isLoopback() &&
        cachedLogger().warning())
        cachedLogger().warning("the token crosses the network in plain text; set --tls-cert and "
                               "--tls-key",
                               __FILE__, __LINE__);
    const std::string line =
        std::string("ketra-host ready on ") + (tls ? "https://" : "http://") + address.toString();
    if (cachedLogger().information())
        cachedLogger().information(line, __FILE__, __LINE__);
    std::cout << line << std::endl;
    manager.ready(line);
}

void Host::startWatchdog() {
    if (manager.watchdogTime().count() > 0)
        watchdog.emplace(manager, address);
}

// A last attempt must not use up what the watch over the shutdown still gives.
void Host::stopWebHook() {
    const auto grace = std::min(std::chrono::milliseconds(2000), stop.remaining() / 2);
    WebHookBasic::defaultWebHook()->stop(
        Poco::Timespan(std::chrono::duration_cast<std::chrono::microseconds>(grace).count()));
}

} // namespace ktr::host
