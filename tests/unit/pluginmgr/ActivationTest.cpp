#include "PluginManagerUnderTest.h"

#include "ktr/common/MqttClient.h"
#include "ktr/common/WebApiBasic.h"

#include "support/Locks.h"
#include "support/LogHook.h"

#include <dlfcn.h>

#include <algorithm>

namespace {

/// What Poco's centre throws at the next registration; null for none.
std::exception_ptr& centreFailure() {
    static std::exception_ptr failure;
    return failure;
}

} // namespace

// Takes the place of the one in Poco's library, to which it hands on: the only way to see a
// registration fail.
void Poco::NotificationCenter::addObserver(const AbstractObserver& observer) {
    if (centreFailure())
        std::rethrow_exception(centreFailure());
    using Function = void (*)(NotificationCenter*, const AbstractObserver&);
    static const auto real = reinterpret_cast<Function>(
        dlsym(RTLD_NEXT, "_ZN4Poco18NotificationCenter11addObserverERKNS_16AbstractObserverE"));
    real(this, observer);
}

namespace ktr {
namespace {

using namespace test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class ActivationTest : public PluginManagerTest {
protected:
    ActivationTest() { MSManager::instance().properties.clear(); }
    ~ActivationTest() override {
        centreFailure() = nullptr;
        NotificationCenter::defaultCenter().removeObserver("MSNotification");
        MSManager::instance().properties.clear();
    }

    /// Files a plugin whose factory makes a1, a2 ... for guid "a".
    std::shared_ptr<Plugin> offer(const std::string& guid) {
        auto plugin = file(guid);
        plugin->factory = [this, guid, made = 0]() mutable {
            const std::string name = guid + std::to_string(++made);
            factoryUnderLock.push_back(!registryIsFree());
            diary.entries.push_back(name + ":made");
            auto object = std::make_shared<DiaryPlugin>(diary, name);
            if (prepare)
                prepare(*object);
            return object;
        };
        return plugin;
    }

    static void know(const std::string& guid, const std::string& ip, unsigned short port) {
        MSManager::instance().updateProperty(guid, ip, port);
    }

    void report(const std::string& guid, const std::string& ip = "10.1.1.1",
                unsigned short port = 2000) const {
        Poco::AutoPtr<MSNotification> notification(new MSNotification);
        notification->setMSGuid(guid);
        notification->setRpcIp(ip);
        notification->setRpcPort(port);
        sOnReport(*notification, webApi, mqttClient);
    }

    const std::shared_ptr<WebApiBasic> webApi = std::make_shared<WebApiBasic>();
    const std::shared_ptr<MqttClient> mqttClient = std::make_shared<MqttClient>();
    /// Applied to every object that a factory makes.
    std::function<void(DiaryPlugin&)> prepare;
    std::vector<bool> factoryUnderLock;
    const LogCapture log;
};

TEST_F(ActivationTest, RefusesAReportWithoutGuidThenWithoutAddress) {
    report("", "", 80);
    report("a", "", 80);
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(kError, "report recieved guid is empty"),
                                        std::tuple(kError, "report recieved ip is empty")));
    expectSource(log);
}

TEST_F(ActivationTest, RefusesReservedPorts) {
    report("a", "1.2.3.4", 0);
    report("a", "1.2.3.4", 1024);
    report("a", "1.2.3.4", 1025);
    EXPECT_THAT(
        lines(log),
        ElementsAre(std::tuple(kError, "report recieved port invalid: 0"),
                    std::tuple(kError, "report recieved port invalid: 1024"),
                    std::tuple(kError, "report recieved plugin not found for guid, guid: a, "
                                       "ip: 1.2.3.4, port: 1025")));
    EXPECT_THAT(s_plugins_map, IsEmpty());
    EXPECT_TRUE(registryIsFree());
    expectSource(log);
}

TEST_F(ActivationTest, ChecksAReportBeforeItTakesTheRegistrysLock) {
    const BrokenMutex broken(s_plugin_mutex);
    report("");
    report("a", "");
    report("a", "1.2.3.4", 1024);
    EXPECT_THAT(log.texts(kError), SizeIs(3));
}

