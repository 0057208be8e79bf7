#include "support/ChildProcess.h"
#include "support/HostProcess.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <sys/wait.h>

namespace ktr {
namespace {

namespace fs = std::filesystem;

/// Runs a command with its output in `folder`; returns the exit code.
int run(const std::vector<std::string>& command, const fs::path& folder) {
    return WEXITSTATUS(test::ChildProcess(command, folder / "out").wait());
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
