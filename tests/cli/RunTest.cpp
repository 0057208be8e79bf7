#include "RunningTool.h"

#include "support/Broker.h"
#include "support/FreePort.h"
#include "support/PuppetClient.h"

#include <Poco/Net/ServerSocket.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <poll.h>
#include <thread>

namespace ktr::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::StartsWith;

using Words = std::vector<std::string>;

/// A fixture plugin in a folder of its own, beside which it notes its calls.
class Fixture {
public:
    explicit Fixture(const std::string& name)
        : file(folder / ("libKetraPluginFixture" + name + ".so")) {
        std::filesystem::copy_file(std::filesystem::path(KETRA_FIXTURE_PLUGINS) / file.filename(),
                                   file);
    }

    std::string path() const { return file; }

    Words calls(const std::string& guid) const { return readLines(folder / (guid + ".calls")); }
    Words messages(const std::string& guid) const {
        const std::string mark = "onMessage ";
        Words texts;
        for (const std::string& call : calls(guid))
            if (call.rfind(mark, 0) == 0)
                texts.push_back(call.substr(mark.size()));
        return texts;
    }

private:
    TempDir folder;
    const std::filesystem::path file;
};

Words runOf(const std::string& plugin, const Words& further = {}) {
    Words words{"run", plugin, "--linger=0"};
    words.insert(words.end(), further.begin(), further.end());
    return words;
}

/// The tool with a puppet plugin, whose routes a test talks to.
class RunningPuppet {
public:
    explicit RunningPuppet(const DeviceRoot& root, const Words& further = {},
                           const std::string& output = "")
        : tool(runOf(root.plugins() / "libKetraPluginPuppet-puppet.so", further), output) {}

    bool waitStarted() {
        const std::string mark = "routes are at http://127.0.0.1:";
        waitUntil([&] { return tool.hasExited() || countOf(tool.err(), mark) != 0; },
                  std::chrono::seconds(30));
        const std::string text = tool.err();
        const auto at = text.find(mark);
        if (at == std::string::npos)
            return false;
        servedPort = static_cast<unsigned short>(std::stoi(text.substr(at + mark.size())));
        return true;
    }
    PuppetClient client() const { return {servedPort, "puppet"}; }
    unsigned short port() const { return servedPort; }

    RunningTool tool;

private:
    unsigned short servedPort = 0;
};

class Run : public testing::Test {
protected:
    DeviceRoot root;
};

// ---- events

TEST_F(Run, PrintsWhatThePluginRaisesAndNothingElse) {
    const Fixture plugin("Raises");
    RunningTool tool(runOf(plugin.path()));
    tool.type("{\"some\":1}\n");
    tool.endInput();
    EXPECT_EQ(tool.waitForExit(), 0) << tool.err();
    Words expected;
    for (const char* place : {"setEventCallback", "start", "thread", "onMessage", "stop"}) {
        const std::string members = R"({"to":["listener"],"raised":")" + std::string(place) + "\"";
        expected.push_back(members + "}");
        expected.push_back(members + R"(,"api":"pushTelemetry"})");
    }
    EXPECT_THAT(tool.outLines(), testing::UnorderedElementsAreArray(expected));
    EXPECT_THAT(tool.err(), HasSubstr("Information plugin name: raises"));
    EXPECT_TRUE(tool.isTidy());
}

TEST_F(Run, AddressesALineWithoutReceiverToThePlugin) {
    const Fixture plugin("Complete");
    RunningTool tool(runOf(plugin.path()));
    tool.type(" {} \n{ \"a\" : 1.50 }\r\n\n  \n{\"to\" : [\"x\",\"complete\"],\"b\":2}\n"
              "{\"to\":[\"complete\",7,\"complete\"],\"api\":\"pushTelemetry\"}\n{\"last\":0}");
    tool.endInput();
    EXPECT_EQ(tool.waitForExit(), 0) << tool.err();
    EXPECT_THAT(plugin.messages("complete"),
                ElementsAre(R"({"to":["complete"]})", R"({"to":["complete"], "a" : 1.50 })",
                            R"({"to" : ["x","complete"],"b":2})",
                            R"({"to":["complete",7,"complete"],"api":"pushTelemetry"})",
                            R"({"to":["complete",7,"complete"],"api":"pushTelemetry"})",
                            R"({"to":["complete"],"last":0})"));
}

