#include "ktr/PluginBase.h"
#include "ktr/TestKit.h"

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>

namespace ktr {

// The program's own comes first, as that of a library would which is linked before the test kit.
KTR_API void registerPlugin(std::function<std::shared_ptr<PluginBase>()>, const char*) {}

namespace test {
namespace {

TEST(TestKit, IsRefusedIfPluginsWouldNotFindTheKit) {
    std::string failure;
    try {
        const ktr::TestKit kit(KETRA_FIXTURE_PLUGINS "/libKetraPluginFixtureComplete.so", {});
    } catch (const std::runtime_error& e) {
        failure = e.what();
    }
    EXPECT_THAT(failure, testing::HasSubstr("link libKetraTestKit.so before libKetraPlugins.so"));
}

} // namespace
} // namespace test
} // namespace ktr
