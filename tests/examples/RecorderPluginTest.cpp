#include "common/Guids.h"
#include "common/HttpClient.h"
#include "common/JsonServer.h"

#include "examples/Gate.h"
#include "examples/PluginUnderTest.h"

#include "support/LogCapture.h"
#include "support/WaitUntil.h"

#include "ktr/common/WebApiBasic.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ktr::example::test {
namespace {

using namespace std::chrono_literals;
using ktr::test::waitUntil;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

/// Takes the part of the recorder service.
class FakeRecorder {
public:
    unsigned short port() const { return server.port(); }
    std::vector<std::string> bodies() {
        const std::lock_guard<std::mutex> lock(mutex);
        return taken;
    }
    std::vector<std::string> limits() {
        const std::lock_guard<std::mutex> lock(mutex);
        return asked;
    }
    std::atomic<int> status{200};

private:
    JsonAnswer take(const JsonRequest& request) {
        const std::lock_guard<std::mutex> lock(mutex);
        taken.push_back(request.body);
        return failure(status, "as told");
    }
    JsonAnswer list(const JsonRequest& request) {
        const std::lock_guard<std::mutex> lock(mutex);
        const auto limit = request.query.find("limit");
        asked.push_back(limit == request.query.end() ? "none" : limit->second);
        return failure(status, "latest readings");
    }

    std::mutex mutex;
    std::vector<std::string> taken;
    std::vector<std::string> asked;
    const JsonServer server{
        {{"POST /readings", [this](const JsonRequest& request) { return take(request); }},
         {"GET /readings", [this](const JsonRequest& request) { return list(request); }}}};
};

class RecorderPluginTest : public ::testing::Test {
protected:
    RecorderPluginTest() {
        const auto address = webApi->bind("127.0.0.1", 0);
        webApi->serve();
        host = std::make_unique<HttpClient>("127.0.0.1", address.port(), Poco::Timespan(10, 0));
    }
    ~RecorderPluginTest() override { webApi->stop(); }

    void start(const std::shared_ptr<PluginBase>& plugin, unsigned short port) const {
        plugin->start(webApi, nullptr, "127.0.0.1", port);
    }
    static std::string event(const std::string& reading) {
        return R"({"to":["x"],"api":"pushTelemetry","reading":)" + reading + "}";
    }