TEST_F(Run, DeliversManyEventsInOrder) {
    const Fixture plugin("Complete");
    RunningTool tool(runOf(plugin.path(), {"--log-level=none"}));
    Words expected;
    std::string input;
    for (int i = 0; i < 1000; ++i) {
        const std::string member = "\"number\":" + std::to_string(i) + "}";
        input += "{" + member + "\n";
        expected.push_back(R"({"to":["complete"],)" + member);
    }
    tool.type(input);
    tool.endInput();
    EXPECT_EQ(tool.waitForExit(), 0) << tool.err();
    EXPECT_EQ(plugin.messages("complete"), expected);
}

TEST_F(Run, GoesOnAfterABadLine) {
    const Fixture plugin("Complete");
    RunningTool tool(runOf(plugin.path()));
    std::string tooLong;
    tooLong.resize(17'000'000, '{');
    tool.type("nonsense\n[1]\n{\"to\":\"complete\"}\n{\"to\":[\"other\"]}\n" + tooLong +
              "\n{\"good\":1}\n");
    tool.endInput();
    EXPECT_EQ(tool.waitForExit(), 0) << tool.err();
    for (const char* part : {"line 1: is left out: it is no JSON object", "line 2: is left out",
                             "line 3: is left out: \"to\" must be an array",
                             "line 4: reaches nobody", "line 5: is left out, for it is longer"})
        EXPECT_THAT(tool.err(), HasSubstr(part));
    EXPECT_THAT(plugin.messages("complete"), ElementsAre(R"({"to":["complete"],"good":1})"));
}

TEST_F(Run, KeepsEachEventOnALineOfItsOwn) {
    root.addPlugin("puppet");
    RunningPuppet puppet(root);
    ASSERT_TRUE(puppet.waitStarted()) << puppet.tool.err();
    puppet.client().raise("{\"to\":[],\r\n\"a\":1.0}");
    puppet.client().raise("no\njson");
    puppet.client().raise("[1]");
    puppet.client().raise("\xe4");
    puppet.client().raise(R"({"no":"receiver"})");
    puppet.tool.endInput();
    EXPECT_EQ(puppet.tool.waitForExit(), 0) << puppet.tool.err();
    EXPECT_THAT(puppet.tool.outLines(),
                ElementsAre("{\"to\":[],  \"a\":1.0}", R"({"invalid":"no\njson"})",
                            R"({"invalid":"[1]"})", "{\"invalid\":\"\xc3\xa4\"}",
                            "{\"no\":\"receiver\"}"));
}

TEST_F(Run, NeverMixesLinesOfSeveralThreads) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    root.addPlugin("puppet");
    RunningPuppet puppet(root, {"--log-level=none"}, "fd:" + std::to_string(ends[1]));
    close(ends[1]);
    ASSERT_TRUE(puppet.waitStarted()) << puppet.tool.err();
    // more than the pipe takes at once
    const auto event = [](char letter) {
        return R"({"letters":")" + std::string(100'000, letter) + R"("})";
    };
    constexpr int kEvents = 20;
    Words expected;
    std::vector<std::thread> threads;
    for (const char letter : {'a', 'b', 'c', 'd'}) {
        expected.insert(expected.end(), kEvents, event(letter));
        threads.emplace_back([&, letter] {
            for (int i = 0; i < kEvents; ++i)
                puppet.client().raise(event(letter));
        });
    }
    const auto copy = root.notes() / "out";
    std::thread reader([&] {
        std::ofstream out(copy);
        std::array<char, 4096> part{};
        for (ssize_t size = 0; (size = read(ends[0], part.data(), part.size())) > 0;)
            out.write(part.data(), size);
    });
    for (std::thread& thread : threads)
        thread.join();
    puppet.tool.endInput();
    EXPECT_EQ(puppet.tool.waitForExit(), 0) << puppet.tool.err();
    reader.join();
    close(ends[0]);
    Words lines = readLines(copy);
    std::sort(lines.begin(), lines.end());
    EXPECT_TRUE(lines == expected);
}

