#include "RunningTool.h"

#include "ktr/common/JsonAnswer.h"
#include "ktr/common/WebApiBasic.h"
#include "support/ChildProcess.h"
#include "support/FreePort.h"
#include "support/PuppetClient.h"

#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace ktr::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;

using Response = Poco::Net::HTTPServerResponse;

std::vector<std::string> reportTo(unsigned short port,
                                  const std::vector<std::string>& further = {}) {
    std::vector<std::string> words{"report", "--host-port=" + std::to_string(port), "--guid=puppet",
                                   "--port=23456"};
    words.insert(words.end(), further.begin(), further.end());
    return words;
}

void takeReport(Response& response) {
    response.send() << makeJsonDefault(0, "success");
}

/// Stands in for the host where the test wants other answers than a host gives at will.
class FakeHost {
public:
    using Answer = std::function<void(Response&)>;

    explicit FakeHost(Answer answer_ = takeReport, const std::string& ip = "127.0.0.1")
        : answer(std::move(answer_)) {
        api.apiRegist("/index/api/all/report",
                      [this](auto&, Response& response, const WebApiBasic::Parameters& params) {
                          {
                              const std::lock_guard<std::mutex> lock(mutex);
                              kept.push_back(params);
                          }
                          answer(response);
                      });
        servedPort = api.bind(ip).port();
        api.serve();
    }

    void stop() { api.stop(); }
    void startAgain() {
        api.bind("127.0.0.1", servedPort);
        api.serve();
    }

    unsigned short port() const { return servedPort; }
    std::vector<WebApiBasic::Parameters> reports() const {
        const std::lock_guard<std::mutex> lock(mutex);
        return kept;
    }
    bool waitReports(std::size_t count) const {
        return waitUntil([&] { return reports().size() >= count; }, std::chrono::seconds(30));
    }

private:
    const Answer answer;
    mutable std::mutex mutex;
    std::vector<WebApiBasic::Parameters> kept;
    unsigned short servedPort = 0;
    WebApiBasic api;
};

TEST(Report, StartsThePluginAtTheHost) {
    DeviceRoot root;
    root.addPlugin("puppet");
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    RunningTool tool(reportTo(host.port(), {"--ip=127.0.0.9"}));
    EXPECT_EQ(tool.waitForExit(), 0) << tool.err();
    EXPECT_EQ(tool.out(),
              "reported puppet to the host at 127.0.0.1:" + std::to_string(host.port()) + "\n");
    EXPECT_EQ(tool.err(), "");
    const PuppetClient plugin(host.port(), "puppet");
    ASSERT_TRUE(plugin.waitStarted());
    EXPECT_EQ(plugin.state()->getValue<std::string>("ip"), "127.0.0.9");
    EXPECT_EQ(plugin.state()->getValue<int>("port"), 23456);
}

TEST(Report, PrintsTheAnswerAsItCame) {
    DeviceRoot root;
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    RunningTool tool(reportTo(host.port(), {"--json"}));
    EXPECT_EQ(tool.waitForExit(), 0) << tool.err();
    EXPECT_EQ(tool.out(), makeJsonDefault(0, "success") + "\n");
}

TEST(Report, SendsWhatTheOptionsSay) {
    const FakeHost host(takeReport, "127.0.0.2");
    RunningTool tool({"report", "--host=127.0.0.2", "--host-port", std::to_string(host.port()),
                      "--guid", "a b&c=d%", "--port=1025", "--ip=::1", "--type=-2147483648"});
    EXPECT_EQ(tool.waitForExit(), 0) << tool.err();
    ASSERT_EQ(host.reports().size(), 1U);
    EXPECT_THAT(host.reports().front(),
                testing::UnorderedElementsAre(
                    testing::Pair("ip", "::1"), testing::Pair("port", "1025"),
                    testing::Pair("type", "-2147483648"), testing::Pair("guid", "a b&c=d%")));
}

TEST(Report, HasDefaults) {
    const FakeHost host;
    RunningTool tool(reportTo(host.port()));
    EXPECT_EQ(tool.waitForExit(), 0) << tool.err();
    ASSERT_EQ(host.reports().size(), 1U);
    EXPECT_EQ(host.reports().front().at("ip"), "127.0.0.1");
    EXPECT_EQ(host.reports().front().at("type"), "1");
}

