#include "../../../src/host/StrictModes.h"

#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sys/stat.h>

namespace ktr::host {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class StrictModesTest : public testing::Test {
protected:
    StrictModesTest() {
        std::filesystem::create_directory(tree());
        std::filesystem::permissions(tree(), std::filesystem::perms(0755));
        settings.root = folder.path();
    }

    std::filesystem::path tree() const { return folder / "plugins"; }

    void addUnsafeFile(const std::string& name) const {
        std::ofstream(tree() / name) << "text\n";
        std::filesystem::permissions(tree() / name, std::filesystem::perms(0666));
    }

    bool mayUse() const { return StrictModes(settings).mayUse("plugins", "is not loaded"); }
    std::vector<std::string> errors() const { return log.texts(Poco::Message::PRIO_ERROR); }
    std::vector<std::string> warnings() const { return log.texts(Poco::Message::PRIO_WARNING); }

    const test::TempDir folder;
    Settings settings;
    const test::LogCapture log;
};

TEST_F(StrictModesTest, saysNothingOfASafeTree) {
    EXPECT_TRUE(mayUse());
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(StrictModesTest, logsPathRuleAndRemedyAndWhatIsLeftOutAsErrors) {
    addUnsafeFile("a b");
    EXPECT_FALSE(mayUse());
    const std::string path = tree() / "a b";
    ASSERT_EQ(errors().size(), 2U);
    EXPECT_EQ(errors()[0], path +
                               " can be written by everybody (mode 666); mend it with: "
                               "chmod go-w '" +
                               path + "'");
    EXPECT_THAT(errors()[1],
                AllOf(StartsWith("plugins/ is not loaded, since "), EndsWith("--no-strict-modes")));
    EXPECT_THAT(warnings(), IsEmpty());
}

TEST_F(StrictModesTest, onlyWarnsWhereItIsNotStrict) {
    addUnsafeFile("file");
    settings.strictModes = false;
    EXPECT_TRUE(mayUse());
    ASSERT_EQ(warnings().size(), 1U);
    EXPECT_THAT(warnings()[0], HasSubstr("mend it with: chmod go-w "));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(StrictModesTest, logsTwentyPathsAndTheNumberOfTheOthers) {
    for (int i = 0; i < 23; ++i)
        addUnsafeFile(std::to_string(i));
    EXPECT_FALSE(mayUse());
    ASSERT_EQ(errors().size(), 22U);
    EXPECT_THAT(errors()[19], HasSubstr("mend it with"));
    EXPECT_EQ(errors()[20], "and 3 more paths of plugins/");
}

TEST_F(StrictModesTest, logsALineThatStaysOneWhateverTheName) {
    addUnsafeFile("a\nb\x1b[2J");
    EXPECT_FALSE(mayUse());
    EXPECT_THAT(errors()[0], AllOf(HasSubstr("/a?b?[2J can be written"),
                                   HasSubstr("printf '" + tree().string() +
                                             "/a\\012b\\033[2J\\000'"
                                             " | xargs -0 chmod go-w"),
                                   Not(HasSubstr("\n"))));
}

} // namespace
} // namespace ktr::host
