#include "LogWitness.h"

#include "support/RefusingMutex.h"

namespace ktr {
namespace {

using namespace test;
using testing::ElementsAre;
using testing::FieldsAre;
using testing::IsEmpty;

class RegistryTest : public PluginManagerTest {};

std::function<std::shared_ptr<PluginBase>()> nullFactory() {
    return [] { return std::shared_ptr<PluginBase>(); };
}

TEST_F(RegistryTest, RefusesANullGuidWithOneLine) {
    const LogCapture log;
    registerPlugin(nullFactory(), nullptr);
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(kInformation, "plugin regist, guid is null")));
    EXPECT_THAT(s_plugins_map, IsEmpty());
    expectSource(log);
}

TEST_F(RegistryTest, RefusesAnEmptyGuidEvenWhereARecordIsFiledUnderIt) {
    const auto plugin = file("");
    const LogCapture log;
    registerPlugin(nullFactory(), "");
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(kInformation, "plugin regist, guid: "),
                                        std::tuple(kInformation, "plugin regist, guid is empty")));
    EXPECT_FALSE(plugin->factory);
    expectSource(log);
}

TEST_F(RegistryTest, WritesTheGuidTwiceAndKeepsTheFactory) {
    const auto plugin = file("a");
    plugin->type = 5;
    s_plugin_cnt = 3;
    const LogCapture log;
    registerPlugin(nullFactory(), "a");
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(kInformation, "plugin regist, guid: a"),
                                        std::tuple(kInformation, "plugin regist, guid: a")));
    EXPECT_TRUE(plugin->factory);
    EXPECT_EQ(plugin->type, 5);
    EXPECT_EQ(plugin->name, "name of a");
    EXPECT_FALSE(plugin->instance);
    EXPECT_EQ(s_plugin_cnt, 3);
    EXPECT_TRUE(registryIsFree());
    expectSource(log);
}

TEST_F(RegistryTest, NeverGainsAnEntryThroughARegistration) {
    const LogCapture log;
    registerPlugin(nullFactory(), "unknown");
    EXPECT_THAT(lines(log),
                ElementsAre(std::tuple(kInformation, "plugin regist, guid: unknown"),
                            std::tuple(kInformation, "plugin regist, guid: unknown"),
                            std::tuple(kInformation, "plugin not found, guid: unknown")));
    EXPECT_THAT(s_plugins_map, IsEmpty());
    EXPECT_TRUE(registryIsFree());
    expectSource(log);
}

TEST_F(RegistryTest, IgnoresANullRecordWithoutAFurtherLine) {
    s_plugins_map["a"] = nullptr;
    const LogCapture log;
    registerPlugin(nullFactory(), "a");
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(kInformation, "plugin regist, guid: a"),
                                        std::tuple(kInformation, "plugin regist, guid: a")));
    EXPECT_EQ(s_plugins_map.at("a"), nullptr);
    EXPECT_TRUE(registryIsFree());
}

TEST_F(RegistryTest, LetsTheLastFactoryWinAndDestroysTheFormer) {
    const auto plugin = file("a");
    const auto former = std::make_shared<int>(1);
    registerPlugin([former] { return std::shared_ptr<PluginBase>(); }, "a");
    EXPECT_EQ(former.use_count(), 2);
    registerPlugin([&] { return std::make_shared<DiaryPlugin>(diary, "second"); }, "a");
    EXPECT_EQ(former.use_count(), 1);
    EXPECT_TRUE(plugin->factory());
    EXPECT_THAT(diary.entries, ElementsAre("second:destroyed"));
}

TEST_F(RegistryTest, AcceptsAnEmptyFactory) {
    const auto plugin = file("a");
    registerPlugin(nullFactory(), "a");
    registerPlugin(nullptr, "a");
    EXPECT_FALSE(plugin->factory);
}

