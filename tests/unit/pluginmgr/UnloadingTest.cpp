#include "FixtureCalls.h"
#include "LogWitness.h"
#include "SharedLibraryProbe.h"

#include "support/RefusingMutex.h"
#include "support/WaitUntil.h"

/// The fixture plugins tell it what the library called.
extern "C" KTR_API void ketraFixtureCalled(const char* what) {
    ktr::test::FixtureCalls::instance().note(what);
}

namespace ktr {
namespace {

using namespace test;
using testing::ElementsAre;
using testing::FieldsAre;
using testing::IsEmpty;

/// Does in stop() what the test wants.
class ActingPlugin : public PluginBase {
public:
    explicit ActingPlugin(std::function<void()> act_) : act(std::move(act_)) {}
    void stop() override { act(); }
    void onMessage(std::string /*text*/) override {}

private:
    const std::function<void()> act;
};

class UnloadingTest : public FixturePluginTest {
protected:
    ~UnloadingTest() override {
        _loop_thread_get_cpu_temp_run = false;
        if (_loop_thread_get_cpu_temp.joinable())
            _loop_thread_get_cpu_temp.join();
    }

    /// The guids in the order in which the registry goes through them.
    static std::vector<std::string> registryOrder() {
        std::vector<std::string> guids;
        guids.reserve(s_plugins_map.size());
        for (const auto& entry : s_plugins_map)
            guids.push_back(entry.first);
        return guids;
    }