// A flood drops others' events; the tool does not wait for those for ever.
TEST_F(Run, SaysWhatWasNotDelivered) {
    root.addPlugin("puppet");
    RunningPuppet puppet(root);
    ASSERT_TRUE(puppet.waitStarted()) << puppet.tool.err();
    puppet.client().leave();
    puppet.tool.type("{}\n");
    puppet.tool.endInput();
    EXPECT_EQ(puppet.tool.waitForExit(), 1);
    EXPECT_THAT(puppet.tool.err(), HasSubstr("line 1: was not delivered"));
}

// ---- options

TEST_F(Run, StartsThePluginWithTheAddressOfTheOptions) {
    root.addPlugin("puppet");
    RunningPuppet puppet(root, {"--ip=127.0.0.7", "--port=23456", "--type=-3"});
    ASSERT_TRUE(puppet.waitStarted()) << puppet.tool.err();
    EXPECT_EQ(puppet.client().state()->getValue<std::string>("ip"), "127.0.0.7");
    EXPECT_EQ(puppet.client().state()->getValue<int>("port"), 23456);
}

TEST_F(Run, ServesRoutesOnThePortOfTheOption) {
    root.addPlugin("puppet");
    const std::string port = std::to_string(freePort());
    RunningPuppet puppet(root, {"--web-port=" + port});
    ASSERT_TRUE(puppet.waitStarted()) << puppet.tool.err();
    EXPECT_EQ(std::to_string(puppet.port()), port);
    EXPECT_TRUE(puppet.client().isStarted());

    RunningPuppet second(root, {"--web-port=" + port});
    EXPECT_EQ(second.tool.waitForExit(), 71);
    EXPECT_THAT(second.tool.err(), AllOf(HasSubstr(port), HasSubstr("--web-port")));
    EXPECT_TRUE(second.tool.isTidy());
}

TEST_F(Run, ConnectsToTheBrokerOfTheOption) {
    const Broker broker;
    root.addPlugin("puppet");
    RunningPuppet puppet(root, {"--mqtt-url=" + broker.url()});
    ASSERT_TRUE(puppet.waitStarted()) << puppet.tool.err();
    EXPECT_TRUE(
        waitUntil([&] { return puppet.client().state()->getValue<bool>("mqttConnected"); }));
}

TEST_F(Run, LogsAtTheLevelOfTheOption) {
    const Fixture plugin("Complete");
    RunningTool quiet(runOf(plugin.path(), {"--log-level=warning"}));
    RunningTool loud(runOf(plugin.path()));
    for (RunningTool* tool : {&quiet, &loud}) {
        tool->endInput();
        EXPECT_EQ(tool->waitForExit(), 0) << tool->err();
    }
    EXPECT_EQ(countOf(quiet.err(), "Information"), 0) << quiet.err();
    EXPECT_GT(countOf(loud.err(), "Information"), 0);
}

TEST_F(Run, LingersAfterTheInput) {
    root.addPlugin("puppet");
    for (const char* option : {"--linger=86400", "--keep"}) {
        RunningPuppet puppet(root, {option});
        ASSERT_TRUE(puppet.waitStarted()) << puppet.tool.err();
        puppet.tool.type("{\"last\":1}\n");
        puppet.tool.endInput();
        ASSERT_TRUE(waitUntil([&] { return puppet.client().texts("messages").size() == 1; }));
        puppet.client().raise("{\"late\":1}");
        EXPECT_TRUE(puppet.tool.waitOut("{\"late\":1}\n"));
        puppet.tool.signal(SIGTERM);
        EXPECT_EQ(puppet.tool.waitForExit(), 0) << puppet.tool.err();
    }
}

