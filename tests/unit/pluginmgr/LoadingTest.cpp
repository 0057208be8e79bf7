#include "FixtureCalls.h"
#include "LogWitness.h"
#include "SharedLibraryProbe.h"

#include "support/RefusingMutex.h"
#include "support/TempDir.h"

#include <fstream>

/// The fixture plugins tell it what the library called.
extern "C" KTR_API void ketraFixtureCalled(const char* what) {
    ktr::test::FixtureCalls::instance().note(what);
}

namespace ktr {
namespace {

using namespace test;
using testing::ElementsAre;
using testing::FieldsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class LoadingTest : public FixturePluginTest {
protected:
    LoadingTest() { SharedLibraryProbe::instance().lookUps.clear(); }

    /// Has the fixtures' function `what` throw `failure`.
    template <class Failure>
    static void failIn(const std::string& what, const Failure& failure) {
        FixtureCalls::instance().hook = [what, failure](const std::string& called) {
            if (called == what)
                throw failure;
        };
    }
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
    for (const FixtureCall& call : FixtureCalls::instance().made) {
        EXPECT_TRUE(call.registryWasFree) << call.what;
        EXPECT_EQ(call.records, call.what == "PluginLoad" ? 1U : 0U) << call.what;
    }
}

TEST_F(LoadingTest, LogsAPluginAsLoadedBeforeItCountsItAndHoldsNoLockForAnyLine) {
    const LogWitness witness;
    const std::string path = fixture("Complete");
    load({path});
    EXPECT_THAT(witness.lines(), ElementsAre(FieldsAre("plugin type: -7", true, 0, 0),
                                             FieldsAre("plugin name: fixture", true, 0, 0),
                                             FieldsAre("plugin guid: complete", true, 0, 0),
                                             FieldsAre("plugin regist, guid: complete", true, 0, 1),
                                             FieldsAre("plugin regist, guid: complete", true, 0, 1),
                                             FieldsAre("plugin '" + path + "' loaded", true, 0, 1),
                                             FieldsAre("load plugin count: 1", true, 1, 1)));
}

TEST_F(LoadingTest, LooksUpTheFiveEntryPointsInOrderAndNothingElse) {
    load({fixture("Complete"), fixture("Minimal")});
    EXPECT_THAT(SharedLibraryProbe::instance().lookUps,
                ElementsAre("has PluginLoad", "get PluginLoad", "has PluginUnLoad",
                            "get PluginUnLoad", "has PluginType", "get PluginType",
                            "has PluginName", "get PluginName", "has PluginGuid", "get PluginGuid",
                            // Minimal
                            "has PluginLoad", "get PluginLoad", "has PluginUnLoad",
                            "has PluginType", "has PluginName", "has PluginGuid",
                            "get PluginGuid"));
}

TEST_F(LoadingTest, CallsPluginsOneByOneInTheOrderOfTheListing) {
    load({fixture("Minimal"), fixture("NoLoad")});
    EXPECT_THAT(called(),
                ElementsAre("PluginGuid", "PluginLoad", "PluginType", "PluginName", "PluginGuid"));
    FixtureCalls::instance().clear();
    load({fixture("NoLoad"), fixture("Minimal")});
    EXPECT_THAT(called(),
                ElementsAre("PluginType", "PluginName", "PluginGuid", "PluginGuid", "PluginLoad"));
}

TEST_F(LoadingTest, CallsPluginsOnTheCallersThread) {
    std::vector<std::thread::id> threads;
    FixtureCalls::instance().hook = [&](const std::string& /*what*/) {
        threads.push_back(std::this_thread::get_id());
    };
    load({fixture("Complete")});
    EXPECT_THAT(threads, testing::SizeIs(4));
    EXPECT_THAT(threads, testing::Each(std::this_thread::get_id()));
}

TEST_F(LoadingTest, FilesALibraryWithoutAnyEntryPointAfterFiveErrors) {
    const std::string path = fixture("Bare");
    load({path});
    EXPECT_THAT(
        lines(log),
        ElementsAre(std::tuple(kError, "interface 'PluginLoad' not exist, plugin: " + path),
                    std::tuple(kError, "interface 'PluginUnLoad' not exist, plugin: " + path),
                    std::tuple(kError, "interface 'PluginType' not exist, plugin: " + path),
                    std::tuple(kError, "interface 'PluginName' not exist, plugin: " + path),
                    std::tuple(kError, "interface 'PluginGuid' not exist, plugin: " + path),
                    std::tuple(kInformation, "load plugin count: 0")));
    ASSERT_EQ(s_plugins_map.size(), 1U);
    const std::shared_ptr<Plugin> plugin = s_plugins_map.at("");
    EXPECT_TRUE(plugin->loadFn == nullptr && plugin->unloadFn == nullptr);
    EXPECT_TRUE(plugin->typeFn == nullptr && plugin->nameFn == nullptr);
    EXPECT_TRUE(plugin->guidFn == nullptr);
    EXPECT_EQ(plugin->type, 0);
    EXPECT_EQ(plugin->name + plugin->guid, "");
    EXPECT_TRUE(plugin->library.isNull());
    EXPECT_EQ(s_plugin_cnt, 0);
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
}

TEST_F(LoadingTest, FilesNothingWhenADescribingEntryPointThrows) {
    const std::vector<std::string> entryPoints{"PluginType", "PluginName", "PluginGuid"};
    for (std::size_t at = 0; at < entryPoints.size(); ++at) {
        FixtureCalls::instance().clear();
        failIn(entryPoints[at], std::runtime_error(entryPoints[at] + " failed"));
        load({fixture("Complete")});
        EXPECT_THAT(called(), testing::ElementsAreArray(entryPoints.data(), at + 1));
        failIn(entryPoints[at], Poco::DataException(entryPoints[at]));
        load({fixture("Complete")});
    }
    EXPECT_THAT(log.texts(kCritical), ElementsAre("PluginType failed", "Data error: PluginType",
                                                  "PluginName failed", "Data error: PluginName",
                                                  "PluginGuid failed", "Data error: PluginGuid"));
    EXPECT_THAT(s_plugins_map, IsEmpty());
    EXPECT_EQ(log.count("load plugin count: 0"), 6);
}

TEST_F(LoadingTest, KeepsTheLibraryMappedAndGoesOnWhenAnEntryPointThrows) {
    load({fixture("TypeThrows"), fixture("Complete")});
    EXPECT_THAT(log.texts(kCritical), ElementsAre("type failed"));
    EXPECT_THAT(called(),
                ElementsAre("PluginType", "PluginType", "PluginName", "PluginGuid", "PluginLoad"));
    EXPECT_TRUE(isMapped(fixture("TypeThrows")));
    EXPECT_EQ(s_plugins_map.count("type-throws"), 0U);
    EXPECT_EQ(log.count("load plugin count: 1"), 1);
}

TEST_F(LoadingTest, LetsOutWhatIsNoStandardExceptionAndLoadsNothingMore) {
    failIn("PluginLoad", 42);
    EXPECT_THROW(load({fixture("Complete"), fixture("Minimal")}), int);
    EXPECT_THAT(called(), ElementsAre("PluginType", "PluginName", "PluginGuid", "PluginLoad"));
    EXPECT_TRUE(FixtureCalls::instance().made.back().registryWasFree);
    EXPECT_EQ(s_plugins_map.count("complete"), 1U);
    EXPECT_EQ(s_plugin_cnt, 0);
    EXPECT_EQ(log.count("load plugin count"), 0);
    EXPECT_THAT(log.texts(kCritical), IsEmpty());
    EXPECT_TRUE(registryIsFree());
}

TEST_F(LoadingTest, LetsOutWhatTheListingThrowsThatIsNoStandardException) {
    fakes::failListing(std::make_exception_ptr(42));
    EXPECT_THROW(load({fixture("Complete")}), int);
    EXPECT_THAT(called(), IsEmpty());
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(LoadingTest, LoadsTheSameWhereTheLevelHidesItsLines) {
    cachedLogger().setLevel("none");
    fakes::failListing(std::make_exception_ptr(Poco::FileAccessDeniedException("plugins")));
    load({fixture("missing"), fixture("Bare"), fixture("TypeThrows"), fixture("Complete")});
    fakes::failListing(std::make_exception_ptr(std::runtime_error("disk gone")));
    load({});
    EXPECT_EQ(s_plugins_map.size(), 2U);
    EXPECT_TRUE(s_plugins_map.at("complete")->factory);
    EXPECT_EQ(s_plugin_cnt, 1);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(LoadingTest, FilesNothingWhenTheLockFails) {
    {
        const RefusingMutex refusing(s_plugin_mutex);
        load({fixture("Complete")});
    }
    EXPECT_THAT(log.texts(kCritical),
                ElementsAre(std::system_error(EDEADLK, std::generic_category()).what()));
    EXPECT_THAT(s_plugins_map, IsEmpty());
    EXPECT_THAT(called(), ElementsAre("PluginType", "PluginName", "PluginGuid"));
    EXPECT_EQ(log.count("load plugin count: 0"), 1);
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

TEST_F(LoadingTest, DropsAReplacedRecordUnderTheLock) {
    bool free = true;
    file("complete")->factory = [held = std::shared_ptr<void>(nullptr, [&](void*) {
                                     free = registryIsFree();
                                 })] { return std::shared_ptr<PluginBase>(); };
    load({fixture("Complete")});
    EXPECT_FALSE(free);
}

TEST_F(LoadingTest, LeavesPluginCodeMappedAfterUnloading) {
    load({fixture("Complete")});
    const std::shared_ptr<PluginBase> object = s_plugins_map.at("complete")->factory();
    PluginUnLoadAll();
    ASSERT_TRUE(isMapped(fixture("Complete")));
    FixtureCalls::instance().clear();
    object->stop();
    EXPECT_THAT(called(), ElementsAre("stop"));
}

using LoadingDeathTest = LoadingTest;

TEST_F(LoadingDeathTest, ANullNameEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(load({fixture("NullName")}), "");
}

TEST_F(LoadingDeathTest, ANullGuidEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(load({fixture("NullGuid")}), "");
}

} // namespace
} // namespace ktr
