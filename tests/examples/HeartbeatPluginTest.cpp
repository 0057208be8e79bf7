#include "examples/PluginUnderTest.h"

#include "support/LogCapture.h"

#include <gmock/gmock.h>

namespace ktr::example::test {
namespace {

TEST(HeartbeatPluginTest, tellsOfItsLifeAndItsMessages) {
    const ktr::test::LogCapture log;
    const auto plugin = PluginUnderTest("KetraPluginHeartbeat").load()();
    plugin->onMessage("{}");
    plugin->start(nullptr, nullptr, "127.0.0.1", 65535);
    plugin->onMessage("{}");
    plugin->stop();
    EXPECT_EQ(1, log.count("heartbeat: service reported"));
    EXPECT_EQ(1, log.count("heartbeat: stopped, messages taken: 2"));
}

TEST(HeartbeatPluginTest, doesNothingWhenStartedAfterItsStop) {
    const ktr::test::LogCapture log;
    const auto plugin = PluginUnderTest("KetraPluginHeartbeat").load()();
    plugin->stop();
    plugin->start(nullptr, nullptr, "127.0.0.1", 65535);
    EXPECT_EQ(0, log.count("service reported"));
}

} // namespace
} // namespace ktr::example::test