TEST_F(Run, RefusesABadOptionWith64) {
    const Fixture plugin("Complete");
    const std::vector<std::pair<std::string, std::string>> cases{
        {"--port=1024", "--port"},
        {"--ip=here", "--ip"},
        {"--type=x", "--type"},
        {"--web-port=65536", "--web-port"},
        {"--wait=0", "--wait"},
        {"--linger=-1", "--linger"},
        {"--shutdown-timeout=0", "timeout"},
        {"--log-level=loud", "--log-level"},
        {"--mqtt-url=ftp://x", "--mqtt-url"},
        {"--mqtt-url=tcp://me@x", "--mqtt-url"},
        {"stray", "name one plugin"},
        {"--keep=1", "--keep"},
    };
    for (const auto& [argument, part] : cases) {
        SCOPED_TRACE(argument);
        RunningTool tool(runOf(plugin.path(), {argument}));
        EXPECT_EQ(tool.waitForExit(), 64);
        EXPECT_THAT(tool.err(), AllOf(StartsWith("ketra run: "), HasSubstr(part)));
        EXPECT_TRUE(tool.isTidy());
    }
    RunningTool none({"run"});
    EXPECT_EQ(none.waitForExit(), 64);
    RunningTool both(runOf(plugin.path(), {"--service=/bin/true", "--ip=127.0.0.1"}));
    EXPECT_EQ(both.waitForExit(), 64);
    EXPECT_THAT(both.err(), HasSubstr("--service"));
    EXPECT_TRUE(plugin.calls("complete").empty());
}

TEST_F(Run, HelpNamesEveryOptionAndCode) {
    RunningTool tool({"run", "--help"});
    EXPECT_EQ(tool.waitForExit(), 0);
    for (const char* part :
         {"--service", "--ip", "--port", "--type", "--log-level", "--mqtt-url", "--web-port",
          "--wait", "--linger", "--keep", "--shutdown-timeout", "64", "66", "71", "73"})
        EXPECT_THAT(tool.out(), HasSubstr(part));
}

TEST_F(Run, EndsWith66WithoutPluginOrService) {
    const Fixture plugin("Complete");
    std::ofstream(root.notes() / "data") << "no program";
    const std::vector<std::pair<Words, std::string>> cases{
        {{"run", "/nonexistent/libKetraPlugin.so"}, "/nonexistent/libKetraPlugin.so"},
        {{"run", root.notes()}, "is no file"},
        {{"run", plugin.path(), "--service=/nonexistent/service"}, "/nonexistent/service"},
        {{"run", plugin.path(), "--service=" + (root.notes() / "data").string()}, "chmod +x"},
        {{"run", plugin.path(), "--service=" + root.notes().string()}, "is no file"},
    };
    for (const auto& [words, part] : cases) {
        RunningTool tool(words);
        EXPECT_EQ(tool.waitForExit(), 66);
        EXPECT_THAT(tool.err(), HasSubstr(part));
    }
}

TEST_F(Run, EndsWith73WithoutARoomForTheRoot) {
    const Fixture plugin("Complete");
    RunningTool tool(runOf(plugin.path()));
    tool.endInput();
    EXPECT_EQ(tool.waitForExit(), 0);
    // as above, but for the folder
    ChildProcess lost({"/usr/bin/env", "TMPDIR=/proc", KETRA, "run", plugin.path()},
                      root.notes() / "out");
    const int status = lost.wait();
    EXPECT_EQ(WEXITSTATUS(status), 73);
    EXPECT_THAT(readFile(root.notes() / "out"), HasSubstr("TMPDIR"));
}

// ---- plugins that cannot be used

