#include "support/ChildProcess.h"
#include "support/FreePort.h"
#include "support/HostProcess.h"
#include "support/HttpClient.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/wait.h>
#include <vector>

namespace ktr {
namespace {

namespace fs = std::filesystem;

/// Runs a command with its output in `folder`; returns the exit code.
int run(const std::vector<std::string>& command, const fs::path& folder) {
    return WEXITSTATUS(test::ChildProcess(command, folder / "out").wait());
}

constexpr const char* kStarted = "started plugin, guid: 0c2f6b9e-5d0a-4c55-9f6b-3f1f0d3c7a11";

/// Puts a service where the host starts it, by a name that nothing else on the machine bears.
fs::path installService(test::DeviceRoot& root, const std::string& program) {
    fs::path service = root.services() / root.addService();
    fs::remove(service);
    fs::copy_file(program, service);
    fs::permissions(service, fs::perms::owner_all);
    return service;
}

int countAt(const test::HostProcess& host) {
    return test::httpPost(host.port(), "/counter/count").json()->getValue<int>("count");
}

TEST(PluginGuide, ItsPluginCountsItsEventsAndStartsAnewWithEachReport) {
    test::DeviceRoot root;
    test::install(KETRA_GUIDE_PLUGIN, root.plugins() / "libKetraPluginGuide.so");
    test::HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    for (int reports = 1; reports <= 3; ++reports) {
        ASSERT_EQ(run({"/bin/sh", KETRA_REPORT_BY_HAND, std::to_string(host.port())}, root.notes()),
                  0);
        ASSERT_TRUE(host.waitLogged(kStarted, reports)) << host.err();
        // its own first event, counted by a fresh object
        EXPECT_TRUE(test::waitUntil([&] { return countAt(host) == 1; })) << countAt(host);
    }
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitForExit(), 0) << host.err();
}

/// Lets scripts find the command line tool.
void putToolIntoPath() {
    setenv("PATH", (std::string(KETRA_TOOL_DIR) + ":" + std::getenv("PATH")).c_str(), 1);
}

TEST(PluginGuide, ItsPluginRunsByItself) {
    test::TempDir folder;
    fs::create_directory(folder / "build");
    test::install(KETRA_GUIDE_PLUGIN, folder / "build/libKetraPluginCounter.so");
    putToolIntoPath();
    const std::string enter = "cd '" + folder.path().string() + "' && . ";
    EXPECT_EQ(run({"/bin/sh", "-ec", enter + KETRA_RUN}, folder.path()), 0);
    // of the event that it sends itself, and of the one that was typed
    const std::string out = test::readFile(folder / "out");
    for (const char* count : {R"("count":1})", R"("count":2})"})
        EXPECT_EQ(test::countOf(out, count), 1) << out;
}

TEST(PluginGuide, ItsPluginPassesTheCheck) {
    test::TempDir folder;
    fs::create_directory(folder / "build");
    const fs::path plugin = folder / "build/libKetraPluginCounter.so";
    test::install(KETRA_GUIDE_PLUGIN, plugin);
    putToolIntoPath();
    const std::string enter = "cd '" + folder.path().string() + "' && . ";
    EXPECT_EQ(run({"/bin/sh", "-ec", enter + KETRA_CHECK}, folder.path()), 0)
        << test::readFile(folder / "out");
    fs::resize_file(plugin, fs::file_size(plugin) / 2);
    EXPECT_EQ(run({"/bin/sh", "-ec", enter + KETRA_CHECK}, folder.path()), 1)
        << test::readFile(folder / "out");
}

void expectToStartThePluginAndToEndWithTheHost(const std::string& program) {
    test::DeviceRoot root;
    test::install(KETRA_GUIDE_PLUGIN, root.plugins() / "libKetraPluginGuide.so");
    installService(root, program);
    test::HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    EXPECT_TRUE(host.waitLogged(kStarted)) << host.err();
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitForExit(), 0) << host.err();
    EXPECT_EQ(host.err().find("did not end within a second"), std::string::npos) << host.err();
    EXPECT_EQ(host.err().find("exited, code"), std::string::npos) << host.err();
}

class ServiceGuide : public testing::TestWithParam<const char*> {};

TEST_P(ServiceGuide, ItsServiceStartsThePluginAndEndsWithTheHost) {
    expectToStartThePluginAndToEndWithTheHost(GetParam());
}

