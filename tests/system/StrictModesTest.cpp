#include "support/HostProcess.h"
#include "support/PuppetClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

namespace ktr::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

/// A host on a root with one plugin and one service, of which a test lets others write something.
class UnsafeTreeTest : public testing::Test {
protected:
    UnsafeTreeTest() {
        root.addPlugin("puppet");
        service = root.addService();
    }

    fs::path plugin() const { return root.plugins() / "libKetraPluginPuppet-puppet.so"; }

    static void letOthersWrite(const fs::path& path) {
        fs::permissions(path, fs::perms::others_write, fs::perm_options::add);
    }

    void startHost(const std::vector<std::string>& options = {}) {
        host.emplace(root, options);
        ASSERT_TRUE(host->waitReady()) << host->err();
    }

    std::string loadedLine() const { return "plugin '" + plugin().string() + "' loaded"; }
    bool isLoaded() const { return countOf(host->err(), loadedLine()) == 1; }
    bool isLaunched(std::size_t times = 1) const {
        return waitUntil([&] { return root.startsOf(service).size() == times; },
                         std::chrono::seconds(20));
    }
    int reportStatus() const { return PuppetClient(host->port(), "puppet").report(41000).status; }

    void expectOrderlyEnd() {
        host->signal(SIGTERM);
        EXPECT_EQ(host->waitForExit(), 0) << host->err();
        EXPECT_TRUE(processesBelow(root.path()).empty());
    }

    /// Runs what the host says that it mends things with.
    void mendAsTold() const {
        const std::string mark = "; mend it with: ";
        for (const std::string& line : readLines(host->directory() / "err")) {
            const auto at = line.find(mark);
            if (at != std::string::npos) {
                EXPECT_EQ(std::system(line.substr(at + mark.size()).c_str()), 0) << line;
            }
        }
    }

    DeviceRoot root;
    std::string service;
    std::optional<HostProcess> host;
};

TEST_F(UnsafeTreeTest, OfPluginsIsNotLoadedWhileServicesRun) {
    letOthersWrite(plugin());
    startHost();
    EXPECT_TRUE(
        host->waitLogged("Error " + plugin().string() + " can be written by everybody (mode "));
    EXPECT_TRUE(host->waitLogged("; mend it with: chmod go-w " + plugin().string() + "\n"));
    EXPECT_TRUE(host->waitLogged("Error plugins/ is not loaded, "));
    EXPECT_THAT(host->err(), Not(HasSubstr("microservices/ is not started")));
    EXPECT_TRUE(isLaunched());
    EXPECT_EQ(reportStatus(), 200);
    EXPECT_FALSE(isLoaded());
    EXPECT_THAT(host->err(), Not(HasSubstr("load plugin count")));
    expectOrderlyEnd();
}

// Others could have given a service's name to a file, and have the host end whatever bears it.
TEST_F(UnsafeTreeTest, OfServicesNamesNobodyToBeEnded) {
    startHost();
    ASSERT_TRUE(isLaunched());
    host->signal(SIGKILL);
    host->waitForExit();
    const pid_t leftover = root.startsOf(service).front().pid;
    letOthersWrite(root.services() / service);
    startHost();
    EXPECT_TRUE(host->waitLogged("Error microservices/ is not started, nor a report taken, "));
    EXPECT_TRUE(isAlive(leftover));
    EXPECT_THAT(host->err(), Not(HasSubstr("ended what was running as")));
}

TEST_F(UnsafeTreeTest, OfServicesIsNotStartedWhilePluginsAreLoaded) {
    letOthersWrite(root.services());
    startHost();
    EXPECT_TRUE(host->waitLogged("Error microservices/ is not started, nor a report taken, "));
    EXPECT_THAT(host->err(), Not(HasSubstr("plugins/ is not loaded")));
    EXPECT_TRUE(isLoaded());
    EXPECT_EQ(reportStatus(), 404);
    expectOrderlyEnd();
    EXPECT_TRUE(root.startsOf(service).empty());
}

TEST_F(UnsafeTreeTest, IsBothForAnUnsafeRootWhichIsToldOnce) {
    letOthersWrite(root.path());
    startHost();
    EXPECT_EQ(countOf(host->err(), "mend it with"), 1);
    EXPECT_EQ(countOf(host->err(), " Error "), 3) << host->err();
    EXPECT_FALSE(isLoaded());
    expectOrderlyEnd();
    EXPECT_TRUE(root.startsOf(service).empty());
}

TEST_F(UnsafeTreeTest, IsUsedWithWarningsWithoutStrictModes) {
    letOthersWrite(plugin());
    letOthersWrite(root.services() / service);
    const std::string config = root.notes() / "host.properties";
    std::ofstream(config) << "no.strict.modes = true\n";
    std::size_t starts = 0;
    for (const std::string& option : {std::string("--no-strict-modes"), "--config=" + config}) {
        SCOPED_TRACE(option);
        startHost({option});
        EXPECT_EQ(countOf(host->err(), " Warning " + plugin().string() + " can be written by "), 1);
        EXPECT_EQ(countOf(host->err(), "mend it with"), 2) << host->err();
        EXPECT_THAT(host->err(), Not(HasSubstr(" Error ")));
        EXPECT_TRUE(isLoaded());
        EXPECT_TRUE(isLaunched(++starts));
        expectOrderlyEnd();
    }
    std::ofstream(config) << "no.strict.modes = false\n";
    startHost({"--config=" + config});
    EXPECT_FALSE(isLoaded());
}

TEST_F(UnsafeTreeTest, IsMendedByTheCommandsThatTheHostPrints) {
    for (const std::string name : {"it's", "two\nlines", "$HOME"})
        std::ofstream(root.services() / name) << "data";
    for (const auto& entry : fs::directory_iterator(root.services()))
        letOthersWrite(entry);
    letOthersWrite(root.path());
    letOthersWrite(root.plugins());
    startHost();
    EXPECT_TRUE(host->waitLogged("microservices/ is not started"));
    expectOrderlyEnd();
    mendAsTold();
    startHost();
    EXPECT_THAT(host->err(), Not(HasSubstr("mend it with")));
    EXPECT_TRUE(isLoaded());
    EXPECT_TRUE(isLaunched());
    expectOrderlyEnd();
}

TEST_F(UnsafeTreeTest, IsToldOnStandardErrorWhereverTheLogGoes) {
    letOthersWrite(plugin());
    const std::string log = root.notes() / "host.log";
    startHost({"--log-file=" + log});
    for (const std::string& part :
         {"mend it with: chmod go-w " + plugin().string() + "\n", std::string("plugins/ is not")}) {
        EXPECT_EQ(countOf(readFile(log), part), 1) << part;
        EXPECT_EQ(countOf(host->err(), part), 1) << part;
    }
    EXPECT_EQ(countOf(host->err(), "ketra-host: "), 2) << host->err();
    expectOrderlyEnd();
    startHost({"--log-level=none"});
    EXPECT_EQ(countOf(host->err(), "ketra-host: "), 2) << host->err();
}

TEST_F(UnsafeTreeTest, IsFoundBelowARelativeRoot) {
    letOthersWrite(plugin());
    // the host runs in a temporary folder beside the root's
    host.emplace(std::vector<std::string>{
        "--port=0", "--root=../" + fs::relative(root.path(), root.path() / "../..").string()});
    ASSERT_TRUE(host->waitReady()) << host->err();
    EXPECT_TRUE(host->waitLogged("mend it with: chmod go-w " + plugin().string() + "\n"));
    EXPECT_FALSE(isLoaded());
}

} // namespace
} // namespace ktr::test