TEST_F(Run, EndsWith1AndTheReasonForAPluginThatCannotBeUsed) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"Bare", "PluginLoad, PluginUnLoad, PluginType, PluginName, PluginGuid"},
        {"NoLoad", "lacks the entry points PluginLoad;"},
        {"NoUnload", "lacks the entry points PluginUnLoad;"},
        {"EmptyGuid", "PluginGuid(): it answers an empty text"},
        {"NullGuid", "PluginGuid(): it answers null"},
        {"NullName", "PluginName(): it answers null"},
        {"Stranger", "did not register the plugin as 'stranger'"},
        {"Unregisters-load", "unregistered"},
        {"ThrowsStd", "load failed"},
        {"ThrowsPoco", "Data error: load failed"},
        {"ThrowsStd-type", "type failed"},
        {"ThrowsPoco-name", "PluginName(): name failed"},
        {"ThrowsStd-guid", "PluginGuid(): guid failed"},
        {"ThrowsStd-factory", "it threw in the factory: factory failed"},
        {"ThrowsPoco-setEventCallback", "setEventCallback failed"},
        {"ThrowsStd-start", "it threw in start(): start failed"},
    };
    for (const auto& [name, part] : cases) {
        SCOPED_TRACE(name);
        const Fixture plugin(name);
        RunningTool tool(runOf(plugin.path(), {"--log-level=none", "--wait=1", "--keep"}));
        EXPECT_EQ(tool.waitForExit(), 1);
        EXPECT_THAT(tool.err(), AllOf(HasSubstr(part), HasSubstr("ketra check " + plugin.path())));
        EXPECT_TRUE(tool.isTidy());
    }
}

TEST_F(Run, EndsWith1ForAFileThatIsNoLibrary) {
    const auto text = root.notes() / "libKetraPluginText.so";
    std::ofstream(text) << "no library";
    const Fixture plugin("Complete");
    const auto half = root.notes() / "libKetraPluginHalf.so";
    std::filesystem::copy_file(plugin.path(), half);
    std::filesystem::resize_file(half, 8192);
    for (const auto& file : {text, half}) {
        RunningTool tool({"run", file});
        EXPECT_EQ(tool.waitForExit(), 1);
        EXPECT_THAT(tool.err(), AllOf(HasSubstr("cannot be loaded"), HasSubstr("ketra check")));
    }
}

TEST_F(Run, EndsWith1ForAnExceptionOfAnyType) {
    for (const char* where : {"load", "factory", "callback", "start"}) {
        SCOPED_TRACE(where);
        DeviceRoot device;
        device.addPlugin("puppet", std::string(where) + "=throw-int\n");
        RunningPuppet puppet(device);
        EXPECT_EQ(puppet.tool.waitForExit(), 1);
        EXPECT_THAT(puppet.tool.err(), HasSubstr("not derived from std::exception"));
    }
}

TEST_F(Run, TellsWhatOnMessageAndStopThrow) {
    const Fixture receives("ThrowsStd-onMessage");
    RunningTool tool(runOf(receives.path()));
    tool.type("{\"a\":1}\n{\"a\":2}\n");
    tool.endInput();
    EXPECT_EQ(tool.waitForExit(), 1);
    EXPECT_EQ(countOf(tool.err(), "the plugin threw in onMessage(): onMessage failed"), 2);
    EXPECT_EQ(receives.messages("std-onMessage").size(), 2U);

    const Fixture stops("ThrowsPoco-stop");
    RunningTool end(runOf(stops.path()));
    end.endInput();
    EXPECT_EQ(end.waitForExit(), 1);
    EXPECT_THAT(end.err(), HasSubstr("the plugin threw in stop(): Data error: stop failed"));
}

TEST_F(Run, RunsAFileWithAnotherNameButTellsIt) {
    const Fixture plugin("Complete");
    const auto file = root.notes() / "hello.so";
    std::filesystem::copy_file(plugin.path(), file);
    RunningTool tool(runOf(file));
    tool.endInput();
    EXPECT_EQ(tool.waitForExit(), 0) << tool.err();
    EXPECT_THAT(tool.err(), HasSubstr("rename hello.so"));
}