TEST_F(ActivationTest, LetsOutAFailureToLockTheRegistry) {
    offer("a");
    know("a", "10.0.0.1", 3000);
    const BrokenMutex broken(s_plugin_mutex);
    EXPECT_THROW(report("a"), std::system_error);
    EXPECT_THAT(log.messages(), IsEmpty());
    EXPECT_THAT(diary.entries, IsEmpty());
}

TEST_F(ActivationTest, RefusesPluginsAndServicesUnderTheRegistrysLock) {
    file("never registered");
    offer("never reported");
    std::vector<bool> free;
    const LogHook hook([&](const Poco::Message&) { free.push_back(registryIsFree()); });
    report("");
    report("unknown");
    report("never registered");
    report("never reported");
    EXPECT_THAT(free, ElementsAre(true, false, false, false, false));
    EXPECT_TRUE(registryIsFree());
}

TEST_F(ActivationTest, AReportBeforeThePluginWasLoadedHasToComeAgain) {
    know("a", "10.0.0.1", 3000);
    report("a", "10.0.0.1", 3000);
    EXPECT_THAT(lines(log),
                ElementsAre(std::tuple(kError, "report recieved plugin not found for guid, "
                                               "guid: a, ip: 10.0.0.1, port: 3000")));
    offer("a");
    EXPECT_EQ(fakes::taskCount(), 0U);
    EXPECT_THAT(diary.entries, IsEmpty());
    report("a", "10.0.0.1", 3000);
    EXPECT_EQ(fakes::taskCount(), 1U);
}

TEST_F(ActivationTest, RefusesAPluginThatNeverRegistered) {
    file("a");
    s_plugins_map["b"] = nullptr;
    know("a", "10.0.0.1", 3000);
    report("a");
    report("b");
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(kError, "plugin_ptr is null, guid: a"),
                                        std::tuple(kError, "plugin_ptr is null, guid: b")));
    EXPECT_TRUE(registryIsFree());
    expectSource(log);
}

TEST_F(ActivationTest, RefusesAServiceWithoutAStoredAddress) {
    const auto plugin = offer("a");
    report("a");
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(kError, "guid 'a' not exist"),
                                        std::tuple(kError, "ms is null, guid: a")));
    EXPECT_FALSE(plugin->instance);
    EXPECT_THAT(diary.entries, IsEmpty());
    EXPECT_TRUE(registryIsFree());
}

TEST_F(ActivationTest, StartsTheObjectOnThePoolWithTheStoredAddress) {
    const auto plugin = offer("a");
    know("a", "10.0.0.1", 3000);
    report("a", "10.9.9.9", 9999);
    EXPECT_THAT(diary.entries, ElementsAre("a1:made", "a1:setEventCallback"));
    EXPECT_THAT(log.messages(), IsEmpty());
    EXPECT_TRUE(registryIsFree());
    const auto tasks = fakes::tasks();
    ASSERT_THAT(tasks, SizeIs(1));
    EXPECT_EQ(tasks[0].pool, "default");
    EXPECT_EQ(tasks[0].name, "startService");
    fakes::runTasks();
    EXPECT_THAT(diary.entries,
                ElementsAre("a1:made", "a1:setEventCallback", "a1:start 10.0.0.1 3000"));
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(kInformation, "starting plugin, guid: a"),
                                        std::tuple(kInformation, "started plugin, guid: a")));
    const auto object = std::static_pointer_cast<DiaryPlugin>(plugin->instance);
    EXPECT_THAT(factoryUnderLock, ElementsAre(true));
    EXPECT_THAT(object->registryWasFree, ElementsAre(false, true));
    EXPECT_EQ(object->webApi, webApi);
    EXPECT_EQ(object->mqttClient, mqttClient);
    expectSource(log);
}

TEST_F(ActivationTest, TellsTheWholeStoryInOrder) {
    offer("a");
    know("a", "10.0.0.1", 3000);
    s_plugin_cnt = 1;
    fakes::onServerStarted([&] {
        diary.entries.emplace_back("web hook told");
        EXPECT_EQ(s_plugin_cnt, 0);
        EXPECT_TRUE(registryIsFree());
        EXPECT_EQ(WebHookBasic::defaultWebHook().use_count(), 3); // its owner, the task, and this
    });
    const LogHook hook([&](const Poco::Message& line) {
        diary.entries.push_back("log:" + line.getText());
        const bool told = line.getText() == "edge reportServerStarted";
        EXPECT_EQ(s_plugin_cnt, told ? 0 : 1);
        EXPECT_EQ(WebHookBasic::defaultWebHook().use_count(), 2); // given back before it is logged
    });
    report("a");
    fakes::runTasks();
    EXPECT_THAT(diary.entries,
                ElementsAre("a1:made", "a1:setEventCallback", "log:starting plugin, guid: a",
                            "a1:start 10.0.0.1 3000", "log:started plugin, guid: a",
                            "web hook told", "log:edge reportServerStarted"));
}

