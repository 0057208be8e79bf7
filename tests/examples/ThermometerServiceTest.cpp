#include "common/Guids.h"
#include "common/HttpClient.h"

#include "examples/FakeHost.h"
#include "examples/ServiceProcess.h"

#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <gmock/gmock.h>

#include <string>

namespace ktr::example::test {
namespace {

TEST(ThermometerServiceTest, servesReadingsAtTheReportedAddress) {
    const ktr::test::TempDir dir;
    FakeHost host;
    const ServiceProcess service(exampleService("ketra-thermometer"), {std::to_string(host.port())},
                                 (dir / "output").string());
    ASSERT_TRUE(ktr::test::waitUntil([&] { return host.count() > 0; }));
    EXPECT_EQ(kThermometerGuid, host.reports().at(0).at("guid"));

    HttpClient client("127.0.0.1", host.reportedPort(), Poco::Timespan(10, 0));
    const HttpAnswer answer = client.get("/reading");
    ASSERT_EQ(200, answer.status);
    const auto reading = Poco::JSON::Parser().parse(answer.body).extract<Poco::JSON::Object::Ptr>();
    EXPECT_THAT(reading->getValue<std::string>("source"),
                ::testing::AnyOf("cpu-thermal", "loadavg"));
    EXPECT_THAT(reading->getValue<std::string>("unit"), ::testing::AnyOf("°C", "tasks"));
    EXPECT_TRUE(reading->get("value").isNumeric());
    EXPECT_EQ(24U, reading->getValue<std::string>("time").size());
    EXPECT_EQ(404, client.get("/other").status);
}

} // namespace
} // namespace ktr::example::test