TEST_P(ServiceGuide, ItsServiceRepeatsAReportThatIsNotTaken) {
    test::DeviceRoot root;
    const std::string out = root.notes() / "out";
    test::ChildProcess service({installService(root, GetParam()), std::to_string(test::freePort())},
                               out);
    EXPECT_TRUE(test::waitUntil(
        [&] { return test::countOf(test::readFile(out), "did not take the report") >= 3; },
        std::chrono::seconds(30)))
        << test::readFile(out);
    service.signal(SIGTERM);
    const int status = service.wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

INSTANTIATE_TEST_SUITE_P(InShellAndCpp, ServiceGuide,
                         testing::Values(KETRA_GUIDE_SHELL_SERVICE, KETRA_GUIDE_SERVICE),
                         [](const auto& service) { return service.index == 0 ? "Shell" : "Cpp"; });

TEST(ReportGuide, ItsScriptLeavesTheReportToTheTool) {
    putToolIntoPath();
    expectToStartThePluginAndToEndWithTheHost(KETRA_REPORTING_SERVICE);
}

TEST(ReportGuide, ItsReportsAreTaken) {
    test::DeviceRoot root;
    test::HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    const std::string url =
        "http://127.0.0.1:" + std::to_string(host.port()) + "/index/api/all/report";
    const std::vector<std::vector<std::string>> commands{
        {"/bin/sh", KETRA_REPORT_BY_HAND, std::to_string(host.port())},
        {"/usr/bin/curl", "-s", "-H", "Content-Type: application/json", "--data",
         std::string("@") + KETRA_REPORT, url}};
    for (const std::vector<std::string>& command : commands) {
        fs::remove(root.notes() / "out");
        ASSERT_EQ(run(command, root.notes()), 0);
        EXPECT_EQ(test::readFile(root.notes() / "out"), R"({"code":0,"msg":"success"})");
    }
}

TEST(IntegratorGuide, ItsHostRunsAPluginAndEndsInOrder) {
    test::DeviceRoot root;
    test::install(KETRA_GUIDE_PLUGIN, root.plugins() / "libKetraPluginGuide.so");
    installService(root, KETRA_GUIDE_SERVICE);
    const std::string out = root.notes() / "host.out";
    test::ChildProcess host({KETRA_GUIDE_HOST, root.path().string()}, out);
    const auto logged = [&out](const std::string& text) {
        return test::waitUntil([&] { return test::readFile(out).find(text) != std::string::npos; },
                               std::chrono::seconds(20));
    };
    EXPECT_TRUE(logged("ready on 127.0.0.1:")) << test::readFile(out);
    EXPECT_TRUE(logged(kStarted)) << test::readFile(out);
    EXPECT_TRUE(logged("edge reportServerStarted")) << test::readFile(out);
    host.signal(SIGTERM);
    const int status = host.wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_TRUE(logged("----end PluginUnLoadAll-plugin: counter")) << test::readFile(out);
    EXPECT_TRUE(test::processesBelow(root.path()).empty());
}

TEST(IntegratorGuide, ItsHostEndsInOrderWhenItCannotStart) {
    test::TempDir folder;
    EXPECT_EQ(run({KETRA_GUIDE_HOST, (folder / "missing").string()}, folder.path()), 1);
    EXPECT_NE(test::readFile(folder / "out").find("host: "), std::string::npos);
}

TEST(IntegratorGuide, ItsHostIsShort) {
    EXPECT_LT(test::readLines(KETRA_GUIDE_HOST_SOURCE).size(), 80U);
}

TEST(OperatorGuide, ItsDeviceRootSatisfiesTheHost) {
    test::TempDir folder;
    const std::string enter = "cd '" + folder.path().string() + "' && . ";
    ASSERT_EQ(run({"/bin/sh", "-ec", enter + KETRA_DEVICE_ROOT}, folder.path()), 0);
    test::HostProcess host({"--root=" + (folder / "device").string(), "--port=0"});
    ASSERT_TRUE(host.waitReady()) << host.err();
    EXPECT_EQ(host.err().find("mend it with"), std::string::npos) << host.err();
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitForExit(), 0) << host.err();
}

TEST(OperatorGuide, ItsConfigurationFileStartsAHostThatAnswersItsQuestion) {
    test::DeviceRoot root;
    root.addService();
    test::HostProcess host(root, {std::string("--config=") + KETRA_PROPERTIES});
    ASSERT_TRUE(host.waitReady()) << host.err();
    const std::string port = std::to_string(host.port());
    ASSERT_EQ(run({"/bin/sh", KETRA_IS_UP, port}, root.notes()), 0);
    EXPECT_NE(test::readFile(root.notes() / "out").find("parameter ip must specified"),
              std::string::npos);
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitForExit(), 0) << host.err();
    // nobody answers any more
    EXPECT_NE(run({"/bin/sh", KETRA_IS_UP, port}, root.notes()), 0);
}

} // namespace
} // namespace ktr