TEST_F(ActivationTest, DoesAllThatWhereTheLevelHidesItsLines) {
    cachedLogger().setLevel("none");
    const auto plugin = offer("a");
    know("a", "10.0.0.1", 3000);
    s_plugin_cnt = 1;
    report("");
    report("a", "");
    report("a", "1.2.3.4", 1);
    report("unknown");
    report("a");
    fakes::runTasks();
    EXPECT_EQ(diary.entries.back(), "a1:start 10.0.0.1 3000");
    EXPECT_EQ(fakes::serverStartedReports(), 1);
    fakes::failStart(std::make_exception_ptr(std::runtime_error("busy")));
    report("a");
    EXPECT_EQ(diary.entries.back(), "a2:start 10.0.0.1 3000");
    plugin->factory = []() -> std::shared_ptr<PluginBase> { throw std::runtime_error("factory"); };
    report("a");
    plugin->factory = []() -> std::shared_ptr<PluginBase> { throw Poco::DataException("factory"); };
    report("a");
    EXPECT_FALSE(plugin->instance);
    file("never registered");
    report("never registered");
    offer("never reported");
    report("never reported");
    for (const auto& failure : {std::make_exception_ptr(Poco::RuntimeException("centre")),
                                std::make_exception_ptr(std::runtime_error("memory"))}) {
        centreFailure() = failure;
        PluginInstallApi(webApi, mqttClient);
    }
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(ActivationTest, StartsOnThePoolWithoutTheRegistrysLock) {
    offer("a");
    know("a", "10.0.0.1", 3000);
    report("a");
    const BrokenMutex broken(s_plugin_mutex);
    fakes::runTasks();
    EXPECT_EQ(diary.entries.back(), "a1:start 10.0.0.1 3000");
    EXPECT_EQ(s_plugin_cnt, -1);
}

TEST_F(ActivationTest, TakesTheStoredAddressUnderTheLockOfTheAddresses) {
    offer("a");
    know("a", "10.0.0.1", 3000);
    report("a");
    const BrokenMutex broken(MSManager::instance().propertyMutex);
    EXPECT_THROW(fakes::runTasks(), std::system_error);
    EXPECT_EQ(diary.entries.back(), "a1:setEventCallback");
}

TEST_F(ActivationTest, AStartWithoutAStoredAddressThrows) {
    const auto plugin = offer("a");
    plugin->instance = plugin->factory();
    EXPECT_THROW(sStart(plugin, "a", webApi, mqttClient, nullptr), Poco::NullPointerException);
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(kInformation, "starting plugin, guid: a")));
    EXPECT_EQ(diary.entries.back(), "a1:made");
}

TEST_F(ActivationTest, GivesAllBackThatItUsed) {
    const auto plugin = offer("a");
    know("a", "10.0.0.1", 3000);
    const auto ms = MSManager::instance().getMSProperty("a");
    report("a");
    EXPECT_EQ(plugin.use_count(), 3); // the registry's, this one, and the task's
    EXPECT_EQ(ms.referenceCount(), 3);
    EXPECT_EQ(webApi.use_count(), 2);
    EXPECT_EQ(mqttClient.use_count(), 2);
    { fakes::takeTask().run(); }
    fakes::setAvailable("default", 0);
    report("a");
    EXPECT_EQ(plugin.use_count(), 2);
    EXPECT_EQ(ms.referenceCount(), 2);
    EXPECT_EQ(webApi.use_count(), 1); // what the object got is gone with it
    EXPECT_EQ(mqttClient.use_count(), 1);
}

