#include "../../../src/host/Leftovers.h"

#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

namespace ktr::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

/// In a current directory of its own.
class LeftoversTest : public testing::Test {
protected:
    LeftoversTest() { std::filesystem::current_path(folder.path()); }
    ~LeftoversTest() override { std::filesystem::current_path(former); }

    const std::filesystem::path former = std::filesystem::current_path();
    const test::TempDir folder;
    const test::LogCapture log;
};

TEST_F(LeftoversTest, saysNothingWhereThereAreNoServices) {
    endLeftovers();
    EXPECT_THAT(log.messages(), IsEmpty());
}

// The start goes on, and whoever looks for the services next says so, too.
TEST_F(LeftoversTest, logsThatItCannotLookForThemAndGoesOn) {
    std::filesystem::remove(folder.path());
    endLeftovers();
    EXPECT_THAT(log.texts(Poco::Message::PRIO_ERROR),
                ElementsAre(StartsWith("cannot look for what an earlier host has left running: ")));
}

} // namespace
} // namespace ktr::host
