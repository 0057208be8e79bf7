#include "PluginManagerUnderTest.h"

#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <dlfcn.h>

#include <fstream>

namespace {

// What the fixture plugins were asked, oldest first, each with what the registry held then.
struct Call {
    std::string what;
    bool registryWasFree;
    std::size_t records;
};

std::vector<Call>& calls() {
    static std::vector<Call> made;
    return made;
}

} // namespace

/// The fixture plugins tell it what the library called.
extern "C" KTR_API void ketraFixtureCalled(const char* what) {
    calls().push_back({what, ktr::test::registryIsFree(), ktr::s_plugins_map.size()});
}

namespace ktr {
namespace {

using namespace test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

std::string fixture(const std::string& name) {
    return KETRA_FIXTURE_PLUGINS "/libKetraPluginFixture" + name + ".so";
}

std::vector<std::string> called() {
    std::vector<std::string> names;
    for (const Call& call : calls())
        names.push_back(call.what);
    return names;
}

class LoadingTest : public PluginManagerTest {
protected:
    LoadingTest() { calls().clear(); }

    static void load(const std::list<std::string>& files) {
        fakes::setFiles(files);
        PluginLoadAll();
    }

    const LogCapture log;
};

TEST_F(LoadingTest, ListsThePluginsBelowTheCurrentPath) {
    fakes::setCurrentPath("/device/root");
    load({});
    const auto listings = fakes::listings();
    ASSERT_EQ(listings.size(), 1U);
    EXPECT_EQ(listings[0].directory, "/device/root/plugins");
    EXPECT_EQ(static_cast<int>(listings[0].type), 1);
    EXPECT_EQ(listings[0].filter, "libKetraPlugin");
    EXPECT_TRUE(listings[0].outWasEmpty);
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(kInformation, "load plugin count: 0")));
    expectSource(log);
}

TEST_F(LoadingTest, FilesACompletePluginBeforeItsPluginLoadAndCountsItAfterwards) {
    const std::string path = fixture("Complete");
    load({path});
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(kInformation, "plugin type: -7"),
                                        std::tuple(kInformation, "plugin name: fixture"),
                                        std::tuple(kInformation, "plugin guid: complete"),
                                        std::tuple(kInformation, "plugin regist, guid: complete"),
                                        std::tuple(kInformation, "plugin regist, guid: complete"),
                                        std::tuple(kInformation, "plugin '" + path + "' loaded"),
                                        std::tuple(kInformation, "load plugin count: 1")));
    EXPECT_THAT(called(), ElementsAre("PluginType", "PluginName", "PluginGuid", "PluginLoad"));
    for (const Call& call : calls()) {
        EXPECT_TRUE(call.registryWasFree) << call.what;
        EXPECT_EQ(call.records, call.what == "PluginLoad" ? 1U : 0U) << call.what;
    }
    expectSource(log);
}

TEST_F(LoadingTest, KeepsWhatThePluginSaysOfItself) {
    load({fixture("Complete")});
    ASSERT_EQ(s_plugins_map.size(), 1U);
    const std::shared_ptr<Plugin> plugin = s_plugins_map.at("complete");
    ASSERT_TRUE(plugin);
    EXPECT_EQ(plugin->type, -7);
    EXPECT_EQ(plugin->name, "fixture");
    EXPECT_EQ(plugin->guid, "complete");
    EXPECT_TRUE(plugin->loadFn != nullptr && plugin->unloadFn != nullptr);
    EXPECT_TRUE(plugin->typeFn != nullptr && plugin->nameFn != nullptr);
    EXPECT_TRUE(plugin->guidFn != nullptr);
    EXPECT_TRUE(plugin->library.isNull());
    EXPECT_TRUE(plugin->factory);
    EXPECT_FALSE(plugin->instance);
    EXPECT_EQ(s_plugin_cnt, 1);
}

TEST_F(LoadingTest, LoadsAPluginThatOffersOnlyLoadAndGuid) {
    const std::string path = fixture("Minimal");
    load({path});
    EXPECT_THAT(log.texts(kError),
                ElementsAre("interface 'PluginUnLoad' not exist, plugin: " + path,
                            "interface 'PluginType' not exist, plugin: " + path,
                            "interface 'PluginName' not exist, plugin: " + path));
    const std::shared_ptr<Plugin> plugin = s_plugins_map.at("minimal");
    EXPECT_EQ(plugin->type, 0);
    EXPECT_EQ(plugin->name, "");
    EXPECT_TRUE(plugin->factory);
    EXPECT_EQ(log.count("plugin type"), 0);
    EXPECT_EQ(log.count("plugin name"), 0);
    EXPECT_EQ(log.count("load plugin count: 1"), 1);
    expectSource(log);
}

