#include "support/Broker.h"
#include "support/HostProcess.h"
#include "support/PuppetClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ktr::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class MqttTest : public testing::Test {
protected:
    /// A host with one plugin, started.
    void start(const std::vector<std::string>& arguments) {
        root.addPlugin("puppet");
        host.emplace(root, arguments);
        ASSERT_TRUE(host->waitReady()) << host->err();
        plugin.emplace(host->port(), "puppet");
        plugin->report(41000);
        ASSERT_TRUE(plugin->waitStarted()) << host->err();
    }

    bool waitConnected(bool wanted) const {
        return waitUntil([&] { return plugin->state()->getValue<bool>("mqttConnected") == wanted; },
                         std::chrono::seconds(30));
    }

    bool waitPayloads(std::size_t count) const {
        return waitUntil([&] { return plugin->texts("mqttPayloads").size() >= count; },
                         std::chrono::seconds(20));
    }

    const std::string topic = "ketra-test/puppet";
    DeviceRoot root;
    std::optional<HostProcess> host;
    std::optional<PuppetClient> plugin;
};

TEST_F(MqttTest, APluginsMessagesOutliveABrokerThatGoesAwayAndComesBack) {
    Broker broker;
    start({"--mqtt-url=" + broker.url()});
    ASSERT_TRUE(waitConnected(true)) << host->err();
    EXPECT_TRUE(plugin->publish(topic, "before"));
    EXPECT_TRUE(waitPayloads(1));

    broker.stop();
    ASSERT_TRUE(waitConnected(false));
    EXPECT_TRUE(plugin->publish(topic, "meanwhile"));
    broker.start();
    ASSERT_TRUE(waitConnected(true)) << host->err();
    EXPECT_TRUE(plugin->publish(topic, "after"));
    EXPECT_TRUE(waitPayloads(3)) << host->err();
    EXPECT_THAT(plugin->texts("mqttPayloads"), ElementsAre("before", "meanwhile", "after"));

    host->signal(SIGTERM);
    EXPECT_EQ(host->waitForExit(), 0) << host->err();
}

TEST_F(MqttTest, AHostStartsAndEndsWithoutItsBrokerAndFindsItLater) {
    Broker broker;
    broker.stop();
    start({"--mqtt-url=" + broker.url()});
    EXPECT_FALSE(plugin->state()->getValue<bool>("mqttConnected"));
    broker.start();
    EXPECT_TRUE(waitConnected(true)) << host->err();
    broker.stop();
    host->signal(SIGTERM);
    EXPECT_EQ(host->waitForExit(), 0) << host->err();
}

TEST_F(MqttTest, UserAndPasswordComeFromTheConfigurationAndShowNowhere) {
    const TempDir secrets;
    const std::string users = Broker::passwordFile(secrets, "edge", "s3cret-word");
    const Broker broker("allow_anonymous false\npassword_file " + users + "\n");
    std::ofstream(secrets / "password") << "s3cret-word\n";
    const std::string config = secrets / "host.properties";
    std::ofstream(config) << "mqtt.url = " << broker.url() << "\nmqtt.user = edge\n"
                          << "mqtt.password.file = " << (secrets / "password").string()
                          << "\nlog.level = trace\n";
    start({"--config=" + config});
    EXPECT_TRUE(waitConnected(true)) << host->err();
    EXPECT_THAT(readFile("/proc/" + std::to_string(host->pid()) + "/cmdline"),
                Not(HasSubstr("s3cret")));
    EXPECT_THAT(host->err(), Not(HasSubstr("s3cret")));
}

} // namespace
} // namespace ktr::test
