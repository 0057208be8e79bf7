#include "ktr/common/Logger.h"

#include <gtest/gtest.h>

namespace ktr {
namespace {

TEST(Logger, IsTheSameForAll) {
    EXPECT_EQ(&cachedLogger(), &cachedLogger());
    EXPECT_EQ(cachedLogger().name(), "ketra");
}

TEST(Logger, WritesToStandardErrorAtInformationWithoutAHost) {
    testing::internal::CaptureStderr();
    cachedLogger().information("told to the operator");
    cachedLogger().debug("too much detail");
    const std::string written = testing::internal::GetCapturedStderr();
    EXPECT_NE(written.find("told to the operator"), std::string::npos);
    EXPECT_EQ(written.find("too much detail"), std::string::npos);
}

struct LogsWhenDestroyed {
    ~LogsWhenDestroyed() { cachedLogger().error("said by a static destructor"); }
};

// Made before the logger's first use, so it ends after everything that the logger registered.
TEST(LoggerDeathTest, IsUsableUntilTheEndOfTheProcess) {
    EXPECT_EXIT(
        {
            static const LogsWhenDestroyed atExit;
            Poco::Logger::shutdown();
            std::exit(0);
        },
        testing::ExitedWithCode(0), "said by a static destructor");
}

} // namespace
} // namespace ktr