TEST(Report, RefusesABadOptionWith64) {
    const FakeHost host;
    const std::vector<std::pair<std::string, std::string>> cases{
        {"--host-port=0", "--host-port"},
        {"--host-port=65536", "--host-port"},
        {"--host-port=http", "--host-port"},
        {"--port=1024", "1025"},
        {"--port=65536", "65535"},
        {"--ip=nowhere.invalid", "--ip"},
        {"--ip=0.0.0.0", "--ip"},
        {"--ip=", "--ip"},
        {"--host=localhost", "--host"},
        {"--type=2147483648", "--type"},
        {"--type=-2147483649", "--type"},
        {"--type=one", "--type"},
        {"--wait=-1", "--wait"},
        {"--wait=soon", "--wait"},
        {"--every=0", "--every"},
        {"--every=86401", "--every"},
        {"--guid=", "--guid"},
        {"stray", "stray"},
        {"--prot=1", "--prot"},
        {"--json=yes", "--json"},
    };
    for (const auto& [argument, part] : cases) {
        SCOPED_TRACE(argument);
        RunningTool tool(reportTo(host.port(), {argument}));
        EXPECT_EQ(tool.waitForExit(), 64);
        EXPECT_THAT(tool.err(), AllOf(testing::StartsWith("ketra report: "), HasSubstr(part)));
        EXPECT_EQ(tool.out(), "");
    }
    EXPECT_TRUE(host.reports().empty());
}

TEST(Report, NamesEveryOptionThatIsMissing) {
    RunningTool tool({"report"});
    EXPECT_EQ(tool.waitForExit(), 64);
    EXPECT_THAT(tool.err(), HasSubstr("missing: --host-port, --guid, --port;"));
}

TEST(Report, HelpNamesEveryOptionAndCode) {
    RunningTool tool({"report", "--help"});
    EXPECT_EQ(tool.waitForExit(), 0);
    for (const char* part : {"--host-port", "--guid", "--port", "--ip", "--type", "--host IP",
                             "--wait", "--every", "--json", "64", "69", "71", "76"})
        EXPECT_THAT(tool.out(), HasSubstr(part));
}

TEST(Report, EndsWith69WithoutAHost) {
    RunningTool tool(reportTo(freePort(), {"--wait=1", "--json"}));
    EXPECT_EQ(tool.waitForExit(), 69);
    EXPECT_THAT(tool.err(), AllOf(HasSubstr("does not answer"), HasSubstr("--host-port")));
    EXPECT_EQ(tool.out(), "");
}

TEST(Report, EndsWith69IfTheHostIsSilent) {
    const Poco::Net::ServerSocket silent(Poco::Net::SocketAddress("127.0.0.1", 0));
    RunningTool tool(reportTo(silent.address().port(), {"--wait=1"}));
    EXPECT_EQ(tool.waitForExit(), 69);
    EXPECT_THAT(tool.err(), HasSubstr("Timeout"));
}

TEST(Report, WaitsForAHostThatComesLate) {
    DeviceRoot root;
    root.addPlugin("puppet");
    const std::uint16_t port = freePort();
    RunningTool once(reportTo(port, {"--wait=60"}));
    RunningTool again(reportTo(port, {"--every=600"}));
    ASSERT_TRUE(again.waitErr("will be repeated")) << again.err();
    EXPECT_FALSE(once.hasExited()) << once.err();
    HostProcess host(root, {"--port=" + std::to_string(port)});
    ASSERT_TRUE(host.waitReady()) << host.err();
    EXPECT_EQ(once.waitForExit(), 0) << once.err();
    EXPECT_TRUE(again.waitErr("reported puppet to the host")) << again.err();
    EXPECT_TRUE(PuppetClient(port, "puppet").waitStarted());
}

TEST(Report, EndsWith76AndTheReasonIfItIsRefused) {
    const std::string answer = makeJsonDefault(-1, "port number invalid");
    const FakeHost host([&](Response& response) { response.send() << answer; });
    RunningTool tool(reportTo(host.port(), {"--every=1", "--json"}));
    EXPECT_EQ(tool.waitForExit(), 76);
    EXPECT_THAT(tool.err(), AllOf(HasSubstr("port number invalid"), HasSubstr("correct")));
    EXPECT_EQ(tool.out(), answer + "\n");
    EXPECT_EQ(host.reports().size(), 1U);
}

TEST(Report, EndsWith76IfTheHostLeftItsServicesOut) {
    DeviceRoot root;
    std::filesystem::permissions(root.services(), std::filesystem::perms::all);
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    RunningTool tool(reportTo(host.port()));
    EXPECT_EQ(tool.waitForExit(), 76);
    EXPECT_THAT(tool.err(), HasSubstr("left out its microservices"));
}