TEST_F(ActivationTest, AStartsReferencesAreReleasedLastTakenFirst) {
    std::vector<std::string> order;
    Poco::SharedPtr<MSProperty> ms;
    /// Notes its end.
    struct Noting : PluginBase {
        explicit Noting(std::function<void()> onEnd_) : onEnd(std::move(onEnd_)) {}
        ~Noting() override { onEnd(); }
        void start(std::shared_ptr<WebApiBasic> /*webApi*/, std::shared_ptr<MqttClient> /*client*/,
                   std::string /*ip*/, unsigned short /*port*/) override {}
        void stop() override {}
        void onMessage(std::string /*text*/) override {}
        const std::function<void()> onEnd;
    };
    const auto note = [&](const std::string& what) {
        order.push_back(what + ", address shared by " + std::to_string(ms.referenceCount()));
    };
    {
        const std::shared_ptr<WebApiBasic> api(new WebApiBasic, [&](const WebApiBasic* gone) {
            note("web api");
            delete gone;
        });
        const std::shared_ptr<MqttClient> client(new MqttClient, [&](const MqttClient* gone) {
            note("mqtt client");
            delete gone;
        });
        know("a", "10.0.0.1", 3000);
        ms = MSManager::instance().getMSProperty("a");
        MSManager::instance().properties.clear();
        const auto plugin = std::make_shared<Plugin>();
        plugin->factory = [&] { return std::make_shared<Noting>([&] { note("plugin"); }); };
        MSManager::instance().properties["a"] = ms;
        sActivate(plugin, "a", api, client);
        MSManager::instance().properties.clear();
    }
    ASSERT_THAT(order, IsEmpty());
    { fakes::takeTask().run(); }
    EXPECT_THAT(order,
                ElementsAre("plugin, address shared by 2", "mqtt client, address shared by 1",
                            "web api, address shared by 1"));
}

TEST_F(ActivationTest, InstallsTheEventIntakeItselfAsTheCallback) {
    const auto plugin = offer("a");
    know("a", "10.0.0.1", 3000);
    report("a");
    auto& callback = plugin->instance->eventCallback;
    using Function = void (*)(std::string);
    ASSERT_NE(callback.target<Function>(), nullptr);
    EXPECT_EQ(*callback.target<Function>(), &sEventCallback);
}

TEST_F(ActivationTest, HandsOverUnderTheRegistrysLock) {
    offer("a");
    know("a", "10.0.0.1", 3000);
    std::vector<bool> free;
    fakes::onStart([&] { free.push_back(registryIsFree()); });
    report("a");
    EXPECT_THAT(free, ElementsAre(false));
}

TEST_F(ActivationTest, StartsWithTheAddressThatIsStoredWhenTheTaskRuns) {
    offer("a");
    know("a", "10.0.0.1", 3000);
    report("a");
    know("a", "10.0.0.2", 3001);
    fakes::runTasks();
    EXPECT_EQ(diary.entries.back(), "a1:start 10.0.0.2 3001");
}

TEST_F(ActivationTest, StopsAndDropsTheFormerObjectBeforeANewOneIsMade) {
    offer("a");
    know("a", "10.0.0.1", 3000);
    s_plugin_cnt = 5;
    report("a");
    fakes::runTasks();
    diary.entries.clear();
    report("a");
    EXPECT_THAT(diary.entries,
                ElementsAre("a1:stop", "a1:destroyed", "a2:made", "a2:setEventCallback"));
    fakes::runTasks();
    EXPECT_EQ(diary.entries.back(), "a2:start 10.0.0.1 3000");
    EXPECT_EQ(s_plugin_cnt, 3);
}

TEST_F(ActivationTest, StopsTheFormerObjectUnderTheRegistrysLock) {
    const auto plugin = offer("a");
    know("a", "10.0.0.1", 3000);
    report("a");
    const auto former = std::static_pointer_cast<DiaryPlugin>(plugin->instance);
    report("a");
    EXPECT_EQ(diary.entries[2], "a1:stop");
    EXPECT_THAT(former->registryWasFree, ElementsAre(false, false));
}

TEST_F(ActivationTest, AWaitingStartTakesTheObjectThatTheRecordHoldsByThen) {
    offer("a");
    know("a", "10.0.0.1", 3000);
    report("a");
    report("a");
    fakes::runTasks();
    EXPECT_THAT(diary.entries, ElementsAre("a1:made", "a1:setEventCallback", "a1:stop",
                                           "a1:destroyed", "a2:made", "a2:setEventCallback",
                                           "a2:start 10.0.0.1 3000", "a2:start 10.0.0.1 3000"));
}

