#include "common/Guids.h"

#include "examples/FakeHost.h"
#include "examples/ServiceProcess.h"

#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

namespace ktr::example::test {
namespace {

TEST(HeartbeatServiceTest, bearsTheGuidOfItsPlugin) {
    const ktr::test::TempDir dir;
    FakeHost host;
    const ServiceProcess service(exampleService("ketra-heartbeat"), {std::to_string(host.port())},
                                 (dir / "output").string());
    ASSERT_TRUE(ktr::test::waitUntil([&] { return host.count() > 0; }));
    EXPECT_EQ(kHeartbeatGuid, host.reports().at(0).at("guid"));
}

TEST(HeartbeatServiceTest, leavesNoFileBehind) {
    const ktr::test::TempDir dir;
    const ktr::test::TempDir temporary;
    FakeHost host(1);
    ServiceProcess service(exampleService("ketra-heartbeat"), {std::to_string(host.port())},
                           (dir / "output").string(), {"TMPDIR=" + temporary.path().string()});
    ASSERT_TRUE(ktr::test::waitUntil([&] { return host.count() == 2; }));
    service.signal(SIGTERM);
    EXPECT_EQ(0, service.waitForEnd());
    EXPECT_TRUE(std::filesystem::is_empty(temporary.path()));
}

/// The children of `parent`, as the kernel tells them.
std::string childrenOf(pid_t parent) {
    const std::string id = std::to_string(parent);
    std::ifstream in("/proc/" + id + "/task/" + id + "/children");
    std::string children;
    std::getline(in, children);
    return children;
}

TEST(HeartbeatServiceTest, takesItsSleepWithIt) {
    const ktr::test::TempDir dir;
    FakeHost host;
    ServiceProcess service(exampleService("ketra-heartbeat"), {std::to_string(host.port())},
                           (dir / "output").string());
    ASSERT_TRUE(ktr::test::waitUntil([&] {
        return service.output().find("reported to the host") != std::string::npos &&
               !childrenOf(service.id()).empty();
    }));
    const pid_t sleeping = std::stoi(childrenOf(service.id()));
    service.signal(SIGTERM);
    EXPECT_EQ(0, service.waitForEnd());
    // gone, or a zombie that init has not taken yet
    EXPECT_TRUE(ktr::test::waitUntil([&] {
        std::ifstream in("/proc/" + std::to_string(sleeping) + "/stat");
        std::string text;
        return !std::getline(in, text) || text.find(") Z ") != std::string::npos;
    }));
}

} // namespace
} // namespace ktr::example::test
