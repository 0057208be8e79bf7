#pragma once

#include "support/HostProcess.h"
#include "support/PuppetClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace ktr::test {

/// A host with fixture plugins (tests/fixtures/plugins) beside puppets.
class PluginHostTest : public testing::Test {
protected:
    static std::filesystem::path fixture(const std::string& name) {
        return KETRA_FIXTURE_PLUGINS "/libKetraPluginFixture" + name + ".so";
    }

    /// Where addFixture puts it.
    std::string pathOf(const std::string& name) const {
        return root.plugins() / fixture(name).filename();
    }

    void addFixture(const std::string& name) const { install(fixture(name), pathOf(name)); }

    void startHost(const std::vector<std::string>& options = {}) {
        host.emplace(root, options);
        ASSERT_TRUE(host->waitReady()) << host->err();
    }

    PuppetClient plugin(const std::string& guid) const { return {host->port(), guid}; }

    /// Has a puppet started, or started anew.
    void startPuppet(const std::string& guid) const {
        const std::string line = " started plugin, guid: " + guid + "\n";
        const int before = countOf(host->err(), line);
        plugin(guid).report(41000);
        ASSERT_TRUE(host->waitLogged(line, before + 1)) << host->err();
    }

    /// What a puppet received, once it is `count` events or more.
    std::vector<std::string> waitMessages(const std::string& guid, std::size_t count) const {
        waitUntil([&] { return plugin(guid).texts("messages").size() >= count; },
                  std::chrono::seconds(20));
        return plugin(guid).texts("messages");
    }

    /// Shows that events and starts still work.
    void expectAtWork(const std::string& puppet) const {
        startPuppet(puppet);
        const std::size_t before = plugin(puppet).texts("messages").size();
        const std::string event = R"({"to":[")" + puppet + R"("],"are you":"there"})";
        plugin(puppet).raise(event);
        const auto messages = waitMessages(puppet, before + 1);
        ASSERT_FALSE(messages.empty());
        EXPECT_EQ(messages.back(), event);
    }

    /// What was called of the fixture with this guid, once `last` was, `times` times.
    std::vector<std::string> waitCalls(const std::string& guid, const std::string& last,
                                       std::ptrdiff_t times = 1) const {
        waitUntil(
            [&] {
                const auto all = calls(guid);
                return std::count(all.begin(), all.end(), last) >= times;
            },
            std::chrono::seconds(20));
        return calls(guid);
    }

    std::vector<std::string> calls(const std::string& guid) const {
        return readLines(root.plugins() / (guid + ".calls"));
    }

    /// The texts that the host logged at `priority`, oldest first; but for the one that says that
    /// there are no services, which is so in all these tests.
    std::vector<std::string> logged(const std::string& priority) const {
        std::vector<std::string> texts;
        std::istringstream in(host->err());
        std::string time;
        std::string level;
        for (std::string line; in >> time >> level && std::getline(in, line);)
            if (level == priority && line != " microservice empty...")
                texts.push_back(line.substr(1));
        return texts;
    }

    void expectOrderlyEnd() {
        host->signal(SIGTERM);
        EXPECT_EQ(host->waitForExit(), 0) << host->err();
        EXPECT_TRUE(processesBelow(root.path()).empty());
    }

    DeviceRoot root;
    std::optional<HostProcess> host;
};

/// What the fixture with this guid is called when it is loaded.
inline std::vector<std::string> callsOfLoading() {
    return {"PluginType", "PluginName", "PluginGuid", "PluginLoad"};
}

} // namespace ktr::test