TEST_F(ActivationTest, AWaitingStartKeepsTheRecordAliveAfterItWasUnregistered) {
    offer("a");
    know("a", "10.0.0.1", 3000);
    report("a");
    unregisterPlugin("a");
    fakes::runTasks();
    EXPECT_THAT(diary.entries, ElementsAre("a1:made", "a1:setEventCallback",
                                           "a1:start 10.0.0.1 3000", "a1:destroyed"));
}

TEST_F(ActivationTest, AnObjectLivesThroughAStartDuringWhichItIsReplaced) {
    offer("a");
    know("a", "10.0.0.1", 3000);
    struct Replaced : DiaryPlugin {
        using DiaryPlugin::DiaryPlugin;
        std::function<void()> meanwhile;
        void start(std::shared_ptr<WebApiBasic> /*webApi*/, std::shared_ptr<MqttClient> /*client*/,
                   std::string /*ip*/, unsigned short /*port*/) override {
            note("start begins");
            meanwhile();
            note("start ends");
        }
    };
    const auto plugin = s_plugins_map.at("a");
    plugin->factory = [this] {
        auto object = std::make_shared<Replaced>(diary, "r");
        object->meanwhile = [] { PluginUnLoadAll(); };
        return object;
    };
    report("a");
    fakes::runTasks();
    EXPECT_THAT(diary.entries, ElementsAre("r:setEventCallback", "r:start begins", "r:stop",
                                           "r:start ends", "r:destroyed"));
}

TEST_F(ActivationTest, MakesButDoesNotStartAnObjectWhileThePoolHasNoFreeThread) {
    const auto plugin = offer("a");
    know("a", "10.0.0.1", 3000);
    s_plugin_cnt = 1;
    fakes::setAvailable("default", 0);
    report("a");
    report("a");
    EXPECT_THAT(diary.entries, ElementsAre("a1:made", "a1:setEventCallback", "a1:stop",
                                           "a1:destroyed", "a2:made", "a2:setEventCallback"));
    EXPECT_TRUE(plugin->instance);
    EXPECT_EQ(fakes::taskCount(), 0U);
    EXPECT_THAT(log.messages(), IsEmpty());
    fakes::setAvailable("default", 1);
    report("a");
    fakes::runTasks();
    EXPECT_EQ(diary.entries.back(), "a3:start 10.0.0.1 3000");
    EXPECT_EQ(fakes::serverStartedReports(), 1);
}

TEST_F(ActivationTest, TakesLessThanNoFreeThreadForNone) {
    const auto plugin = offer("a");
    know("a", "10.0.0.1", 3000);
    fakes::setAvailable("default", -1);
    report("a");
    EXPECT_TRUE(plugin->instance);
    EXPECT_EQ(fakes::taskCount(), 0U);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(ActivationTest, StartsUnderTheLockAndUncountedWhenThePoolRefuses) {
    const auto plugin = offer("a");
    know("a", "10.0.0.1", 3000);
    s_plugin_cnt = 1;
    fakes::failStart(std::make_exception_ptr(Poco::NoThreadAvailableException("all busy")));
    report("a");
    EXPECT_THAT(diary.entries,
                ElementsAre("a1:made", "a1:setEventCallback", "a1:start 10.0.0.1 3000"));
    EXPECT_THAT(lines(log),
                ElementsAre(std::tuple(kInformation, Poco::NoThreadAvailableException().what()),
                            std::tuple(kInformation, "starting plugin, guid: a"),
                            std::tuple(kInformation, "started plugin, guid: a")));
    const auto object = std::static_pointer_cast<DiaryPlugin>(plugin->instance);
    EXPECT_THAT(object->registryWasFree, ElementsAre(false, false));
    EXPECT_EQ(object->webApi, webApi);
    EXPECT_EQ(object->mqttClient, mqttClient);
    EXPECT_EQ(s_plugin_cnt, 1);
    EXPECT_EQ(fakes::serverStartedReports(), 0);
    EXPECT_TRUE(registryIsFree());
    expectSource(log);
}

TEST_F(ActivationTest, LogsWhatTheFallbackStartThrows) {
    const auto plugin = offer("a");
    know("a", "10.0.0.1", 3000);
    prepare = [](DiaryPlugin& object) { object.throwOnStart = true; };
    fakes::failStart(std::make_exception_ptr(std::runtime_error("pool gone")));
    report("a");
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(kInformation, "pool gone"),
                                        std::tuple(kInformation, "starting plugin, guid: a"),
                                        std::tuple(kCritical, "start failed")));
    EXPECT_TRUE(plugin->instance);
    EXPECT_TRUE(registryIsFree());
}