TEST_F(RegistryTest, RefusesAndAcceptsTheSameWhereTheLevelHidesItsLines) {
    const auto plugin = file("a");
    const LogCapture log;
    cachedLogger().setLevel(Poco::Message::PRIO_NOTICE);
    registerPlugin(nullFactory(), nullptr);
    registerPlugin(nullFactory(), "");
    registerPlugin(nullFactory(), "unknown");
    registerPlugin(nullFactory(), "a");
    EXPECT_EQ(s_plugins_map.size(), 1U);
    EXPECT_TRUE(plugin->factory);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(RegistryTest, UnregistersSilentlyAndHarmlesslyWhatIsUnknown) {
    file("");
    file("a");
    const LogCapture log;
    unregisterPlugin(nullptr);
    unregisterPlugin("");
    unregisterPlugin("unknown");
    EXPECT_EQ(s_plugins_map.size(), 2U);
    EXPECT_THAT(log.messages(), IsEmpty());
    EXPECT_TRUE(registryIsFree());
}

TEST_F(RegistryTest, UnregistersARunningPluginWithoutStoppingIt) {
    s_plugin_cnt = 2;
    file("a")->instance = std::make_shared<DiaryPlugin>(diary, "a");
    file("b");
    const LogCapture log;
    unregisterPlugin("a");
    EXPECT_THAT(diary.entries, ElementsAre("a:destroyed"));
    EXPECT_EQ(s_plugins_map.count("a"), 0U);
    EXPECT_EQ(s_plugins_map.count("b"), 1U);
    EXPECT_EQ(s_plugin_cnt, 2);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(RegistryTest, DestroysAnUnregisteredRecordUnderTheLock) {
    bool free = true;
    file("a")->instance =
        std::shared_ptr<PluginBase>(new DiaryPlugin(diary, "a"), [&](const PluginBase* plugin) {
            free = registryIsFree();
            delete plugin;
        });
    unregisterPlugin("a");
    EXPECT_FALSE(free);
    EXPECT_TRUE(registryIsFree());
}

TEST_F(RegistryTest, LeavesAnUnregisteredRecordToWhoElseHoldsIt) {
    const auto plugin = file("a");
    plugin->instance = std::make_shared<DiaryPlugin>(diary, "a");
    unregisterPlugin("a");
    EXPECT_THAT(diary.entries, IsEmpty());
    EXPECT_TRUE(plugin->instance);
    EXPECT_EQ(plugin.use_count(), 1);
}

TEST_F(RegistryTest, TakesTheLockOnlyAfterTheGuidIsWritten) {
    file("a");
    const LogCapture log;
    const LogWitness witness;
    registerPlugin(nullFactory(), "a");
    registerPlugin(nullFactory(), "unknown");
    EXPECT_THAT(witness.lines(),
                ElementsAre(FieldsAre("plugin regist, guid: a", true, 0, 1),
                            FieldsAre("plugin regist, guid: a", true, 0, 1),
                            FieldsAre("plugin regist, guid: unknown", true, 0, 1),
                            FieldsAre("plugin regist, guid: unknown", true, 0, 1),
                            FieldsAre("plugin not found, guid: unknown", false, 0, 1)));
}

TEST_F(RegistryTest, ExchangesTheFactoryUnderTheLockAndThenDestroysTheFormer) {
    const auto plugin = file("a");
    auto made = std::make_shared<DiaryPlugin>(diary, "made");
    bool free = true;
    bool exchanged = false;
    const auto noteExchange = [&](void*) {
        free = registryIsFree();
        exchanged = plugin->factory() == made;
    };
    registerPlugin([held = std::shared_ptr<void>(
                        nullptr, noteExchange)] { return std::shared_ptr<PluginBase>(); },
                   "a");
    registerPlugin([made] { return made; }, "a");
    EXPECT_FALSE(free);
    EXPECT_TRUE(exchanged);
}

TEST_F(RegistryTest, LetsOutThatTheLockFailsAndChangesNothing) {
    const auto plugin = file("a");
    const LogCapture log;
    {
        const RefusingMutex refusing(s_plugin_mutex);
        EXPECT_THROW(registerPlugin(nullFactory(), "a"), std::system_error);
        EXPECT_THROW(unregisterPlugin("a"), std::system_error);
        EXPECT_NO_THROW(unregisterPlugin(""));
    }
    EXPECT_FALSE(plugin->factory);
    EXPECT_EQ(s_plugins_map.count("a"), 1U);
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(kInformation, "plugin regist, guid: a"),
                                        std::tuple(kInformation, "plugin regist, guid: a")));
    EXPECT_TRUE(registryIsFree());
}

// ---- the record and the globals as the library starts

// asked while the program is loaded, before any test
const bool emptyAtLoad = s_plugins_map.empty();
const std::int32_t countAtLoad = s_plugin_cnt;
const bool freeAtLoad = registryIsFree();

TEST(RegistryAtLoadTest, IsEmptyFreeAndCountsNothing) {
    EXPECT_TRUE(emptyAtLoad);
    EXPECT_EQ(countAtLoad, 0);
    EXPECT_TRUE(freeAtLoad);
}

TEST(PluginRecordTest, IsMadeEmpty) {
    // over memory that was used before
    alignas(Plugin) std::array<unsigned char, sizeof(Plugin)> memory{};
    memory.fill(0xA5);
    auto* const plugin = new (memory.data()) Plugin();
    EXPECT_TRUE(plugin->library.isNull());
    EXPECT_FALSE(plugin->factory);
    EXPECT_TRUE(plugin->loadFn == nullptr && plugin->unloadFn == nullptr);
    EXPECT_TRUE(plugin->typeFn == nullptr && plugin->nameFn == nullptr);
    EXPECT_TRUE(plugin->guidFn == nullptr);
    EXPECT_EQ(plugin->type, 0);
    EXPECT_EQ(plugin->name, "");
    EXPECT_EQ(plugin->guid, "");
    EXPECT_FALSE(plugin->instance);
    plugin->~Plugin();
}

// Members end in the reverse of this order, which releases instance, guid, name, factory, library.
TEST(PluginRecordTest, HoldsItsFieldsInOrder) {
    const Plugin plugin;
    const std::vector<const void*> fields{&plugin.library,  &plugin.factory, &plugin.loadFn,
                                          &plugin.unloadFn, &plugin.typeFn,  &plugin.nameFn,
                                          &plugin.guidFn,   &plugin.type,    &plugin.name,
                                          &plugin.guid,     &plugin.instance};
    EXPECT_TRUE(std::is_sorted(fields.begin(), fields.end()));
}

TEST(PluginRecordTest, ReleasesItsInstanceThenItsFactoryThenItsLibrary) {
    struct NotedLibrary : Poco::SharedLibrary {
        explicit NotedLibrary(std::vector<std::string>& order_) : order(order_) {}
        ~NotedLibrary() override { order.emplace_back("library"); }
        std::vector<std::string>& order;
    };
    std::vector<std::string> order;
    const auto noted = [&](const std::string& what) {
        return std::shared_ptr<void>(nullptr, [&order, what](void*) { order.push_back(what); });
    };
    Diary diary;
    {
        Plugin plugin;
        plugin.factory = [held = noted("factory")] { return std::shared_ptr<PluginBase>(); };
        plugin.library = new NotedLibrary(order);
        const auto instance = std::make_shared<DiaryPlugin>(diary, "a");
        instance->handler = [held = noted("instance")](const std::string&) {};
        plugin.instance = instance;
    }
    EXPECT_THAT(order, ElementsAre("instance", "factory", "library"));
    EXPECT_THAT(diary.entries, ElementsAre("a:destroyed"));
}

} // namespace
} // namespace ktr