TEST_F(LoadingTest, FilesPluginsWithoutAGuidUnderTheEmptyOneAndRefusesTheirFactory) {
    const std::string path = fixture("NoGuid");
    load({path, fixture("NoGuidTwin")});
    EXPECT_EQ(log.count("interface 'PluginGuid' not exist, plugin: " + path), 1);
    EXPECT_EQ(log.count("plugin regist, guid is empty"), 2);
    EXPECT_EQ(log.count("plugin guid: "), 0);
    ASSERT_EQ(s_plugins_map.size(), 1U);
    EXPECT_EQ(s_plugins_map.at("")->name, "no guid twin");
    EXPECT_FALSE(s_plugins_map.at("")->factory);
    EXPECT_EQ(log.count("load plugin count: 2"), 1);
}

TEST_F(LoadingTest, FilesAPluginWithoutPluginLoadButDoesNotCountIt) {
    const std::string path = fixture("NoLoad");
    load({path});
    EXPECT_THAT(log.texts(kError),
                ElementsAre("interface 'PluginLoad' not exist, plugin: " + path));
    EXPECT_EQ(s_plugins_map.count("no-load"), 1U);
    EXPECT_EQ(s_plugin_cnt, 0);
    EXPECT_EQ(log.count("' loaded"), 0);
    EXPECT_EQ(log.count("load plugin count: 0"), 1);
}

TEST_F(LoadingTest, KeepsTheSecondOfTwoPluginsWithOneGuidAndCountsBoth) {
    load({fixture("Complete"), fixture("Twin")});
    ASSERT_EQ(s_plugins_map.size(), 1U);
    EXPECT_EQ(s_plugins_map.at("complete")->name, "twin");
    EXPECT_TRUE(s_plugins_map.at("complete")->factory);
    EXPECT_EQ(log.count("' loaded"), 2);
    EXPECT_EQ(log.count("load plugin count: 2"), 1);
}

TEST_F(LoadingTest, RefusesARegistrationUnderAnotherGuid) {
    load({fixture("Stranger")});
    EXPECT_THAT(log.texts(kInformation),
                testing::Contains("plugin not found, guid: other").Times(1));
    EXPECT_FALSE(s_plugins_map.at("stranger")->factory);
    EXPECT_EQ(s_plugin_cnt, 1);
}

TEST_F(LoadingTest, AcceptsARegistrationUnderTheGuidOfAnotherRecord) {
    file("other");
    load({fixture("Stranger")});
    EXPECT_TRUE(s_plugins_map.at("other")->factory);
    EXPECT_FALSE(s_plugins_map.at("stranger")->factory);
}

TEST_F(LoadingTest, KeepsTheRecordUncountedWhenPluginLoadThrows) {
    load({fixture("ThrowsStd"), fixture("ThrowsPoco"), fixture("Complete")});
    EXPECT_THAT(log.texts(kCritical), ElementsAre("load failed", "Data error: load failed"));
    EXPECT_EQ(s_plugins_map.size(), 3U);
    EXPECT_TRUE(s_plugins_map.at("throws-std")->factory);
    EXPECT_TRUE(s_plugins_map.at("throws-poco")->factory);
    EXPECT_EQ(s_plugin_cnt, 1);
    EXPECT_EQ(log.count("' loaded"), 1);
    EXPECT_TRUE(registryIsFree());
    expectSource(log);
}

TEST_F(LoadingTest, FilesNothingWhenPluginTypeThrows) {
    load({fixture("TypeThrows")});
    EXPECT_THAT(log.texts(kCritical), ElementsAre("type failed"));
    EXPECT_THAT(s_plugins_map, IsEmpty());
    EXPECT_THAT(called(), ElementsAre("PluginType"));
}

TEST_F(LoadingTest, PassesOverWhatIsNoLibrary) {
    const TempDir folder;
    const std::string path = (folder / "libKetraPluginText.so").string();
    std::ofstream(path) << "no library at all\n";
    load({path, (folder / "missing").string(), fixture("Complete")});
    const auto failures = log.texts(kCritical);
    ASSERT_EQ(failures.size(), 2U);
    EXPECT_THAT(failures[0], StartsWith("Cannot load library"));
    EXPECT_THAT(failures[0], HasSubstr(path));
    EXPECT_EQ(s_plugins_map.size(), 1U);
    EXPECT_EQ(log.count("load plugin count: 1"), 1);
}

TEST_F(LoadingTest, GoesOnWithWhatWasListedWhenTheListingThrows) {
    fakes::failListing(std::make_exception_ptr(Poco::FileAccessDeniedException("plugins")));
    load({fixture("Complete")});
    fakes::failListing(std::make_exception_ptr(std::runtime_error("disk gone")));
    load({});
    EXPECT_THAT(log.texts(kCritical), ElementsAre("Access to file denied: plugins", "disk gone"));
    EXPECT_EQ(log.count("load plugin count: 1"), 2);
}