/// Throws the same thing from each of its entry points that is named.
struct ThrowingPlugin : PluginBase {
    ThrowingPlugin(std::string where_, std::exception_ptr failure_)
        // NOLINTNEXTLINE(bugprone-throw-keyword-missing): thrown when it is called
        : where(std::move(where_)), failure(std::move(failure_)) {}
    void setEventCallback(std::function<void(std::string)> /*callback*/) override {
        throwIf("setEventCallback");
    }
    void start(std::shared_ptr<WebApiBasic> /*webApi*/, std::shared_ptr<MqttClient> /*client*/,
               std::string /*ip*/, unsigned short /*port*/) override {
        throwIf("start");
    }
    void stop() override { throwIf("stop"); }
    void onMessage(std::string /*text*/) override {}
    void throwIf(const std::string& entryPoint) const {
        if (where == entryPoint)
            std::rethrow_exception(failure);
    }
    const std::string where;
    const std::exception_ptr failure;
};

class ActivationFailureTest : public ActivationTest {
protected:
    ActivationFailureTest() {
        know("a", "10.0.0.1", 3000);
        fakes::failStart(std::make_exception_ptr(std::runtime_error("pool")));
    }

    /// Reports for a plugin that has an object already and throws `failure` from `where`.
    void reportTo(const std::string& where, const std::exception_ptr& failure) {
        plugin->instance = std::make_shared<ThrowingPlugin>(where, failure);
        plugin->factory = [where, failure]() -> std::shared_ptr<PluginBase> {
            if (where == "factory")
                std::rethrow_exception(failure);
            return std::make_shared<ThrowingPlugin>(where, failure);
        };
        report("a");
    }

    const std::shared_ptr<Plugin> plugin = file("a");
    const std::vector<std::string> entryPoints = {"stop", "factory", "setEventCallback", "start"};
};

TEST_F(ActivationFailureTest, LogsPocosAndStandardExceptionsOfEveryEntryPoint) {
    for (const std::string& where : entryPoints) {
        reportTo(where, std::make_exception_ptr(Poco::DataException(where)));
        EXPECT_EQ(log.texts(kCritical).back(), "Data error: " + where);
        EXPECT_TRUE(registryIsFree()) << where;
        reportTo(where, std::make_exception_ptr(std::runtime_error(where)));
        EXPECT_EQ(log.texts(kCritical).back(), where);
        EXPECT_TRUE(registryIsFree()) << where;
    }
    EXPECT_THAT(log.texts(kCritical), SizeIs(8));
    expectSource(log);
}

TEST_F(ActivationFailureTest, LetsOutWhatIsNoExceptionObjectAndUnlocks) {
    for (const std::string& where : entryPoints) {
        EXPECT_THROW(reportTo(where, std::make_exception_ptr(1)), int) << where;
        EXPECT_TRUE(registryIsFree()) << where;
    }
    EXPECT_THAT(log.texts(kCritical), IsEmpty());
}

TEST_F(ActivationFailureTest, LetsOutWhatThePoolThrowsIfItIsNoExceptionObject) {
    fakes::failStart(std::make_exception_ptr(1));
    EXPECT_THROW(reportTo("", nullptr), int);
    EXPECT_THAT(log.messages(), IsEmpty());
    EXPECT_TRUE(registryIsFree());
}

TEST_F(ActivationFailureTest, LogsAFailureToLookTheAddressUpAndKeepsTheFormerObject) {
    const auto former = std::make_shared<ThrowingPlugin>("", nullptr);
    plugin->factory = [] { return std::make_shared<ThrowingPlugin>("", nullptr); };
    plugin->instance = former;
    const BrokenMutex broken(MSManager::instance().propertyMutex);
    report("a");
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(kCritical, std::string(BrokenMutex::kText))));
    EXPECT_EQ(plugin->instance, former);
    EXPECT_TRUE(registryIsFree());
}

