#include "support/HostProcess.h"
#include "support/HttpClient.h"
#include "support/Ipv6.h"

#include <gtest/gtest.h>

namespace ktr::test {
namespace {

class AccessTest : public testing::Test {
protected:
    DeviceRoot root;
};

TEST_F(AccessTest, ServesOnEveryAddressOfBothFamilies) {
    if (!hasIpv6())
        GTEST_SKIP() << "this machine has no IPv6";
    HostProcess host(root, {"--bind=::"});
    ASSERT_TRUE(host.waitReady()) << host.err();
    EXPECT_EQ(httpPost(host.port(), "/index/api/all/report").status, 200);
}

} // namespace
} // namespace ktr::test