TEST_F(LoadingTest, LetsOutWhatReadingTheCurrentPathThrows) {
    fakes::failCurrentPath(std::make_exception_ptr(Poco::SystemException("no directory")));
    EXPECT_THROW(PluginLoadAll(), Poco::SystemException);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(LoadingTest, CountsOnAndDropsFormerObjectsWithoutStopInASecondCall) {
    load({fixture("Complete")});
    s_plugins_map.at("complete")->instance = std::make_shared<DiaryPlugin>(diary, "a");
    load({fixture("Complete")});
    EXPECT_THAT(diary.entries, ElementsAre("a:destroyed"));
    EXPECT_FALSE(s_plugins_map.at("complete")->instance);
    EXPECT_EQ(s_plugin_cnt, 2);
    EXPECT_EQ(log.count("load plugin count: 2"), 1);
}

TEST_F(LoadingTest, LeavesPluginCodeMappedAfterUnloading) {
    load({fixture("Complete")});
    const std::shared_ptr<PluginBase> object = s_plugins_map.at("complete")->factory();
    PluginUnLoadAll();
    void* const mapped = dlopen(fixture("Complete").c_str(), RTLD_LAZY | RTLD_NOLOAD);
    ASSERT_NE(mapped, nullptr);
    dlclose(mapped);
    calls().clear();
    object->stop();
    EXPECT_THAT(called(), ElementsAre("stop"));
}

using LoadingDeathTest = LoadingTest;

TEST_F(LoadingDeathTest, ANullNameEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(load({fixture("NullName")}), "");
}

// ---- unloading

class UnloadingTest : public LoadingTest {
protected:
    ~UnloadingTest() override {
        _loop_thread_get_cpu_temp_run = false;
        if (_loop_thread_get_cpu_temp.joinable())
            _loop_thread_get_cpu_temp.join();
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
    expectSource(log);
}

TEST_F(UnloadingTest, CallsNothingInAPluginThatWasNeverActivated) {
    load({fixture("Complete")});
    s_plugins_map["null"] = nullptr;
    calls().clear();
    PluginUnLoadAll();
    EXPECT_THAT(called(), IsEmpty());
    EXPECT_EQ(log.count("----before PluginUnLoadAll-plugin: fixture"), 1);
    EXPECT_EQ(log.count("----end PluginUnLoadAll-plugin: fixture"), 1);
    EXPECT_EQ(log.count("PluginUnLoadAll-plugin: "), 2);
    EXPECT_THAT(s_plugins_map, IsEmpty());
}

TEST_F(UnloadingTest, UnloadsALibraryThatTheRecordOwnsBeforeItStopsTheObject) {
    const auto plugin = file("a");
    plugin->library = new Poco::SharedLibrary;
    plugin->library->load(fixture("Complete"));
    const Poco::SharedPtr<Poco::SharedLibrary> library = plugin->library;
    const auto instance = std::make_shared<DiaryPlugin>(diary, "a");
    plugin->instance = instance;
    PluginUnLoadAll();
    EXPECT_FALSE(library->isLoaded());
    EXPECT_TRUE(plugin->library.isNull());
    EXPECT_THAT(diary.entries, ElementsAre("a:stop"));
}

TEST_F(UnloadingTest, LeavesTheRestAsItIsWhenAStopThrows) {
    s_plugin_cnt = 2;
    const auto first = activate("a");
    const auto second = activate("b");
    const std::string before = s_plugins_map.begin()->first;
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
    expectSource(log);
}

TEST_F(UnloadingTest, LogsAPocoExceptionWithItsDisplayText) {
    class Refusing : public DiaryPlugin {
    public:
        using DiaryPlugin::DiaryPlugin;
        void stop() override { throw Poco::TimeoutException("busy"); }
    };
    file("a")->instance = std::make_shared<Refusing>(diary, "a");
    PluginUnLoadAll();
    EXPECT_THAT(log.texts(kCritical), ElementsAre("Timeout: busy"));
}

TEST_F(UnloadingTest, EndsTheSamplingThreadAfterTheRegistryIsEmptyAndUnderItsLock) {
    activate("a");
    std::size_t records = 1;
    bool free = true;
    _loop_thread_get_cpu_temp_run = true;
    _loop_thread_get_cpu_temp = std::thread([&] {
        while (_loop_thread_get_cpu_temp_run)
            std::this_thread::yield();
        free = registryIsFree();
        records = s_plugins_map.size();
    });
    PluginUnLoadAll();
    EXPECT_FALSE(_loop_thread_get_cpu_temp.joinable());
    EXPECT_FALSE(_loop_thread_get_cpu_temp_run);
    EXPECT_EQ(records, 0U);
    EXPECT_FALSE(free);
    PluginUnLoadAll();
    EXPECT_TRUE(registryIsFree());
}

TEST_F(UnloadingTest, LeavesPoolsAndQueuesAsTheyAre) {
    InitThreadPool();
    std::string event = R"({"to":["a"]})";
    fakes::setAvailable("eventCallBack", 0);
    publishMsgToAllPlugin(event);
    PluginUnLoadAll();
    EXPECT_THAT(fakes::poolsDestroyed(), IsEmpty());
    EXPECT_EQ(s_transform_message_queue->size(), 1U);
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
