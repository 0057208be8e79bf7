#include "common/Guids.h"
#include "common/JsonServer.h"

#include "examples/Gate.h"
#include "examples/PluginUnderTest.h"

#include "support/LogCapture.h"
#include "support/WaitUntil.h"

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ktr::example::test {
namespace {

using namespace std::chrono_literals;
using ktr::test::waitUntil;

class ThermometerPluginTest : public ::testing::Test {
protected:
    std::shared_ptr<PluginBase> make() {
        auto plugin = factory();
        plugin->setEventCallback([this](const std::string& text) {
            const std::lock_guard<std::mutex> lock(mutex);
            events.push_back(text);
        });
        return plugin;
    }
    static void start(const std::shared_ptr<PluginBase>& plugin, const JsonServer& service) {
        plugin->start(nullptr, nullptr, "127.0.0.1", service.port());
    }
    std::size_t raised() {
        const std::lock_guard<std::mutex> lock(mutex);
        return events.size();
    }
    std::string event(std::size_t index) {
        const std::lock_guard<std::mutex> lock(mutex);
        return events.at(index);
    }
    JsonAnswer answer() {
        ++asked;
        if (broken)
            return failure(500, "broken");
        JsonAnswer reading;
        reading.json.set("source", "test");
        reading.json.set("value", 21.5);
        return reading;
    }

    ktr::test::LogCapture log;
    std::function<std::shared_ptr<PluginBase>()> factory =
        PluginUnderTest("KetraPluginThermometer").load();
    std::mutex mutex;
    std::vector<std::string> events;
    std::atomic<bool> broken{false};
    std::atomic<int> asked{0};
    JsonServer service{{{"GET /reading", [this](const JsonRequest&) { return answer(); }}}};
};

TEST_F(ThermometerPluginTest, raisesWhatTheServiceReadsForTheRecorder) {
    const auto plugin = make();
    start(plugin, service);
    ASSERT_TRUE(waitUntil([&] { return raised() > 0; }));
    plugin->stop();
    const auto json = Poco::JSON::Parser().parse(event(0)).extract<Poco::JSON::Object::Ptr>();
    EXPECT_EQ("pushTelemetry", json->getValue<std::string>("api"));
    ASSERT_EQ(1U, json->getArray("to")->size());
    EXPECT_EQ(kRecorderGuid, json->getArray("to")->getElement<std::string>(0));
    EXPECT_EQ("test", json->getObject("reading")->getValue<std::string>("source"));
    EXPECT_DOUBLE_EQ(21.5, json->getObject("reading")->getValue<double>("value"));
}

TEST_F(ThermometerPluginTest, asksAgainEverySecond) {
    const auto plugin = make();
    start(plugin, service);
    ASSERT_TRUE(waitUntil([&] { return raised() > 0; }));
    const auto time = timeOf([&] { EXPECT_TRUE(waitUntil([&] { return raised() > 1; })); });
    EXPECT_GT(time, 900ms);
    plugin->stop();
}

TEST_F(ThermometerPluginTest, saysOnceThatThereAreNoReadingsAndOnceThatThereAreAgain) {
    broken = true;
    const auto plugin = make();
    start(plugin, service);
    ASSERT_TRUE(waitUntil([&] { return asked >= 2; }));
    broken = false;
    ASSERT_TRUE(waitUntil([&] { return log.count("thermometer: readings arrive from") == 1; }));
    plugin->stop();
    EXPECT_EQ(1, log.count("thermometer: no reading from 127.0.0.1:"));
    EXPECT_EQ(1, log.count("HTTP status 500"));
}

TEST_F(ThermometerPluginTest, stopsAtOnceWhileTheServiceHangs) {
    Gate gate;
    const JsonServer hanging({{"GET /reading", [&](const JsonRequest&) {
                                   gate.pass();
                                   return success();
                               }}});
    const auto plugin = make();
    start(plugin, hanging);
    ASSERT_TRUE(waitUntil([&] { return gate.arrived() > 0; }));
    EXPECT_LT(timeOf([&] { plugin->stop(); }), 500ms);
    gate.open();
    EXPECT_EQ(0U, raised());
    EXPECT_EQ(0, log.count("no reading from")) << "an aborted request is no failure";
}

TEST_F(ThermometerPluginTest, asksForNothingWhenStartedAfterItsStop) {
    const auto retired = make();
    start(retired, service);
    ASSERT_TRUE(waitUntil([&] { return raised() == 1; }));
    retired->stop();
    start(retired, service);
    // a started object asks at once: whatever the retired one does has begun before this one's
    const auto plugin = make();
    start(plugin, service);
    ASSERT_TRUE(waitUntil([&] { return raised() == 2; }));
    EXPECT_EQ(2, asked);
    plugin->stop();
}

TEST_F(ThermometerPluginTest, stopsWithoutHavingBeenStarted) {
    make()->stop();
}

TEST_F(ThermometerPluginTest, endsItsThreadAlsoWithoutAStop) {
    auto plugin = make();
    start(plugin, service);
    ASSERT_TRUE(waitUntil([&] { return raised() > 0; }));
    plugin.reset();
    EXPECT_GT(raised(), 0U);
}

TEST_F(ThermometerPluginTest, takesReportsInQuickSuccession) {
    std::shared_ptr<PluginBase> plugin;
    for (int i = 0; i < 30; ++i) {
        if (plugin)
            plugin->stop();
        plugin = make();
        std::thread first([&, same = plugin] { start(same, service); });
        std::thread second([&, same = plugin] { start(same, service); });
        if (i % 2 == 0)
            plugin->stop();
        first.join();
        second.join();
    }
    ASSERT_TRUE(waitUntil([&] { return raised() > 0; }));
    plugin->stop();
}

} // namespace
} // namespace ktr::example::test