TEST_F(Run, KeepsItsStreamsWhenThePluginClosesThem) {
    root.addPlugin("puppet", "load=close\n");
    RunningPuppet puppet(root);
    ASSERT_TRUE(puppet.waitStarted()) << puppet.tool.err();
    puppet.client().raise(R"({"still":"there"})");
    EXPECT_TRUE(puppet.tool.waitOut("{\"still\":\"there\"}\n"));
    puppet.tool.endInput();
    EXPECT_EQ(puppet.tool.waitForExit(), 0) << puppet.tool.err();
}

// ---- the end

TEST_F(Run, EndsInOrderByASignal) {
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        const Fixture plugin("Complete");
        RunningTool tool(runOf(plugin.path()));
        ASSERT_TRUE(tool.waitErr("complete is started"));
        tool.signal(number);
        EXPECT_EQ(tool.waitForExit(), 0) << tool.err();
        EXPECT_THAT(plugin.calls("complete"), IsSupersetOf({"stop", "~"}));
        EXPECT_TRUE(tool.isTidy());
    }
}

TEST_F(Run, GivesUpAPluginThatHoldsUpTheEnd) {
    root.addPlugin("puppet", "stop=hold\n");
    const std::string service = root.addService("guid=puppet");
    RunningPuppet puppet(
        root, {"--service=" + (root.services() / service).string(), "--shutdown-timeout=4"});
    ASSERT_TRUE(puppet.waitStarted()) << puppet.tool.err();
    puppet.tool.signal(SIGTERM);
    EXPECT_EQ(puppet.tool.waitForExit(), 1);
    EXPECT_THAT(puppet.tool.err(), AllOf(HasSubstr("stop() of the plugin has not ended after 4 s"),
                                         HasSubstr("--shutdown-timeout")));
    EXPECT_TRUE(puppet.tool.isTidy());
    EXPECT_TRUE(processesBelow(root.path()).empty());
}

TEST_F(Run, GivesUpAPluginThatDoesNotStart) {
    for (const auto& [where, part] : std::vector<std::pair<std::string, std::string>>{
             {"load", "loading the plugin has not ended after 1 s"},
             {"factory", "the factory of the plugin did not return within 1 s"},
             {"start", "start() of the plugin did not return within 1 s"}}) {
        SCOPED_TRACE(where);
        DeviceRoot device;
        device.addPlugin("puppet", where + "=hold\n");
        RunningPuppet puppet(device, {"--wait=1", "--shutdown-timeout=1"});
        EXPECT_EQ(puppet.tool.waitForExit(), 1);
        EXPECT_THAT(puppet.tool.err(), AllOf(HasSubstr(part), HasSubstr("--wait")));
        EXPECT_TRUE(puppet.tool.isTidy());
    }
}

TEST_F(Run, WaitsForAMessageThatIsWorkedOnButTellsIt) {
    root.addPlugin("puppet", "message=hold\n");
    RunningPuppet puppet(root);
    ASSERT_TRUE(puppet.waitStarted()) << puppet.tool.err();
    puppet.tool.type("{\"a\":1}\n{\"a\":2}\n");
    puppet.tool.endInput();
    EXPECT_TRUE(puppet.tool.waitErr("onMessage() of the plugin has not returned for 5 s"));
    EXPECT_FALSE(puppet.tool.hasExited());
    root.letGo("puppet", "message");
    EXPECT_EQ(puppet.tool.waitForExit(), 0) << puppet.tool.err();
}

