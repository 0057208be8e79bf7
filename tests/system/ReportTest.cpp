#include "support/FreePort.h"
#include "support/HostProcess.h"
#include "support/HttpPeer.h"
#include "support/PuppetClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

namespace ktr::test {
namespace {

using testing::HasSubstr;

class ReportTest : public testing::Test {
protected:
    /// Kills a host once plugin `guid` has started, and returns what is left of `service`.
    pid_t leaveBehind(const std::string& service, const std::string& guid) const {
        HostProcess killed(root, onFixedPort);
        EXPECT_TRUE(killed.waitReady()) << killed.err();
        EXPECT_TRUE(killed.waitLogged("started plugin, guid: " + guid)) << killed.err();
        killed.signal(SIGKILL);
        killed.waitForExit();
        const auto starts = root.startsOf(service);
        return starts.empty() ? 0 : starts.back().pid;
    }

    /// From its next start on the service does this, too.
    void change(const std::string& service, const std::string& conf) const {
        std::ofstream(root.services() / (service + ".conf"), std::ios::app) << conf << "\n";
    }

    DeviceRoot root;
    /// For hosts that come one after the other.
    const unsigned short fixedPort = freePort();
    const std::vector<std::string> onFixedPort{"--port=" + std::to_string(fixedPort)};
};

TEST_F(ReportTest, AServicesReportStartsItsPluginAndTellsTheWebHookOnce) {
    const HttpPeer hook;
    root.addPlugin("thermo");
    const std::string service = root.addService("guid=thermo\nport=41234");
    HostProcess host(root, {"--webhook-url=" + hook.url()});
    ASSERT_TRUE(host.waitReady()) << host.err();

    const PuppetClient plugin(host.port(), "thermo");
    ASSERT_TRUE(plugin.waitStarted()) << host.err();
    EXPECT_EQ(plugin.state()->getValue<std::string>("ip"), "127.0.0.1");
    EXPECT_EQ(plugin.state()->getValue<int>("port"), 41234);
    EXPECT_FALSE(plugin.state()->getValue<bool>("mqttConnected"));
    EXPECT_TRUE(waitUntil(
        [&] { return root.note(service, "answers") == "{\"code\":0,\"msg\":\"success\"}\n"; }));
    EXPECT_TRUE(host.waitLogged("edge reportServerStarted"));
    ASSERT_TRUE(waitUntil([&] { return hook.count() > 0; }));
    EXPECT_THAT(hook.posts().front().body, HasSubstr("\"serverStarted\""));

    // a further report starts the plugin anew, but the host has started already
    EXPECT_EQ(plugin.report(41235).body, "{\"code\":0,\"msg\":\"success\"}");
    EXPECT_TRUE(host.waitLogged("started plugin, guid: thermo", 2));
    ASSERT_TRUE(plugin.waitStarted());
    EXPECT_EQ(plugin.state()->getValue<int>("port"), 41235);
    EXPECT_EQ(plugin.state()->getValue<int>("stops"), 1);

    host.signal(SIGTERM);
    EXPECT_EQ(host.waitForExit(), 0) << host.err();
    EXPECT_EQ(hook.count(), 1U);
    EXPECT_EQ(countOf(host.err(), "edge reportServerStarted"), 1);
}

TEST_F(ReportTest, TheWebHookIsToldOnlyAfterTheLastPluginHasStarted) {
    const HttpPeer hook;
    root.addPlugin("first");
    root.addPlugin("second");
    HostProcess host(root, {"--webhook-url=" + hook.url()});
    ASSERT_TRUE(host.waitReady()) << host.err();
    PuppetClient(host.port(), "first").report(41000);
    ASSERT_TRUE(host.waitLogged("started plugin, guid: first"));
    EXPECT_EQ(countOf(host.err(), "edge reportServerStarted"), 0);
    PuppetClient(host.port(), "second").report(41001);
    EXPECT_TRUE(host.waitLogged("edge reportServerStarted"));
    EXPECT_TRUE(waitUntil([&] { return hook.count() == 1; }));
}

// Whoever knows the port may report while the host still loads.
TEST_F(ReportTest, AnEarlyReportWaitsUntilThereIsSomebodyToActUponIt) {
    root.addPlugin("early");
    root.addPlugin("slow", "load=hold\n");
    const unsigned short port = freePort();
    HostProcess host(root, {"--port=" + std::to_string(port)});
    ASSERT_TRUE(waitUntil([&] { return root.isHeld("slow", "load"); })) << host.err();

    const PuppetClient plugin(port, "early");
    auto answer = std::async(std::launch::async, [&] { return plugin.report(41002); });
    EXPECT_EQ(answer.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout);
    EXPECT_EQ(host.out(), "");
    root.letGo("slow", "load");

    EXPECT_EQ(answer.get().body, "{\"code\":0,\"msg\":\"success\"}");
    EXPECT_TRUE(plugin.waitStarted()) << host.err();
    EXPECT_EQ(plugin.state()->getValue<int>("port"), 41002);
}

TEST_F(ReportTest, AServiceThatReportsAnotherPortHasItsPluginStartedAnewWithThat) {
    root.addPlugin("mover");
    const std::string service = root.addService("guid=mover\nport=41010\nthen-port=41011");
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    const PuppetClient plugin(host.port(), "mover");
    ASSERT_TRUE(plugin.waitStarted()) << host.err();
    EXPECT_EQ(plugin.state()->getValue<int>("port"), 41010);

    std::ofstream(root.notes() / (service + ".go")) << "go\n";
    ASSERT_TRUE(host.waitLogged("started plugin, guid: mover", 2)) << host.err();
    ASSERT_TRUE(plugin.waitStarted());
    EXPECT_EQ(plugin.state()->getValue<int>("port"), 41011);
    EXPECT_EQ(plugin.state()->getValue<int>("stops"), 1);
    EXPECT_TRUE(waitUntil([&] {
        return countOf(root.note(service, "answers"), "{\"code\":0,\"msg\":\"success\"}\n") == 2;
    }));
    for (const char* port : {"41010", "41011"})
        EXPECT_EQ(countOf(host.err(), std::string(" Information report recieved: "
                                                  "/index/api/all/report?ip=127.0.0.1&port=") +
                                          port + "&type=7&guid=mover\n"),
                  1);
    EXPECT_EQ(root.startsOf(service).size(), 1U);
}

struct BadPort {
    std::string text;
    std::string answer;
    std::string logged;
};

void PrintTo(const BadPort& port, std::ostream* out) {
    *out << port.text;
}

class BadPortTest : public ReportTest, public testing::WithParamInterface<BadPort> {};

TEST_P(BadPortTest, StartsNothingAndHarmsNobodyElse) {
    const BadPort& port = GetParam();
    root.addPlugin("bad");
    root.addPlugin("good");
    const std::string bad = root.addService("guid=bad\nport=" + port.text);
    const std::string good = root.addService("guid=good\nport=41021");
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    EXPECT_TRUE(host.waitLogged(" Error " + port.logged + "\n")) << host.err();
    EXPECT_TRUE(PuppetClient(host.port(), "good").waitStarted()) << host.err();
    EXPECT_TRUE(waitUntil([&] { return root.note(bad, "answers") == port.answer + "\n"; }))
        << root.note(bad, "answers");

    host.signal(SIGTERM);
    EXPECT_EQ(host.waitForExit(), 0) << host.err();
    EXPECT_EQ(countOf(host.err(), " Error "), 1) << host.err();
    EXPECT_EQ(countOf(host.err(), "starting plugin, guid: bad"), 0);
    EXPECT_EQ(countOf(host.err(), "exited, code:"), 0);
}

const std::string kRefused = R"({"code":-1,"msg":"port number invalid"})";
const std::string kAccepted = R"({"code":0,"msg":"success"})";

INSTANTIATE_TEST_SUITE_P(Each, BadPortTest,
                         testing::Values(BadPort{"70000", kRefused, "port number invalid: 70000"},
                                         BadPort{"abc", kRefused, "port number invalid: abc"},
                                         // a number, but none that a service may serve at
                                         BadPort{"1024", kAccepted,
                                                 "report recieved port invalid: 1024"}),
                         [](const auto& tested) { return "Port" + tested.param.text; });

// A service that outlived an earlier host goes on reporting to this one, as soon as it listens.
TEST_F(ReportTest, ALeftoverThatReportsIsGoneBeforePluginsLoadAndOthersWaitUntilTheyHave) {
    root.addPlugin("early");
    root.addPlugin("slow");
    const std::string service = root.addService("guid=early\nport=41030\nrepeat=yes");
    const pid_t leftover = leaveBehind(service, "early");
    ASSERT_TRUE(isAlive(leftover));
    change(service, "repeat=no\nport=41031");
    std::ofstream(root.plugins() / "slow.conf") << "load=hold\n";

    HostProcess host(root, onFixedPort);
    // as long as a host may take to be ready
    ASSERT_TRUE(waitUntil([&] { return root.isHeld("slow", "load"); }, std::chrono::seconds(30)))
        << host.err();
    EXPECT_FALSE(isAlive(leftover));
    const std::string ended = "ended what was running as '" + service + "', 1 in all";
    EXPECT_LT(host.err().find(ended), host.err().find("plugin name:")) << host.err();
    const PuppetClient slow(fixedPort, "slow");
    auto answer = std::async(std::launch::async, [&] { return slow.report(41032); });
    EXPECT_EQ(answer.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout);
    EXPECT_EQ(countOf(host.err(), "report recieved"), 0);
    root.letGo("slow", "load");

    EXPECT_EQ(answer.get().body, kAccepted);
    for (const char* guid : {"early", "slow"})
        EXPECT_TRUE(host.waitLogged(std::string("started plugin, guid: ") + guid)) << host.err();
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitForExit(), 0) << host.err();
    EXPECT_EQ(countOf(host.err(), "report recieved"), 2) << host.err();
    EXPECT_EQ(countOf(host.err(), "port=41030"), 0) << host.err();
}

// Two reports for one guid at once, of which one has an address at which nobody listens any more,
// would start the plugin twice at the same time.
TEST_F(ReportTest, WhatALeftoverReportsWhileItIsEndedIsNeverHandled) {
    root.addPlugin("early");
    const std::string service = root.addService("guid=early\nport=41040\nlast-word=yes");
    const pid_t leftover = leaveBehind(service, "early");
    ASSERT_TRUE(isAlive(leftover));
    change(service, "last-word=no\nport=41041");

    HostProcess host(root, onFixedPort);
    ASSERT_TRUE(host.waitReady()) << host.err();
    EXPECT_FALSE(isAlive(leftover));
    const PuppetClient plugin(fixedPort, "early");
    ASSERT_TRUE(plugin.waitStarted()) << host.err();
    EXPECT_EQ(plugin.state()->getValue<int>("port"), 41041);
    EXPECT_EQ(countOf(host.err(), "closed unread what had connected before the leftovers were "
                                  "ended, 1 in all"),
              1)
        << host.err();
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitForExit(), 0) << host.err();
    EXPECT_EQ(countOf(host.err(), "report recieved"), 1) << host.err();
    EXPECT_EQ(countOf(host.err(), "starting plugin, guid: early"), 1) << host.err();
}

