#include "common/Guids.h"
#include "common/HttpClient.h"

#include "examples/FakeHost.h"
#include "examples/ServiceProcess.h"

#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace ktr::example::test {
namespace {

using ::testing::HasSubstr;

/// A good reading, but for the member `name`, which has the JSON text `value`.
std::string with(const std::string& name, const std::string& value) {
    std::map<std::string, std::string> members{{"source", R"("test")"},
                                               {"value", "1.5"},
                                               {"unit", R"("°C")"},
                                               {"time", R"("2024-05-01T12:00:00Z")"}};
    members[name] = value;
    std::string text = "{";
    for (const auto& [key, json] : members)
        text.append(text.size() > 1 ? "," : "").append("\"").append(key).append("\":").append(json);
    return text + "}";
}

class RecorderServiceTest : public ::testing::Test {
protected:
    void run(const std::vector<std::string>& environment = {}) {
        std::vector<std::string> all = environment;
        all.push_back("KETRA_RECORDER_DB=" + (dir / "test.db").string());
        const std::size_t before = host.count();
        service.reset();
        service = std::make_unique<ServiceProcess>(exampleService("ketra-recorder"),
                                                   std::vector{std::to_string(host.port())},
                                                   (dir / "output").string(), all);
        ASSERT_TRUE(ktr::test::waitUntil([&] { return host.count() > before; }));
        client =
            std::make_unique<HttpClient>("127.0.0.1", host.reportedPort(), Poco::Timespan(10, 0));
    }

    /// A good reading of that second.
    static std::string reading(int second) {
        return R"({"source":"test","value":)" + std::to_string(second) +
               R"(.5,"unit":"°C","time":"2024-05-01T12:00:)" + (second < 10 ? "0" : "") +
               std::to_string(second) + R"(.000Z"})";
    }
    int store(int second) const { return client->post("/readings", reading(second)).status; }
    Poco::JSON::Object::Ptr get(const std::string& target) const {
        return Poco::JSON::Parser()
            .parse(client->get(target).body)
            .extract<Poco::JSON::Object::Ptr>();
    }
    int count() const { return get("/count")->getValue<int>("count"); }
    std::size_t listed(const std::string& target) const {
        return get(target)->getArray("readings")->size();
    }

    const ktr::test::TempDir dir;
    FakeHost host;
    std::unique_ptr<ServiceProcess> service;
    std::unique_ptr<HttpClient> client;
};

TEST_F(RecorderServiceTest, bearsTheGuidOfItsPlugin) {
    run();
    EXPECT_EQ(kRecorderGuid, host.reports().at(0).at("guid"));
}

TEST_F(RecorderServiceTest, givesBackWhatItTookNewestFirst) {
    run();
    EXPECT_EQ(200, store(1));
    EXPECT_EQ(200, store(2));
    const auto readings = get("/readings")->getArray("readings");
    ASSERT_EQ(2U, readings->size());
    const auto newest = readings->getObject(0);
    EXPECT_EQ("test", newest->getValue<std::string>("source"));
    EXPECT_DOUBLE_EQ(2.5, newest->getValue<double>("value"));
    EXPECT_EQ("°C", newest->getValue<std::string>("unit"));
    EXPECT_EQ("2024-05-01T12:00:02.000Z", newest->getValue<std::string>("time"));
    EXPECT_EQ(2, count());
}

TEST_F(RecorderServiceTest, listsTenUnlessToldHowMany) {
    run();
    for (int second = 0; second < 12; ++second)
        ASSERT_EQ(200, store(second));
    EXPECT_EQ(10U, listed("/readings"));
    EXPECT_EQ(1U, listed("/readings?limit=1"));
    EXPECT_EQ(12, get("/readings?limit=1")->getValue<int>("total"));
    EXPECT_EQ(12U, listed("/readings?limit=1000"));
    for (const char* bad : {"0", "1001", "-1", "ten", "", "5x"}) {
        const auto answer = client->get(std::string("/readings?limit=") + bad);
        EXPECT_EQ(400, answer.status) << bad;
        EXPECT_THAT(answer.body, HasSubstr("limit must be 1 to 1000"));
    }
}