using ActivationDeathTest = ActivationTest;

TEST_F(ActivationDeathTest, AFactoryThatReturnsNullEndsTheProcess) {
    know("a", "10.0.0.1", 3000);
    file("a")->factory = [] { return std::shared_ptr<PluginBase>(); };
    EXPECT_DEATH(report("a"), "");
}

TEST_F(ActivationDeathTest, AStartWhoseObjectWasDroppedMeanwhileEndsTheProcess) {
    offer("a");
    know("a", "10.0.0.1", 3000);
    report("a");
    PluginUnLoadAll();
    EXPECT_DEATH(fakes::runTasks(), "");
}

TEST_F(ActivationTest, LetsAFailedStartLeaveTheTaskUncounted) {
    offer("a");
    know("a", "10.0.0.1", 3000);
    s_plugin_cnt = 1;
    prepare = [](DiaryPlugin& object) { object.throwOnStart = true; };
    report("a");
    EXPECT_THROW(fakes::runTasks(), std::runtime_error);
    EXPECT_EQ(s_plugin_cnt, 1);
    EXPECT_EQ(fakes::serverStartedReports(), 0);
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(kInformation, "starting plugin, guid: a")));
}

TEST_F(ActivationTest, KeepsTheFormerObjectWhenItsStopThrows) {
    const auto plugin = offer("a");
    know("a", "10.0.0.1", 3000);
    prepare = [](DiaryPlugin& object) { object.throwOnStop = true; };
    report("a");
    const auto former = plugin->instance;
    report("a");
    EXPECT_THAT(log.texts(kCritical), ElementsAre("stop failed"));
    EXPECT_EQ(plugin->instance, former);
    EXPECT_EQ(fakes::taskCount(), 1U);
    EXPECT_TRUE(registryIsFree());
    expectSource(log);
}

TEST_F(ActivationTest, LogsWhatTheFactoryThrows) {
    const auto plugin = offer("a");
    know("a", "10.0.0.1", 3000);
    report("a");
    plugin->factory = []() -> std::shared_ptr<PluginBase> {
        throw Poco::OutOfMemoryException("factory");
    };
    report("a");
    EXPECT_THAT(log.texts(kCritical), ElementsAre("Out of memory: factory"));
    EXPECT_FALSE(plugin->instance);
    EXPECT_TRUE(registryIsFree());
}

TEST_F(ActivationTest, KeepsAnObjectThatRefusesItsCallbackButDoesNotStartIt) {
    const auto plugin = offer("a");
    know("a", "10.0.0.1", 3000);
    prepare = [](DiaryPlugin& object) { object.throwOnSetEventCallback = true; };
    report("a");
    EXPECT_THAT(log.texts(kCritical), ElementsAre("Data error: callback refused"));
    EXPECT_TRUE(plugin->instance);
    EXPECT_EQ(fakes::taskCount(), 0U);
    EXPECT_TRUE(registryIsFree());
}

TEST_F(ActivationTest, TellsTheWebHookOnceWhenAsManyStartsEndedAsPluginsWereLoaded) {
    s_plugin_cnt = 2;
    for (const char* guid : {"a", "b"}) {
        offer(guid);
        know(guid, "10.0.0.1", 3000);
    }
    report("a");
    fakes::runTasks();
    EXPECT_EQ(fakes::serverStartedReports(), 0);
    EXPECT_EQ(log.count("edge reportServerStarted"), 0);
    report("a"); // it is starts that count, not plugins
    fakes::runTasks();
    EXPECT_EQ(fakes::serverStartedReports(), 1);
    EXPECT_THAT(lines(log).back(),
                testing::Eq(std::tuple(kInformation, std::string("edge reportServerStarted"))));
    report("b");
    report("a");
    fakes::runTasks();
    EXPECT_EQ(fakes::serverStartedReports(), 1);
    EXPECT_EQ(log.count("edge reportServerStarted"), 1);
    EXPECT_EQ(s_plugin_cnt, -2);
    expectSource(log);
}

