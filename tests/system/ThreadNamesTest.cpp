// What an operator sees of the host's threads (top -H, ps -L): whose each is.

#include "support/FreePort.h"
#include "support/HostProcess.h"
#include "support/PuppetClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace ktr::test {
namespace {

std::set<std::string> threadNames(pid_t pid) {
    std::set<std::string> names;
    for (const auto& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task"))
        for (const std::string& name : readLines(task.path() / "comm"))
            names.insert(name);
    return names;
}

TEST(ThreadNamesTest, ThoseThatWorkForLongBearTheirOwn) {
    DeviceRoot root;
    root.addPlugin("puppet");
    root.addService();
    const std::string nobody = "127.0.0.1:" + std::to_string(freePort());
    HostProcess host(root, {"--mqtt-url=tcp://" + nobody, "--webhook-url=http://" + nobody});
    ASSERT_TRUE(host.waitReady()) << host.err();
    // with the last plugin's start the web hook begins to work
    PuppetClient(host.port(), "puppet").report(41000);
    const auto areNamed = testing::IsSupersetOf(
        {"stop-control", "temperature", "supervision", "mqtt", "mqtt-inbox", "web-hook"});
    waitUntil([&] { return testing::Value(threadNames(host.pid()), areNamed); });
    EXPECT_THAT(threadNames(host.pid()), areNamed) << host.err();
}

} // namespace
} // namespace ktr::test