TEST_F(ReportTest, AGuidWithALineBreakForgesNoLineOfTheLog) {
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    EXPECT_EQ(
        httpPost(
            host.port(), "/index/api/all/report",
            {{"ip", "127.0.0.1"}, {"port", "41005"}, {"type", "1"}, {"guid", "g\nforged line"}})
            .status,
        200);
    EXPECT_TRUE(host.waitLogged("guid: g?forged line,")) << host.err();
    EXPECT_EQ(countOf(host.err(), "\nforged"), 0) << host.err();
}

TEST_F(ReportTest, APluginThatThrowsCostsItselfOnly) {
    root.addPlugin("bad-load", "load=throw\n");
    root.addPlugin("bad-start", "start=throw\n");
    root.addPlugin("good");
    HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    EXPECT_THAT(host.err(), HasSubstr("puppet bad-load throws in load"));
    PuppetClient(host.port(), "bad-start").report(41003);
    EXPECT_TRUE(host.waitLogged("puppet bad-start throws in start"));
    const PuppetClient good(host.port(), "good");
    good.report(41004);
    EXPECT_TRUE(good.waitStarted());
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitForExit(), 0) << host.err();
}

TEST_F(ReportTest, APluginThatThrowsWhatNobodyCatchesEndsTheStartUpWith70) {
    root.addPlugin("worst", "load=throw-int\n");
    HostProcess host(root);
    EXPECT_EQ(host.waitForExit(), 70);
    EXPECT_THAT(host.err(), HasSubstr("\nketra-host: start-up failed at step 'load plugins'"));
    EXPECT_EQ(host.out(), "");
}

} // namespace
} // namespace ktr::test
