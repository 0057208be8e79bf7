#include "HostInProcess.h"
#include "Probe.h"
#include "probe/Layout.h"
#include "support/LogCapture.h"
#include "support/WaitUntil.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <dlfcn.h>

namespace ktr::test {
namespace {

using testing::ElementsAre;
using testing::StartsWith;

/// Library and plugin as the environment names them, or else those of this program's own build.
std::string fileOf(const char* variable, const char* otherwise) {
    const char* const named = std::getenv(variable); // NOLINT(concurrency-mt-unsafe): never set
    return named != nullptr ? named : otherwise;
}

std::string pluginFile() {
    return fileOf("KETRA_TEST_PLUGIN", KETRA_PROBE);
}

TEST(MixedCompilersTest, TheLibraryIsTheOneThatWasNamed) {
    Dl_info info{};
    ASSERT_NE(dladdr(dlsym(RTLD_DEFAULT, "_ZN3ktr13PluginLoadAllEv"), &info), 0);
    EXPECT_TRUE(
        std::filesystem::equivalent(info.dli_fname, fileOf("KETRA_TEST_LIBRARY", KETRA_LIBRARY)))
        << info.dli_fname;
}

TEST(MixedCompilersTest, BothSidesLayTheClassesOutAlike) {
    EXPECT_EQ(Probe(pluginFile()).layout(), layoutText());
}

TEST(MixedCompilersTest, APluginLivesItsWholeLife) {
    const LogCapture log;
    std::vector<std::string> reports;
    NotificationCenter::defaultCenter().addObserver<MSNotification>(
        "test", [&reports](MSNotification* report) {
            reports.push_back(report->name() + " " + report->getRpcIp() + " " +
                              std::to_string(report->getRpcPort()) + " " + report->getMSGuid() +
                              " " + std::to_string(report->getMsType()));
        });
    auto host = std::make_unique<HostInProcess>(pluginFile());
    const Probe probe(host->pluginFile());
    EXPECT_THAT(probe.takeNotes(), ElementsAre("PluginLoad"));

    EXPECT_EQ(HostInProcess::report("ketra-probe", "192.0.2.3", "41000"),
              R"({"code":0,"msg":"success"})");
    EXPECT_THAT(reports, ElementsAre("MSNotification 192.0.2.3 41000 ketra-probe 7"));
    const Poco::SharedPtr<MSProperty> address = MSManager::instance().getMSProperty("ketra-probe");
    ASSERT_TRUE(address);
    EXPECT_EQ(address->ip, "192.0.2.3");
    EXPECT_EQ(address->port, 41'000);
    EXPECT_THAT(probe.takeNotes(),
                ElementsAre("setEventCallback", "start 192.0.2.3 41000 webApi mqttClient"));

    std::string event = R"({"to":["ketra-probe"],"text":"raise, then throw"})";
    publishMsgToAllPlugin(event);
    // one event leads to another, and an exception of the plugin's is caught in the library
    std::vector<std::string> notes;
    EXPECT_TRUE(waitUntil([&] {
        for (std::string& line : probe.takeNotes())
            notes.push_back(std::move(line));
        return notes.size() == 2;
    }));
    EXPECT_THAT(notes, ElementsAre("onMessage " + event, R"(onMessage {"to":["ketra-probe"]})"));
    const auto errors = [&log] { return log.texts(Poco::Message::PRIO_ERROR); };
    EXPECT_TRUE(waitUntil([&] { return !errors().empty(); }));
    EXPECT_THAT(errors(),
                ElementsAre(StartsWith("exception in event callback, error: probe throws")));

    _loop_thread_get_cpu_temp_run = true;
    _loop_thread_get_cpu_temp = std::thread([] {
        while (_loop_thread_get_cpu_temp_run)
            getCpuTemperature();
    });
    host.reset();
    EXPECT_FALSE(_loop_thread_get_cpu_temp.joinable());
    EXPECT_THAT(probe.takeNotes(), ElementsAre("stop", "destroyed"));
    NotificationCenter::defaultCenter().removeObserver("test");
}

} // namespace
} // namespace ktr::test