TEST_F(ActivationTest, DoesNotTellTheWebHookWhenMoreStartsEndedThanPluginsWereLoaded) {
    offer("a");
    know("a", "10.0.0.1", 3000);
    report("a");
    fakes::runTasks();
    EXPECT_EQ(s_plugin_cnt, -1);
    EXPECT_EQ(fakes::serverStartedReports(), 0);
    EXPECT_EQ(log.count("edge"), 0);
}

TEST_F(ActivationTest, LetsAFailureOfTheWebHookLeaveTheTask) {
    s_plugin_cnt = 1;
    offer("a");
    know("a", "10.0.0.1", 3000);
    fakes::failWebHook(std::make_exception_ptr(std::runtime_error("hook")));
    report("a");
    EXPECT_THROW(fakes::runTasks(), std::runtime_error);
    EXPECT_EQ(s_plugin_cnt, 0);
    EXPECT_EQ(log.count("edge reportServerStarted"), 0);
}

TEST_F(ActivationTest, AnInstalledApiReactsToAPostedReport) {
    PluginInstallApi(webApi, mqttClient);
    EXPECT_THAT(log.messages(), IsEmpty());
    EXPECT_EQ(webApi.use_count(), 2);
    const auto plugin = offer("a");
    know("a", "10.0.0.1", 3000);
    Poco::AutoPtr<MSNotification> notification(new MSNotification);
    notification->setMSGuid("a");
    notification->setRpcPort(3000);
    const int references = notification->referenceCount();
    Poco::NotificationCenter::defaultCenter().postNotification(notification);
    EXPECT_EQ(notification->referenceCount(), references + 1);
    fakes::runTasks();
    EXPECT_EQ(diary.entries.back(), "a1:start 10.0.0.1 3000");
    const auto object = std::static_pointer_cast<DiaryPlugin>(plugin->instance);
    EXPECT_EQ(object->webApi, webApi);
    EXPECT_EQ(object->mqttClient, mqttClient);
    notification->release(); // the reference that a delivery keeps
}

TEST_F(ActivationTest, IsInstalledUnderTheNameOfTheNotification) {
    PluginInstallApi(webApi, mqttClient);
    EXPECT_EQ(webApi.use_count(), 2);
    EXPECT_EQ(mqttClient.use_count(), 2);
    NotificationCenter::defaultCenter().removeObserver("MSNotification");
    EXPECT_EQ(webApi.use_count(), 1);
    EXPECT_EQ(mqttClient.use_count(), 1);
    EXPECT_FALSE(Poco::NotificationCenter::defaultCenter().hasObservers());
}

TEST_F(ActivationTest, LetsOutAFailureToLockToWhoeverPostsTheReport) {
    PluginInstallApi(webApi, mqttClient);
    Poco::AutoPtr<MSNotification> notification(new MSNotification);
    notification->setMSGuid("a");
    notification->setRpcPort(3000);
    const BrokenMutex broken(s_plugin_mutex);
    EXPECT_THROW(Poco::NotificationCenter::defaultCenter().postNotification(notification),
                 std::system_error);
    notification->release(); // the reference that a delivery keeps
}

TEST_F(ActivationTest, LetsOutAnInstallationThatThrowsNoExceptionObject) {
    centreFailure() = std::make_exception_ptr(1);
    EXPECT_THROW(PluginInstallApi(webApi, mqttClient), int);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(ActivationTest, IgnoresOtherNotificationsSilently) {
    PluginInstallApi(webApi, mqttClient);
    const Poco::AutoPtr<Poco::Notification> notification(new Poco::Notification);
    Poco::NotificationCenter::defaultCenter().postNotification(notification);
    notification->release(); // the reference that a delivery keeps
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(ActivationTest, LogsAFailedInstallationAndThenIsNotInstalled) {
    centreFailure() = std::make_exception_ptr(Poco::RuntimeException("centre"));
    PluginInstallApi(webApi, mqttClient);
    centreFailure() = std::make_exception_ptr(std::runtime_error("memory"));
    PluginInstallApi(webApi, mqttClient);
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(kCritical, "Runtime exception: centre"),
                                        std::tuple(kCritical, "memory")));
    EXPECT_EQ(webApi.use_count(), 1);
    EXPECT_FALSE(Poco::NotificationCenter::defaultCenter().hasObservers());
    expectSource(log);
}

} // namespace
} // namespace ktr