TEST_F(Run, DeliversAnEventThatFoundEveryThreadBusy) {
    root.addPlugin("puppet", "message=hold\n");
    RunningPuppet puppet(root);
    ASSERT_TRUE(puppet.waitStarted()) << puppet.tool.err();
    constexpr int threads = 4;
    for (int i = 0; i < threads; ++i)
        puppet.client().raise(R"({"to":["puppet"]})");
    puppet.tool.type("{\"line\":1}\n");
    puppet.tool.endInput();
    // so the line has been raised
    ASSERT_TRUE(puppet.tool.waitErr("onMessage() of the plugin has not returned for 5 s"));
    root.letGo("puppet", "message");
    EXPECT_EQ(puppet.tool.waitForExit(), 0) << puppet.tool.err();
}

TEST_F(Run, EndsByASignalAlsoWhileAMessageIsWorkedOn) {
    root.addPlugin("puppet", "message=hold\n");
    RunningPuppet puppet(root, {"--shutdown-timeout=1"});
    ASSERT_TRUE(puppet.waitStarted()) << puppet.tool.err();
    puppet.tool.type("{\"a\":1}\n");
    ASSERT_TRUE(waitUntil([&] { return root.isHeld("puppet", "message"); }));
    puppet.tool.signal(SIGINT);
    EXPECT_EQ(puppet.tool.waitForExit(), 1);
    EXPECT_THAT(puppet.tool.err(), HasSubstr("onMessage() of the plugin has not ended"));
}

TEST_F(Run, EndsWith1WhenThePluginCallsExit) {
    for (const char* where : {"load", "start", "message"}) {
        SCOPED_TRACE(where);
        DeviceRoot device;
        device.addPlugin("puppet", std::string(where) + "=exit\n");
        RunningPuppet puppet(device);
        puppet.tool.type("{}\n");
        EXPECT_EQ(puppet.tool.waitForExit(), 1);
        EXPECT_THAT(puppet.tool.err(), HasSubstr("called exit()"));
        EXPECT_TRUE(puppet.tool.isTidy());
    }
}

TEST_F(Run, LeavesNothingBehindWhenThePluginCrashesOrItIsKilled) {
    for (const int number : {SIGABRT, SIGKILL}) {
        DeviceRoot device;
        device.addPlugin("puppet", "message=abort\n");
        const std::string service = device.addService("guid=puppet");
        RunningPuppet puppet(device, {"--service=" + (device.services() / service).string()});
        ASSERT_TRUE(puppet.waitStarted()) << puppet.tool.err();
        EXPECT_FALSE(processesBelow(device.path()).empty());
        if (number == SIGABRT)
            puppet.tool.type("{}\n");
        else
            puppet.tool.signal(SIGKILL);
        EXPECT_EQ(puppet.tool.waitForExit(), 256 + number);
        EXPECT_TRUE(waitUntil([&] { return processesBelow(device.path()).empty(); }));
        EXPECT_TRUE(waitUntil([&] { return puppet.tool.isTidy(); }));
    }
}

TEST_F(Run, EndsWhenNobodyReadsItsOutput) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    const Fixture plugin("Floods");
    RunningTool tool(runOf(plugin.path(), {"--keep", "--log-level=none"}),
                     "fd:" + std::to_string(ends[1]));
    close(ends[1]);
    char byte = 0;
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
    EXPECT_FALSE(tool.hasExited());
    close(ends[0]);
    EXPECT_EQ(tool.waitForExit(), 0) << tool.err();
    EXPECT_THAT(plugin.calls("floods"), testing::Contains("stop"));
}

TEST_F(Run, EndsWith71WhenItsOutputCannotBeWritten) {
    const Fixture plugin("Raises");
    RunningTool tool(runOf(plugin.path(), {"--keep"}), "/dev/full");
    EXPECT_EQ(tool.waitForExit(), 71);
    EXPECT_THAT(tool.err(), HasSubstr("No space left"));
}

TEST_F(Run, EndsByASignalAlsoWhenItsReaderIsStuck) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    const Fixture plugin("Floods");
    RunningTool tool(runOf(plugin.path(), {"--keep", "--log-level=none"}),
                     "fd:" + std::to_string(ends[1]));
    // full: another page does not fit
    pollfd room{ends[1], POLLOUT, 0};
    EXPECT_TRUE(waitUntil([&] { return poll(&room, 1, 0) == 0; }, std::chrono::seconds(30)));
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.waitForExit(), 71);
    EXPECT_THAT(tool.err(), HasSubstr("its reader does not take them"));
    close(ends[0]);
    close(ends[1]);
}

