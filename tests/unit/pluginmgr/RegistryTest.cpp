#include "PluginManagerUnderTest.h"

#include "support/TempDir.h"

#include "ktr/common/MqttClient.h"
#include "ktr/common/WebApiBasic.h"

#include <fstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace ktr {
namespace {

using namespace test;
using testing::ElementsAre;
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

TEST_F(RegistryTest, BuildsNoTextThatTheLevelHides) {
    const LogCapture log;
    cachedLogger().setLevel(Poco::Message::PRIO_NOTICE);
    registerPlugin(nullFactory(), "unknown");
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

TEST_F(RegistryTest, ReleasesARecordsInstanceBeforeItsFactory) {
    struct Note {
        std::vector<std::string>& order;
        std::string name;
        Note(std::vector<std::string>& order_, std::string name_)
            : order(order_), name(std::move(name_)) {}
        ~Note() { order.push_back(name); }
    };
    std::vector<std::string> order;
    {
        auto plugin = std::make_shared<Plugin>();
        plugin->factory = [note = std::make_shared<Note>(order, "factory")] {
            return std::shared_ptr<PluginBase>();
        };
        const std::shared_ptr<Note> note(new Note{order, "instance"});
        auto instance = std::make_shared<DiaryPlugin>(diary, "a");
        instance->handler = [note](const std::string&) {};
        plugin->instance = instance;
    }
    EXPECT_THAT(order, ElementsAre("instance", "factory"));
}

// ---- the base class that plugins build on

class BarePlugin : public PluginBase {
public:
    void stop() override {}
    void onMessage(std::string /*text*/) override {}

    using PluginBase::eventCallback;
    using PluginBase::ip;
    using PluginBase::mqttClient;
    using PluginBase::port;
    using PluginBase::webApi;
};

TEST(PluginBaseTest, KeepsACopyOfTheCallbackAndDestroysTheFormerOne) {
    BarePlugin plugin;
    const auto owner = std::make_shared<std::string>();
    const std::function<void(std::string)> callback = [owner](const std::string& text) {
        *owner = text;
    };
    plugin.setEventCallback(callback);
    EXPECT_TRUE(callback);
    plugin.eventCallback("event");
    EXPECT_EQ(*owner, "event");
    EXPECT_EQ(owner.use_count(), 3);
    plugin.setEventCallback(nullptr);
    EXPECT_FALSE(plugin.eventCallback);
    EXPECT_EQ(owner.use_count(), 2);
}

TEST(PluginBaseTest, KeepsWhatStartBringsAndReleasesWhatWasThere) {
    BarePlugin plugin;
    EXPECT_EQ(plugin.port, 0);
    const auto formerApi = std::make_shared<WebApiBasic>();
    const auto formerClient = std::make_shared<MqttClient>();
    plugin.start(formerApi, formerClient, "10.0.0.1", 65535);
    EXPECT_EQ(plugin.ip, "10.0.0.1");
    EXPECT_EQ(plugin.port, 65535);
    EXPECT_EQ(plugin.webApi, formerApi);
    EXPECT_EQ(plugin.mqttClient, formerClient);
    plugin.start(nullptr, nullptr, "", 1);
    EXPECT_EQ(formerApi.use_count(), 1);
    EXPECT_EQ(formerClient.use_count(), 1);
    EXPECT_EQ(plugin.ip, "");
    EXPECT_EQ(plugin.port, 1);
}

// ---- CPU temperature

class CpuTemperatureTest : public PluginManagerTest {
protected:
    int read(const std::string& content) const {
        const std::string path = (folder / "temp").string();
        std::ofstream(path) << content;
        return sReadCpuTemperature(path);
    }

    const TempDir folder;
    const LogCapture log;
};

TEST_F(CpuTemperatureTest, IsWholeDegreesTruncatedTowardZero) {
    EXPECT_EQ(read("52000\n"), 52);
    EXPECT_EQ(read("45678"), 45);
    EXPECT_EQ(read("999"), 0);
    EXPECT_EQ(read("-1500\n"), -1);
    EXPECT_EQ(read("-999\n"), 0);
    EXPECT_EQ(read("1000 and more\n2000\n"), 1);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(CpuTemperatureTest, IsZeroWithoutAReadableNumber) {
    EXPECT_EQ(read("warm\n"), 0);
    EXPECT_EQ(read(""), 0);
    EXPECT_EQ(read("\n48000\n"), 0);
    EXPECT_EQ(sReadCpuTemperature((folder / "missing").string()), 0);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(CpuTemperatureTest, ReadsNoMoreThanTheFirst255Characters) {
    EXPECT_EQ(read(std::string(252, ' ') + "41000\n"), 0);
    EXPECT_EQ(read(std::string(250, ' ') + "41000\n"), 41);
}

TEST_F(CpuTemperatureTest, LogsAFileThatCannotBeOpened) {
    // Not even root opens a socket as a file.
    const std::string path = (folder / "temp").string();
    const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(sReadCpuTemperature(path), 0);
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(
                                kInformation, "getCpuTemperature failed, msg: Cannot open file")));
    expectSource(log);
    close(descriptor);
}

TEST_F(CpuTemperatureTest, OfThisMachineIsThatOfItsThermalFile) {
    const std::string path = "/sys/class/thermal/thermal_zone0/temp";
    if (std::filesystem::exists(path)) {
        EXPECT_NEAR(getCpuTemperature(), sReadCpuTemperature(path), 5);
    } else {
        EXPECT_EQ(getCpuTemperature(), 0);
        EXPECT_THAT(log.messages(), IsEmpty());
    }
}

} // namespace
} // namespace ktr
