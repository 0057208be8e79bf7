#include "ktr/MSManager.h"

#include "ktr/common/WebApiBasic.h"
#include "support/HostProcess.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>

namespace ktr::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned short kPort = 8123;

/// The manager of the real libraries in this process, whose children the services are: what the
/// host never does, or does within too short a time to be watched from outside.
class ManagerTest : public testing::Test {
protected:
    ManagerTest() {
        // a launch closes every descriptor up to the limit, one by one
        getrlimit(RLIMIT_NOFILE, &formerLimit);
        const rlimit small{256, formerLimit.rlim_max};
        setrlimit(RLIMIT_NOFILE, &small);
        std::filesystem::current_path(root.path());
    }
    ~ManagerTest() override {
        for (const std::string& service : services)
            for (const DeviceRoot::Start& start : root.startsOf(service))
                end(start.pid);
        WebApiBasic::instance()->apiUnregist("/index/api/all/report");
        std::filesystem::current_path(formerPath);
        setrlimit(RLIMIT_NOFILE, &formerLimit);
    }

    std::string addService(const std::string& conf = "") {
        services.push_back(root.addService(conf));
        return services.back();
    }

    DeviceRoot::Start waitStart(const std::string& service, std::size_t number = 1) const {
        const bool started = waitUntil([&] { return root.startsOf(service).size() >= number; });
        return started ? root.startsOf(service)[number - 1] : DeviceRoot::Start{};
    }

    /// Kills the service and waits until it has ended, but leaves it to its owner to see that.
    static void killUnseen(pid_t pid) {
        kill(pid, SIGKILL);
        siginfo_t ended{};
        ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT), 0);
    }

    /// Whether the process was a child of ours that nobody had waited for.
    static bool end(pid_t pid) {
        siginfo_t state{};
        if (waitid(P_PID, static_cast<id_t>(pid), &state, WEXITED | WNOHANG | WNOWAIT) != 0)
            return false;
        kill(pid, SIGKILL);
        return waitpid(pid, nullptr, 0) == pid;
    }

    static std::vector<std::string> informationOf(const LogCapture& log) {
        return log.texts(Poco::Message::PRIO_INFORMATION);
    }

    DeviceRoot root;

private:
    std::vector<std::string> services;
    const std::filesystem::path formerPath = std::filesystem::current_path();
    rlimit formerLimit{};
};

TEST_F(ManagerTest, ServicesStartInTheCurrentDirectoryAndAgainInThatOfTheProgram) {
    const std::string service = addService();
    const LogCapture log;
    MSManager manager;
    manager.start("127.0.0.1", kPort);
    const auto first = waitStart(service);
    ASSERT_GT(first.pid, 0);
    EXPECT_EQ(first.directory, root.path());
    EXPECT_EQ(first.arguments, "8123");
    kill(first.pid, SIGKILL);
    const auto second = waitStart(service, 2);
    ASSERT_GT(second.pid, 0);
    EXPECT_EQ(second.directory, std::filesystem::read_symlink("/proc/self/exe").parent_path());
    EXPECT_EQ(second.arguments, "8123");
    EXPECT_THAT(informationOf(log),
                ElementsAre("microservice " + service + " exited, code: 265, restart it"));
}

TEST_F(ManagerTest, StopWhileARelaunchIsDueLeavesItOut) {
    const std::string running = addService();
    const std::string exited = addService();
    const LogCapture log;
    MSManager manager;
    manager.start("127.0.0.1", kPort);
    kill(waitStart(exited).pid, SIGKILL);
    // just after a scan, so that the next one is nearly a second off
    const auto relaunched = waitStart(exited, 2);
    ASSERT_GT(relaunched.pid, 0);
    killUnseen(relaunched.pid);
    const pid_t other = waitStart(running).pid;
    manager.stop();

    EXPECT_THAT(informationOf(log),
                ElementsAre("microservice " + exited + " exited, code: 265, restart it",
                            "microservice " + running + " running, stop it"));
    EXPECT_EQ(root.startsOf(exited).size(), 2U);
    EXPECT_THAT(processesBelow(root.path()), IsEmpty());
    // both were waited for
    EXPECT_FALSE(end(relaunched.pid));
    EXPECT_FALSE(end(other));
}

TEST_F(ManagerTest, WhatAStartAfterStopLaunchesIsNeitherSupervisedNorEnded) {
    const std::string killed = addService();
    const std::string staying = addService();
    pid_t stays = 0;
    {
        const LogCapture log;
        MSManager manager;
        manager.stop();
        manager.start("127.0.0.1", kPort);
        stays = waitStart(staying).pid;
        ASSERT_GT(stays, 0);
        const pid_t ended = waitStart(killed).pid;
        ASSERT_GT(ended, 0);
        killUnseen(ended);
        EXPECT_FALSE(waitUntil([&] { return root.startsOf(killed).size() > 1; },
                               std::chrono::milliseconds(2500)));
        // only the first has an effect
        manager.stop();
        EXPECT_THAT(log.messages(), IsEmpty());
        // nobody has waited for it
        EXPECT_TRUE(end(ended));
        EXPECT_TRUE(isAlive(stays));
    }
    EXPECT_TRUE(isAlive(stays));
}

} // namespace
} // namespace ktr::test
