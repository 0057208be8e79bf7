#include "common/Guids.h"

#include "examples/PluginUnderTest.h"

#include <Poco/PipeStream.h>
#include <Poco/Process.h>
#include <Poco/SharedLibrary.h>

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace ktr::example::test {
namespace {

struct Expected {
    std::string library;
    std::string name;
    std::string guid;
};

class ExportsTest : public ::testing::TestWithParam<Expected> {};

INSTANTIATE_TEST_SUITE_P(
    Examples, ExportsTest,
    ::testing::Values(Expected{"KetraPluginThermometer", "thermometer", kThermometerGuid},
                      Expected{"KetraPluginRecorder", "recorder", kRecorderGuid},
                      Expected{"KetraPluginHeartbeat", "heartbeat", kHeartbeatGuid}),
    [](const auto& tested) { return tested.param.name; });

TEST_P(ExportsTest, fiveEntryPointsAndNothingElse) {
    Poco::Pipe pipe;
    const auto nm = Poco::Process::launch(
        "nm", {"--dynamic", "--defined-only", "--format=posix", examplePlugin(GetParam().library)},
        nullptr, &pipe, nullptr);
    Poco::PipeInputStream output(pipe);
    std::vector<std::string> symbols;
    for (std::string line; std::getline(output, line);)
        symbols.push_back(line.substr(0, line.find(' ')));
    ASSERT_EQ(0, nm.wait());
    EXPECT_THAT(symbols, ::testing::UnorderedElementsAre("PluginLoad", "PluginUnLoad", "PluginType",
                                                         "PluginName", "PluginGuid"));
}

TEST_P(ExportsTest, nameGuidAndFactory) {
    PluginUnderTest plugin(GetParam().library);
    EXPECT_EQ(GetParam().name, plugin.callText("PluginName"));
    EXPECT_EQ(GetParam().guid, plugin.callText("PluginGuid"));
    const auto factory = plugin.load();
    EXPECT_EQ(GetParam().guid, plugin.registeredGuid());
    EXPECT_NE(factory(), factory());
}

TEST_P(ExportsTest, registersItsOwnGuidBesideAnother) {
    // Opened before, so that a call of an entry point by its name would go there.
    const bool isHeartbeat = GetParam().guid == kHeartbeatGuid;
    const PluginUnderTest other(isHeartbeat ? "KetraPluginRecorder" : "KetraPluginHeartbeat");
    PluginUnderTest plugin(GetParam().library);
    plugin.load();
    EXPECT_EQ(GetParam().guid, plugin.registeredGuid());
}

} // namespace
} // namespace ktr::example::test