TEST(Report, EndsWith76IfItIsNoHost) {
    const FakeHost other([](Response& response) { response.send() << "<html>hello</html>"; });
    RunningTool tool(reportTo(other.port(), {"--json"}));
    EXPECT_EQ(tool.waitForExit(), 76);
    EXPECT_THAT(tool.err(), HasSubstr("no ketra-host"));
    EXPECT_EQ(tool.out(), "");
}

TEST(Report, GivesUpAnAnswerWithoutEnd) {
    const FakeHost other([](Response& response) { response.send() << std::string(200'000, 'x'); });
    RunningTool tool(reportTo(other.port(), {"--wait=0"}));
    EXPECT_EQ(tool.waitForExit(), 69);
    EXPECT_THAT(tool.err(), HasSubstr("longer"));
}

TEST(Report, TriesAgainWhileTheHostFails) {
    std::atomic<int> count{0};
    const FakeHost host([&](Response& response) {
        if (++count < 3)
            throw std::runtime_error("no thread");
        takeReport(response);
    });
    RunningTool tool(reportTo(host.port(), {"--wait=60"}));
    EXPECT_EQ(tool.waitForExit(), 0) << tool.err();
    EXPECT_EQ(count, 3);

    const FakeHost failing([](Response&) { throw std::runtime_error("no thread"); });
    RunningTool impatient(reportTo(failing.port(), {"--wait=0"}));
    EXPECT_EQ(impatient.waitForExit(), 76);
    EXPECT_THAT(impatient.err(), HasSubstr("--wait"));
}

TEST(Report, EndsWith71IfTheAnswerCannotBeWritten) {
    const FakeHost host;
    RunningTool tool(reportTo(host.port(), {"--json"}), "/dev/full");
    EXPECT_EQ(tool.waitForExit(), 71);
    EXPECT_THAT(tool.err(), HasSubstr("could not be written"));
}

TEST(Report, RepeatsUntilASignal) {
    for (const int number : {SIGTERM, SIGINT}) {
        const FakeHost host;
        RunningTool tool(reportTo(host.port(), {"--every=1"}));
        EXPECT_TRUE(host.waitReports(3));
        EXPECT_FALSE(tool.hasExited());
        EXPECT_EQ(countOf(tool.err(), "reported puppet"), 1) << tool.err();
        tool.signal(number);
        EXPECT_EQ(tool.waitForExit(), 0);
    }
}

TEST(Report, EndsByASignalAlsoWhileTheHostIsSilent) {
    const Poco::Net::ServerSocket silent(Poco::Net::SocketAddress("127.0.0.1", 0));
    RunningTool tool(reportTo(silent.address().port(), {"--every=1"}));
    ASSERT_TRUE(tool.waitErr("will be repeated"));
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.waitForExit(), 0);
}

TEST(Report, GoesOnAfterFailuresAndTellsThemOnce) {
    std::atomic<bool> failing{false};
    FakeHost host([&](Response& response) {
        if (failing)
            throw std::runtime_error("no thread");
        takeReport(response);
    });
    RunningTool tool(reportTo(host.port(), {"--every=1"}));
    ASSERT_TRUE(host.waitReports(1));
    failing = true;
    ASSERT_TRUE(host.waitReports(5));
    host.stop();
    failing = false;
    host.startAgain();
    EXPECT_TRUE(tool.waitErr("reported puppet", 2)) << tool.err();
    EXPECT_EQ(countOf(tool.err(), "failed, will be repeated"), 1) << tool.err();
}

TEST(Report, EndsWithTheProcessThatStartedIt) {
    const TempDir folder;
    const FakeHost host;
    const std::string file = (folder / "pid").string();
    ChildProcess service({"/bin/sh", "-c", R"("$0" "$@" & echo $! > )" + file + "; wait", KETRA,
                          "report", "--host-port=" + std::to_string(host.port()), "--guid=puppet",
                          "--port=23456", "--every=1"},
                         (folder / "out").string());
    ASSERT_TRUE(host.waitReports(2));
    const auto reporter = static_cast<pid_t>(std::stol(readFile(file)));
    EXPECT_TRUE(isAlive(reporter));
    service.end(SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return !isAlive(reporter); }));
}

// The signal of a parent's end comes at the end of the thread that made the child.
TEST(Report, GoesOnAfterTheThreadThatStartedIt) {
    const FakeHost host;
    std::unique_ptr<RunningTool> tool;
    std::thread([&] {
        tool = std::make_unique<RunningTool>(reportTo(host.port(), {"--every=1"}));
        host.waitReports(1);
    }).join();
    const std::size_t before = host.reports().size();
    EXPECT_TRUE(host.waitReports(before + 2));
    EXPECT_FALSE(tool->hasExited());
}

} // namespace
} // namespace ktr::test