    std::shared_ptr<DiaryPlugin> activate(const std::string& guid) {
        auto instance = std::make_shared<DiaryPlugin>(diary, guid);
        file(guid)->instance = instance;
        return instance;
    }
};

TEST_F(UnloadingTest, IsSilentWithoutPluginsAndSamplingThread) {
    _loop_thread_get_cpu_temp_run = true;
    PluginUnLoadAll();
    PluginUnLoadAll();
    EXPECT_THAT(log.messages(), IsEmpty());
    EXPECT_TRUE(_loop_thread_get_cpu_temp_run);
}

TEST_F(UnloadingTest, StopsThenDropsTheObjectUnderTheLock) {
    s_plugin_cnt = 4;
    std::vector<bool> free;
    {
        const auto instance = activate("a");
        PluginUnLoadAll();
        free = instance->registryWasFree;
        EXPECT_EQ(instance.use_count(), 1);
    }
    EXPECT_THAT(diary.entries, ElementsAre("a:stop", "a:destroyed"));
    EXPECT_THAT(free, ElementsAre(false));
    EXPECT_THAT(
        lines(log),
        ElementsAre(std::tuple(kInformation, "----before PluginUnLoadAll-plugin: name of a"),
                    std::tuple(kInformation, "----end PluginUnLoadAll-plugin: name of a")));
    EXPECT_THAT(s_plugins_map, IsEmpty());
    EXPECT_EQ(s_plugin_cnt, 0);
    EXPECT_TRUE(registryIsFree());
}

TEST_F(UnloadingTest, CallsNothingInAPluginThatWasNeverActivated) {
    load({fixture("Complete")});
    s_plugins_map["null"] = nullptr;
    FixtureCalls::instance().clear();
    PluginUnLoadAll();
    EXPECT_THAT(called(), IsEmpty());
    EXPECT_EQ(log.count("----before PluginUnLoadAll-plugin: fixture"), 1);
    EXPECT_EQ(log.count("----end PluginUnLoadAll-plugin: fixture"), 1);
    EXPECT_EQ(log.count("PluginUnLoadAll-plugin: "), 2);
    EXPECT_THAT(s_plugins_map, IsEmpty());
}

TEST_F(UnloadingTest, WritesItsLinesAroundTheStopAndTheDropAndUnderTheLock) {
    s_plugin_cnt = 1;
    const LogWitness witness;
    std::vector<std::size_t> linesBefore;
    const auto noteLines = [&] { linesBefore.push_back(witness.lines().size()); };
    file("a")->instance = std::shared_ptr<PluginBase>(new ActingPlugin(noteLines),
                                                      [noteLines](const PluginBase* plugin) {
                                                          noteLines();
                                                          delete plugin;
                                                      });
    PluginUnLoadAll();
    EXPECT_THAT(linesBefore, ElementsAre(1U, 1U));
    EXPECT_THAT(witness.lines(),
                ElementsAre(FieldsAre("----before PluginUnLoadAll-plugin: name of a", false, 0, 1),
                            FieldsAre("----end PluginUnLoadAll-plugin: name of a", false, 0, 1)));
}

TEST_F(UnloadingTest, VisitsTheRecordsInTheRegistrysOrder) {
    std::vector<std::string> stopped;
    for (const std::string guid : {"e", "b", "d", "a", "c"})
        file(guid)->instance =
            std::make_shared<ActingPlugin>([&stopped, guid] { stopped.push_back(guid); });
    const std::vector<std::string> order = registryOrder();
    PluginUnLoadAll();
    EXPECT_EQ(stopped, order);
}

TEST_F(UnloadingTest, NeverCallsPluginUnLoad) {
    load({fixture("Complete")});
    const auto plugin = s_plugins_map.at("complete");
    ASSERT_NE(plugin->unloadFn, nullptr);
    plugin->instance = plugin->factory();
    FixtureCalls::instance().clear();
    PluginUnLoadAll();
    EXPECT_THAT(called(), ElementsAre("stop", "~"));
}

TEST_F(UnloadingTest, UnloadsALibraryThatTheRecordOwnsBeforeItStopsTheObject) {
    const auto plugin = file("a");
    plugin->library = new Poco::SharedLibrary;
    plugin->library->load(fixture("Complete"));
    const Poco::SharedPtr<Poco::SharedLibrary> library = plugin->library;
    bool loadedAtStop = true;
    bool ownedAtStop = true;
    plugin->instance = std::make_shared<ActingPlugin>([&] {
        loadedAtStop = library->isLoaded();
        ownedAtStop = !plugin->library.isNull();
    });
    PluginUnLoadAll();
    EXPECT_FALSE(loadedAtStop);
    EXPECT_FALSE(ownedAtStop);
    EXPECT_FALSE(library->isLoaded());
    EXPECT_TRUE(plugin->library.isNull());
    EXPECT_FALSE(plugin->instance);
}

TEST_F(UnloadingTest, LeavesTheObjectRunningWhenItsLibraryCannotBeUnloaded) {
    const auto instance = activate("a");
    s_plugins_map.at("a")->library = new Poco::SharedLibrary;
    SharedLibraryProbe::instance().onUnload = [] { throw Poco::SystemException("busy"); };
    PluginUnLoadAll();
    SharedLibraryProbe::instance().onUnload = nullptr;
    EXPECT_THAT(log.texts(kCritical), ElementsAre("System exception: busy"));
    EXPECT_THAT(diary.entries, IsEmpty());
    EXPECT_FALSE(s_plugins_map.at("a")->library.isNull());
    EXPECT_EQ(s_plugins_map.at("a")->instance, instance);
    EXPECT_EQ(log.count("----end"), 0);
    EXPECT_TRUE(registryIsFree());
}

TEST_F(UnloadingTest, ResetsOnlyTheCountWhenTheLockFails) {
    s_plugin_cnt = 3;
    const auto instance = activate("a");
    {
        const RefusingMutex refusing(s_plugin_mutex);
        PluginUnLoadAll();
    }
    EXPECT_THAT(lines(log),
                ElementsAre(std::tuple(
                    kCritical, std::system_error(EDEADLK, std::generic_category()).what())));
    EXPECT_EQ(s_plugin_cnt, 0);
    EXPECT_EQ(s_plugins_map.at("a")->instance, instance);
    EXPECT_THAT(diary.entries, IsEmpty());
}

TEST_F(UnloadingTest, LetsOutWhatIsNoStandardException) {
    file("a")->instance = std::make_shared<ActingPlugin>([] { throw 42; });
    EXPECT_THROW(PluginUnLoadAll(), int);
    EXPECT_EQ(s_plugins_map.count("a"), 1U);
    EXPECT_THAT(log.texts(kCritical), IsEmpty());
    EXPECT_TRUE(registryIsFree());
}

TEST_F(UnloadingTest, KeepsDroppedWhatItStoppedBeforeAStopThrows) {
    for (const char* const guid : {"a", "b", "c"})
        activate(guid);
    const std::vector<std::string> order = registryOrder();
    s_plugins_map.at(order[1])->instance =
        std::make_shared<ActingPlugin>([] { throw std::runtime_error("stop failed"); });
    diary.entries.clear();
    PluginUnLoadAll();
    EXPECT_THAT(diary.entries, ElementsAre(order[0] + ":stop", order[0] + ":destroyed"));
    EXPECT_EQ(s_plugins_map.size(), 3U);
    EXPECT_FALSE(s_plugins_map.at(order[0])->instance);
    EXPECT_TRUE(s_plugins_map.at(order[1])->instance);
    EXPECT_TRUE(s_plugins_map.at(order[2])->instance);
    EXPECT_THAT(
        lines(log),
        ElementsAre(
            std::tuple(kInformation, "----before PluginUnLoadAll-plugin: name of " + order[0]),
            std::tuple(kInformation, "----end PluginUnLoadAll-plugin: name of " + order[0]),
            std::tuple(kInformation, "----before PluginUnLoadAll-plugin: name of " + order[1]),
            std::tuple(kCritical, "stop failed")));
}

TEST_F(UnloadingTest, LeavesTheRestAsItIsWhenAStopThrows) {
    s_plugin_cnt = 2;
    const auto first = activate("a");
    const auto second = activate("b");
    const std::string before = registryOrder().front();
    (before == "a" ? first : second)->throwOnStop = true;
    _loop_thread_get_cpu_temp_run = true;
    _loop_thread_get_cpu_temp =
        std::thread([] { waitUntil([] { return !_loop_thread_get_cpu_temp_run; }); });
    PluginUnLoadAll();
    EXPECT_THAT(log.texts(kCritical), ElementsAre("stop failed"));
    EXPECT_THAT(diary.entries, ElementsAre(before + ":stop"));
    EXPECT_EQ(s_plugins_map.size(), 2U);
    EXPECT_TRUE(s_plugins_map.at("a")->instance && s_plugins_map.at("b")->instance);
    EXPECT_EQ(log.count("----before PluginUnLoadAll-plugin: name of " + before), 1);
    EXPECT_EQ(log.count("PluginUnLoadAll-plugin: "), 1);
    EXPECT_EQ(s_plugin_cnt, 0);
    EXPECT_TRUE(_loop_thread_get_cpu_temp_run);
    EXPECT_TRUE(_loop_thread_get_cpu_temp.joinable());
    EXPECT_TRUE(registryIsFree());
}

TEST_F(UnloadingTest, LogsAPocoExceptionWithItsDisplayText) {
    file("a")->instance =
        std::make_shared<ActingPlugin>([] { throw Poco::TimeoutException("busy"); });
    PluginUnLoadAll();
    EXPECT_THAT(log.texts(kCritical), ElementsAre("Timeout: busy"));
}

TEST_F(UnloadingTest, StopsTheSameWhereTheLevelHidesItsLines) {
    cachedLogger().setLevel("none");
    activate("a");
    PluginUnLoadAll();
    EXPECT_THAT(diary.entries, ElementsAre("a:stop", "a:destroyed"));
    EXPECT_THAT(s_plugins_map, IsEmpty());
    activate("b")->throwOnStop = true;
    PluginUnLoadAll();
    s_plugins_map.at("b")->instance =
        std::make_shared<ActingPlugin>([] { throw Poco::TimeoutException("busy"); });
    PluginUnLoadAll();
    EXPECT_TRUE(s_plugins_map.at("b")->instance);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(UnloadingTest, EndsTheSamplingThreadAfterTheRegistryIsEmptyAndUnderItsLock) {
    activate("a");
    std::size_t records = 1;
    bool free = true;
    bool told = false;
    _loop_thread_get_cpu_temp_run = true;
    _loop_thread_get_cpu_temp = std::thread([&] {
        told = waitUntil([] { return !_loop_thread_get_cpu_temp_run; });
        free = registryIsFree();
        records = s_plugins_map.size();
    });
    PluginUnLoadAll();
    EXPECT_TRUE(told);
    EXPECT_FALSE(_loop_thread_get_cpu_temp.joinable());
    EXPECT_FALSE(_loop_thread_get_cpu_temp_run);
    EXPECT_EQ(records, 0U);
    EXPECT_FALSE(free);
    PluginUnLoadAll();
    EXPECT_TRUE(registryIsFree());
}

TEST_F(UnloadingTest, LeavesPoolsQueuesAndServicesAsTheyAre) {
    InitThreadPool();
    fakes::setAvailable("eventCallBack", 0);
    fakes::setAvailable("rapidEvent", 0);
    std::string event = R"({"to":["a"]})";
    publishMsgToAllPlugin(event);
    std::string rapidEvent = R"({"to":["a"],"api":"pushTelemetry"})";
    publishMsgToAllPlugin(rapidEvent);
    PluginUnLoadAll();
    EXPECT_THAT(fakes::poolsDestroyed(), IsEmpty());
    EXPECT_EQ(s_transform_message_queue->size(), 1U);
    EXPECT_EQ(s_rapid_transform_message_queue->size(), 1U);
    EXPECT_THAT(fakes::cleanedIds(), IsEmpty());
    EXPECT_THAT(fakes::cleanedNames(), IsEmpty());
}

TEST_F(UnloadingTest, LetsPluginsBeLoadedAgain) {
    load({fixture("Complete")});
    PluginUnLoadAll();
    load({fixture("Complete")});
    EXPECT_EQ(s_plugins_map.size(), 1U);
    EXPECT_EQ(log.count("load plugin count: 1"), 2);
}

} // namespace
} // namespace ktr