TEST_F(RecorderServiceTest, refusesWhatIsNoReadingAndSaysWhy) {
    run();
    const std::vector<std::pair<std::string, std::string>> cases{
        {"", "no JSON"},
        {"reading", "no JSON"},
        {"{\"source\":\"\xff\"}", "no JSON"},
        {std::string(300, '['), "no JSON"},
        {"[]", "JSON object"},
        {"null", "no JSON"},
        {"7", "no JSON"},
        {"{}", "source"},
        {with("source", "7"), "source"},
        {with("source", R"("")"), "source"},
        {with("source", R"("a\u0000b")"), "source"},
        {with("source", '"' + std::string(65, 'x') + '"'), "source"},
        {with("value", R"("5")"), "value"},
        {with("value", "true"), "value"},
        {with("value", "null"), "value"},
        {with("value", "[1]"), "value"},
        {with("unit", "null"), "unit"},
        {with("time", R"("yesterday")"), "time"},
        {with("time", R"("2024-13-01T12:00:00Z")"), "time"},
        {with("time", R"("2024-05-01T12:00:00")"), "time"}};
    ASSERT_EQ(200, client->post("/readings", with("source", R"("good")")).status);
    for (const auto& [body, reason] : cases) {
        const auto answer = client->post("/readings", body);
        EXPECT_EQ(400, answer.status) << body;
        EXPECT_THAT(answer.body, HasSubstr(R"("code":-1)")) << body;
        EXPECT_THAT(answer.body, HasSubstr(reason)) << body;
    }
    EXPECT_EQ(413, client->post("/readings", std::string(100000, ' ')).status);
    EXPECT_EQ(1, count());
}

TEST_F(RecorderServiceTest, takesTheSameReadingOnce) {
    run();
    EXPECT_THAT(client->post("/readings", reading(1)).body, HasSubstr(R"("stored":true)"));
    EXPECT_THAT(client->post("/readings", reading(1)).body, HasSubstr(R"("stored":false)"));
    EXPECT_EQ(1, count());
}

TEST_F(RecorderServiceTest, hasItsReadingsAgainAfterARestart) {
    run();
    ASSERT_EQ(200, store(1));
    service->signal(SIGTERM);
    ASSERT_EQ(0, service->waitForEnd());
    run();
    EXPECT_EQ(1, count());
}

TEST_F(RecorderServiceTest, hasItsReadingsAgainAfterItWasKilled) {
    run();
    ASSERT_EQ(200, store(1));
    service->signal(SIGKILL);
    ASSERT_EQ(256 + SIGKILL, service->waitForEnd());
    run();
    EXPECT_EQ(1, count());
}

TEST_F(RecorderServiceTest, keepsAsManyAsItIsTold) {
    run({"KETRA_RECORDER_KEEP=3"});
    for (int second = 0; second < 5; ++second)
        ASSERT_EQ(200, store(second));
    EXPECT_EQ(3, count());
}

TEST_F(RecorderServiceTest, saysWhyItCannotRun) {
    ServiceProcess badNumber(
        exampleService("ketra-recorder"), {std::to_string(host.port())}, (dir / "output").string(),
        {"KETRA_RECORDER_KEEP=none", "KETRA_RECORDER_DB=" + (dir / "test.db").string()});
    EXPECT_EQ(70, badNumber.waitForEnd());
    EXPECT_THAT(badNumber.output(), HasSubstr("KETRA_RECORDER_KEEP"));

    const std::string missing = (dir / "no" / "test.db").string();
    ServiceProcess badFile(exampleService("ketra-recorder"), {std::to_string(host.port())},
                           (dir / "output").string(), {"KETRA_RECORDER_DB=" + missing});
    EXPECT_EQ(70, badFile.waitForEnd());
    EXPECT_THAT(badFile.output(), HasSubstr(missing));
}

TEST_F(RecorderServiceTest, keepsItsDatabaseBesideTheFolderOfItsExecutable) {
    std::filesystem::create_directory(dir / "microservices");
    const std::string copy = (dir / "microservices" / "recorder").string();
    std::filesystem::copy_file(exampleService("ketra-recorder"), copy);
    const ServiceProcess process(copy, {std::to_string(host.port())}, (dir / "output").string());
    ASSERT_TRUE(ktr::test::waitUntil([&] { return host.count() > 0; }));
    EXPECT_TRUE(std::filesystem::exists(dir / "data" / "recorder.db"));
}

} // namespace
} // namespace ktr::example::test