    const ktr::test::LogCapture log;
    const std::shared_ptr<WebApiBasic> webApi = std::make_shared<WebApiBasic>();
    std::unique_ptr<HttpClient> host;
    const std::function<std::shared_ptr<PluginBase>()> factory =
        PluginUnderTest("KetraPluginRecorder").load();
    FakeRecorder service;
};

TEST_F(RecorderPluginTest, takesReadingsToItsServiceInTheirOrder) {
    const auto plugin = factory();
    start(plugin, service.port());
    for (int i = 0; i < 3; ++i)
        plugin->onMessage(event(R"({"value":)" + std::to_string(i) + "}"));
    ASSERT_TRUE(waitUntil([&] { return service.bodies().size() == 3; }));
    plugin->stop();
    EXPECT_THAT(service.bodies(),
                ElementsAre(R"({"value":0})", R"({"value":1})", R"({"value":2})"));
}

TEST_F(RecorderPluginTest, keepsWhatComesBeforeItsStart) {
    const auto plugin = factory();
    plugin->onMessage(event("{}"));
    start(plugin, service.port());
    EXPECT_TRUE(waitUntil([&] { return service.bodies().size() == 1; }));
    plugin->stop();
}

TEST_F(RecorderPluginTest, sendsAgainWhatTheServiceCouldNotTake) {
    service.status = 500;
    const auto plugin = factory();
    start(plugin, service.port());
    plugin->onMessage(event(R"({"value":1})"));
    ASSERT_TRUE(waitUntil([&] { return log.count("recorder: events wait") == 1; }));
    service.status = 200;
    ASSERT_TRUE(waitUntil([&] { return log.count("recorder: service answers again") == 1; }));
    plugin->stop();
    EXPECT_THAT(service.bodies(), ElementsAre(R"({"value":1})", R"({"value":1})"));
}

TEST_F(RecorderPluginTest, handsWhatIsLeftToTheObjectAfterIt) {
    service.status = 500;
    const auto old = factory();
    start(old, service.port());
    old->onMessage(event(R"({"value":1})"));
    old->onMessage(event(R"({"value":2})"));
    ASSERT_TRUE(waitUntil([&] { return log.count("recorder: events wait") == 1; }));
    old->stop();
    FakeRecorder restarted;
    const auto plugin = factory();
    start(plugin, restarted.port());
    ASSERT_TRUE(waitUntil([&] { return restarted.bodies().size() == 2; }));
    plugin->stop();
    EXPECT_THAT(restarted.bodies(), ElementsAre(R"({"value":1})", R"({"value":2})"));
}

TEST_F(RecorderPluginTest, dropsWhatTheServiceRefusesAndWhatIsNoReading) {
    service.status = 400;
    const auto plugin = factory();
    start(plugin, service.port());
    plugin->onMessage("no JSON");
    plugin->onMessage(R"({"to":["x"]})");
    plugin->onMessage(event("[]"));
    plugin->onMessage(std::string(17000, ' '));
    plugin->onMessage(event("{}"));
    ASSERT_TRUE(waitUntil([&] { return log.count("refused by the service") == 1; }));
    service.status = 200;
    plugin->onMessage(event(R"({"value":1})"));
    ASSERT_TRUE(waitUntil([&] { return service.bodies().size() == 2; }));
    plugin->stop();
    EXPECT_EQ(3, log.count("event dropped, no reading in it"));
    EXPECT_EQ(1, log.count("event dropped, it is longer than"));
    EXPECT_EQ(R"({"value":1})", service.bodies().back());
}

TEST_F(RecorderPluginTest, dropsTheOldestWhenTooManyWaitAndCountsThem) {
    const auto plugin = factory();
    for (int i = 0; i < 1102; ++i)
        plugin->onMessage(event(R"({"value":)" + std::to_string(i) + "}"));
    EXPECT_EQ(1, log.count("dropped so far: 1, the oldest first"));
    EXPECT_EQ(1, log.count("dropped so far: 101, the oldest first"));
    EXPECT_EQ(2, log.count("dropped so far"));
    start(plugin, service.port());
    ASSERT_TRUE(waitUntil([&] { return !service.bodies().empty(); }));
    EXPECT_EQ(R"({"value":102})", service.bodies().front());
    plugin->stop();
}

TEST_F(RecorderPluginTest, answersTheReadingsThatItsServiceHas) {
    const auto plugin = factory();
    start(plugin, service.port());
    const auto answer = host->get("/recorder/readings");
    EXPECT_EQ(200, answer.status);
    EXPECT_THAT(answer.body, HasSubstr("latest readings"));
    host->get("/recorder/readings?limit=7");
    host->get("/recorder/readings?limit=7%26x%3D1");
    plugin->stop();
    EXPECT_THAT(service.limits(), ElementsAre("none", "7", "7&x=1"));
}

TEST_F(RecorderPluginTest, passesOnThatTheRequestWasBad) {
    service.status = 400;
    const auto plugin = factory();
    start(plugin, service.port());
    EXPECT_EQ(400, host->get("/recorder/readings?limit=0").status);
    plugin->stop();
}

TEST_F(RecorderPluginTest, answers502WhenItsServiceFailsAnd503WhenItIsAway) {
    const auto plugin = factory();
    start(plugin, service.port());
    service.status = 500;
    const auto failed = host->get("/recorder/readings");
    EXPECT_EQ(502, failed.status);
    EXPECT_THAT(failed.body, HasSubstr(R"("code":-1)"));
    start(plugin, 1);
    const auto away = host->get("/recorder/readings");
    EXPECT_EQ(503, away.status);
    EXPECT_THAT(away.body, HasSubstr(R"("code":-1)"));
    plugin->stop();
}

TEST_F(RecorderPluginTest, takesItsRouteAwayAndLeavesItThatWay) {
    const auto plugin = factory();
    start(plugin, service.port());
    plugin->stop();
    EXPECT_EQ(404, host->get("/recorder/readings").status);
    start(plugin, service.port());
    EXPECT_EQ(404, host->get("/recorder/readings").status) << "a start that comes late";
}

TEST_F(RecorderPluginTest, takesItsRouteAwayAlsoWithoutAStop) {
    auto plugin = factory();
    start(plugin, service.port());
    plugin.reset();
    EXPECT_EQ(404, host->get("/recorder/readings").status);
}

TEST_F(RecorderPluginTest, stopsWithoutHavingBeenStarted) {
    factory()->stop();
}

TEST_F(RecorderPluginTest, keepsNeitherItsCallersNorItsStopWaitingForAServiceThatHangs) {
    Gate gate;
    const auto hang = [&](const JsonRequest&) {
        gate.pass();
        return success();
    };
    const JsonServer hanging({{"POST /readings", hang}, {"GET /readings", hang}});
    const auto plugin = factory();
    start(plugin, hanging.port());
    EXPECT_LT(timeOf([&] {
                  for (int i = 0; i < 100; ++i)
                      plugin->onMessage(event("{}"));
              }),
              500ms);
    std::thread asking([&] { EXPECT_EQ(503, host->get("/recorder/readings").status); });
    EXPECT_TRUE(waitUntil([&] { return gate.arrived() == 2; }));
    EXPECT_LT(timeOf([&] { plugin->stop(); }), 500ms);
    asking.join();
    gate.open();
}

TEST_F(RecorderPluginTest, takesReportsInQuickSuccession) {
    std::shared_ptr<PluginBase> plugin;
    for (int i = 0; i < 30; ++i) {
        if (plugin)
            plugin->stop();
        plugin = factory();
        std::thread first([&, same = plugin] { start(same, service.port()); });
        std::thread second([&, same = plugin] { start(same, service.port()); });
        plugin->onMessage(event(R"({"value":)" + std::to_string(i) + "}"));
        if (i % 2 == 0)
            plugin->stop();
        first.join();
        second.join();
    }
    EXPECT_EQ(200, host->get("/recorder/readings").status);
    EXPECT_TRUE(waitUntil([&] {
        const auto bodies = service.bodies();
        return !bodies.empty() && bodies.back() == R"({"value":29})";
    }));
    plugin->stop();
}

} // namespace
} // namespace ktr::example::test