// ---- services

TEST_F(Run, RunsAServiceThatReportsByItself) {
    root.addPlugin("puppet");
    const std::string service = root.addService("guid=puppet\nport=23457\nexit=3\noutput=1000");
    RunningPuppet puppet(root, {"--service=" + (root.services() / service).string()});
    ASSERT_TRUE(puppet.waitStarted()) << puppet.tool.err();
    EXPECT_EQ(puppet.client().state()->getValue<int>("port"), 23457);
    // it is started again by the supervisor, for it ended once
    ASSERT_EQ(root.startsOf(service).size(), 2U);
    EXPECT_EQ(root.startsOf(service).back().arguments, std::to_string(puppet.port()));
    EXPECT_EQ(puppet.tool.out(), "") << "the service's output";
    EXPECT_THAT(puppet.tool.err(), HasSubstr(service + " has a lot to say"));
    puppet.tool.endInput();
    EXPECT_EQ(puppet.tool.waitForExit(), 0) << puppet.tool.err();
    EXPECT_TRUE(processesBelow(root.path()).empty());
}

TEST_F(Run, RunsAScriptThatReportsWithTheTool) {
    root.addPlugin("puppet");
    const auto script = root.notes() / "service";
    std::ofstream(script) << "#!/bin/sh\nexec " KETRA " report --host-port \"$1\" --guid puppet "
                             "--port 23458 --every 600\n";
    std::filesystem::permissions(script, std::filesystem::perms::owner_all);
    RunningPuppet puppet(root, {"--service=" + script.string()});
    ASSERT_TRUE(puppet.waitStarted()) << puppet.tool.err();
    EXPECT_EQ(puppet.client().state()->getValue<int>("port"), 23458);
    puppet.tool.endInput();
    EXPECT_EQ(puppet.tool.waitForExit(), 0) << puppet.tool.err();
}

TEST_F(Run, EndsWith1IfTheServiceDoesNotReport) {
    root.addPlugin("puppet");
    const std::string service = root.addService("guid=another");
    RunningPuppet puppet(root, {"--wait=1", "--service=" + (root.services() / service).string()});
    EXPECT_EQ(puppet.tool.waitForExit(), 1);
    EXPECT_THAT(puppet.tool.err(),
                AllOf(HasSubstr(service + " did not report puppet"), HasSubstr("ketra report")));
    EXPECT_TRUE(processesBelow(root.path()).empty());
}

TEST_F(Run, LeavesAnotherRunAlone) {
    root.addPlugin("puppet");
    const std::string service = root.addService("guid=puppet");
    const Words options{"--service=" + (root.services() / service).string()};
    RunningPuppet first(root, options);
    ASSERT_TRUE(first.waitStarted()) << first.tool.err();
    {
        RunningPuppet second(root, options);
        ASSERT_TRUE(second.waitStarted()) << second.tool.err();
        EXPECT_NE(first.port(), second.port());
        EXPECT_EQ(processesBelow(root.path()).size(), 2U);
        second.client().raise("{\"second\":1}");
        second.tool.endInput();
        EXPECT_EQ(second.tool.waitForExit(), 0) << second.tool.err();
        EXPECT_EQ(second.tool.out(), "{\"second\":1}\n");
    }
    EXPECT_EQ(processesBelow(root.path()).size(), 1U);
    EXPECT_EQ(root.startsOf(service).size(), 2U) << "the first was not touched";
    EXPECT_TRUE(first.client().isStarted());
    first.tool.endInput();
    EXPECT_EQ(first.tool.waitForExit(), 0) << first.tool.err();
    EXPECT_EQ(first.tool.out(), "");
}

} // namespace
} // namespace ktr::test
