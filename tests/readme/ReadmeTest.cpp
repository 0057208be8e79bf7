#include "support/HostProcess.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace ktr {
namespace {

namespace fs = std::filesystem;

TEST(Readme, ItsPluginStartsWhenItsServiceReports) {
    test::DeviceRoot root;
    test::install(KETRA_README_PLUGIN, root.plugins() / "libKetraPluginHello.so");
    // a name that nothing else on the machine bears
    const fs::path service = root.services() / root.addService();
    fs::remove(service);
    fs::copy_file(KETRA_README_SERVICE, service);
    fs::permissions(service, fs::perms::owner_all);

    test::HostProcess host(root);
    ASSERT_TRUE(host.waitReady()) << host.err();
    EXPECT_TRUE(host.waitLogged("plugin name: hello")) << host.err();
    EXPECT_TRUE(host.waitLogged("started plugin, guid: 0c2f6b9e-5d0a-4c55-9f6b-3f1f0d3c7a11"))
        << host.err();
    EXPECT_TRUE(host.waitLogged("edge reportServerStarted")) << host.err();
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitForExit(), 0) << host.err();
}

} // namespace
} // namespace ktr
