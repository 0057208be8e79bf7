#include "../../../src/host/TreeCheck.h"

#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace ktr::host {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr uid_t kStranger = 65534;

/// A device's root in a temporary folder, safe at first.
class TreeCheckTest : public testing::Test {
protected:
    TreeCheckTest() {
        makeFolder(root() / "plugins/vendor");
        makeFile(root() / "plugins/libKetraPluginA.so");
        makeFile(root() / "plugins/vendor/libKetraPluginB.so");
    }
    ~TreeCheckTest() override {
        fs::current_path(formerPath);
        umask(formerMask);
    }

    fs::path above() const { return folder / "above"; }
    fs::path root() const { return above() / "root"; }
    fs::path tree() const { return root() / "plugins"; }
    /// Outside the root.
    fs::path store() const { return folder / "store"; }

    /// Every kind of place that is checked: on the way, the tree itself, in it.
    std::vector<fs::path> places() const {
        return {above(), root(), tree(), tree() / "libKetraPluginA.so", tree() / "vendor"};
    }

    static void makeFolder(const fs::path& path) { fs::create_directories(path); }
    static void makeFile(const fs::path& path) {
        fs::create_directories(path.parent_path());
        std::ofstream(path) << "text\n";
    }
    static void setMode(const fs::path& path, mode_t mode) {
        ASSERT_EQ(chmod(path.c_str(), mode), 0) << path;
    }
    static void give(const fs::path& path, uid_t owner) {
        ASSERT_EQ(lchown(path.c_str(), owner, static_cast<gid_t>(-1)), 0) << path;
    }
    static mode_t modeOf(const fs::path& path) {
        struct stat status {};
        EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
        return status.st_mode & 07777;
    }

    TreeCheck::Findings run() const { return TreeCheck(root()).run("plugins"); }

    /// "PATH FAULT; REMEDY" of each violation, without the way to the temporary folder.
    std::vector<std::string> violations() const { return linesOf(run()); }
    std::vector<std::string> linesOf(const TreeCheck::Findings& findings) const {
        EXPECT_EQ(findings.safe, findings.violations.empty());
        std::vector<std::string> lines;
        for (const auto& [path, fault, remedy] : findings.violations)
            lines.push_back(shortened(path).append(" " + fault + "; ").append(shortened(remedy)));
        return lines;
    }

    static void mend(const TreeCheck::Findings& findings) {
        for (const TreeCheck::Violation& violation : findings.violations) {
            EXPECT_THAT(violation.remedy, Not(HasSubstr("\n")));
            EXPECT_EQ(std::system(violation.remedy.c_str()), 0) << violation.remedy;
        }
    }

    const test::TempDir folder;

private:
    std::string shortened(std::string text) const {
        const std::string way = folder.path().string() + "/";
        for (auto at = text.find(way); at != std::string::npos; at = text.find(way, at))
            text.erase(at, way.size());
        return text;
    }

    const mode_t formerMask = umask(022);
    const fs::path formerPath = fs::current_path();
};

class OwnerTest : public TreeCheckTest {
protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "only root may give files away";
    }
};

TEST_F(TreeCheckTest, passesWhatOnlyTheUserMayChange) {
    EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(TreeCheckTest, passesAMissingTree) {
    fs::remove_all(tree());
    EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(TreeCheckTest, findsWhatTheGroupMayWriteOnTheWayAndInTheTree) {
    for (const fs::path& place : places()) {
        const mode_t mode = modeOf(place);
        setMode(place, mode | S_IWGRP);
        const auto findings = run();
        ASSERT_EQ(findings.violations.size(), 1U) << place;
        EXPECT_FALSE(findings.safe);
        EXPECT_EQ(findings.violations[0].path, place);
        EXPECT_THAT(findings.violations[0].fault, HasSubstr("can be written by its group (mode "));
        EXPECT_EQ(findings.violations[0].remedy, "chmod go-w " + place.string());
        mend(findings);
        EXPECT_EQ(modeOf(place), mode);
        EXPECT_THAT(violations(), IsEmpty());
    }
}

TEST_F(TreeCheckTest, findsWhatEverybodyMayWriteOnTheWayAndInTheTree) {
    for (const fs::path& place : places()) {
        const mode_t mode = modeOf(place);
        setMode(place, mode | S_IWOTH);
        const auto findings = run();
        ASSERT_EQ(findings.violations.size(), 1U) << place;
        EXPECT_EQ(findings.violations[0].path, place);
        EXPECT_THAT(findings.violations[0].fault, HasSubstr("can be written by everybody (mode "));
        mend(findings);
        EXPECT_EQ(modeOf(place), mode);
        EXPECT_THAT(violations(), IsEmpty());
    }
}

TEST_F(OwnerTest, findsWhatBelongsToStrangersOnTheWayAndInTheTree) {
    for (const fs::path& place : places()) {
        give(place, kStranger);
        const auto findings = run();
        ASSERT_EQ(findings.violations.size(), 1U) << place;
        EXPECT_EQ(findings.violations[0].path, place);
        EXPECT_EQ(findings.violations[0].fault,
                  "belongs to user 65534, not to root or the host's user");
        EXPECT_EQ(findings.violations[0].remedy, "chown root " + place.string());
        mend(findings);
        EXPECT_THAT(violations(), IsEmpty());
    }
}

TEST_F(OwnerTest, passesWhatBelongsToRootOrTheHostsUser) {
    TreeCheck check(root(), kStranger);
    give(tree(), kStranger);
    give(tree() / "libKetraPluginA.so", kStranger);
    give(tree() / "vendor", 1234);
    EXPECT_THAT(
        linesOf(check.run("plugins")),
        ElementsAre("above/root/plugins/vendor belongs to user 1234, not to root or the "
                    "host's user; chown 65534 " +
                    (tree() / "vendor").string().substr(folder.path().string().size() + 1)));
}

TEST_F(OwnerTest, wantsRootToOwnWhatLiesOutsideTheRoot) {
    give(above(), 1234);
    EXPECT_THAT(linesOf(TreeCheck(root(), kStranger).run("plugins")),
                ElementsAre(HasSubstr("; chown root above")));
}

TEST_F(OwnerTest, tellsBothFaultsOfAPathInOneLine) {
    give(tree(), kStranger);
    setMode(tree(), 0777);
    EXPECT_THAT(violations(),
                ElementsAre("above/root/plugins belongs to user 65534, not to root or the host's "
                            "user, and can be written by everybody (mode 777); chown root "
                            "above/root/plugins && chmod go-w above/root/plugins"));
    mend(run());
    EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(TreeCheckTest, passesAStickyFolderAboveTheRoot) {
    setMode(above(), 01777);
    EXPECT_THAT(violations(), IsEmpty());
    setMode(above(), 01770);
    EXPECT_THAT(violations(), IsEmpty());
    setMode(above(), 0777);
    EXPECT_THAT(violations(), ElementsAre(HasSubstr("above can be written by everybody")));
}

TEST_F(TreeCheckTest, findsAStickyFolderThatIsTheRootOrInsideIt) {
    for (const fs::path& place : {root(), tree(), tree() / "vendor"}) {
        setMode(place, 01777);
        const auto findings = run();
        ASSERT_EQ(findings.violations.size(), 1U) << place;
        EXPECT_EQ(findings.violations[0].path, place);
        EXPECT_EQ(findings.violations[0].fault, "can be written by everybody (mode 1777)");
        setMode(place, 0755);
    }
}

TEST_F(TreeCheckTest, findsAnUnsafeRootThoughTheTreeIsMissing) {
    fs::remove_all(tree());
    setMode(root(), 01777);
    EXPECT_THAT(violations(), ElementsAre(HasSubstr("above/root can be written by everybody")));
}

/// What setfacl -m u:nobody:rw stores.
struct AccessList {
    struct Line {
        std::uint16_t tag;
        std::uint16_t permissions;
        std::uint32_t id;
    };
    std::uint32_t version = 2;
    std::array<Line, 5> lines{{{0x01, 6, UINT32_MAX},
                               {0x02, 6, kStranger},
                               {0x04, 4, UINT32_MAX},
                               {0x10, 6, UINT32_MAX},
                               {0x20, 4, UINT32_MAX}}};
};

TEST_F(TreeCheckTest, findsWhatAnAccessControlListLetsAnotherUserWrite) {
    const fs::path file = tree() / "libKetraPluginA.so";
    const AccessList list;
    if (setxattr(file.c_str(), "system.posix_acl_access", &list, sizeof list, 0) != 0)
        GTEST_SKIP() << "this file system has no access control lists";
    const auto findings = run();
    ASSERT_EQ(findings.violations.size(), 1U);
    EXPECT_EQ(findings.violations[0].path, file);
    mend(findings);
    EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(TreeCheckTest, doesNotMindWhatIsNeitherFolderNorRegularFile) {
    ASSERT_EQ(mkfifo((tree() / "pipe").c_str(), 0666), 0);
    setMode(tree() / "pipe", 0666);
    EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(TreeCheckTest, findsAFileAtTheBottomOfADeepTree) {
    fs::path deep = tree();
    for (int level = 0; level < 200; ++level)
        deep /= "level";
    makeFile(deep / "data");
    EXPECT_THAT(violations(), IsEmpty());
    setMode(deep / "data", 0664);
    const auto findings = run();
    ASSERT_EQ(findings.violations.size(), 1U);
    EXPECT_EQ(findings.violations[0].path, deep / "data");
}

TEST_F(TreeCheckTest, passesLinksToWhatIsSafe) {
    makeFile(store() / "libX.so.1");
    makeFile(store() / "more/libY.so");
    fs::create_symlink(store() / "libX.so.1", tree() / "libKetraPluginX.so");
    fs::create_symlink("../../../store/more", tree() / "more");
    fs::create_symlink("libKetraPluginX.so", tree() / "libKetraPluginZ.so");
    EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(TreeCheckTest, findsAnUnsafeTargetOfALink) {
    makeFile(store() / "libX.so");
    setMode(store() / "libX.so", 0666);
    fs::create_symlink(store() / "libX.so", tree() / "libKetraPluginX.so");
    EXPECT_THAT(violations(), ElementsAre("store/libX.so can be written by everybody (mode 666); "
                                          "chmod go-w store/libX.so"));
}

TEST_F(TreeCheckTest, findsAnUnsafeFolderOnTheWayToATarget) {
    makeFile(store() / "a/b/libX.so");
    setMode(store() / "a", 0775);
    fs::create_symlink("../../../store/a/b/libX.so", tree() / "libKetraPluginX.so");
    EXPECT_THAT(violations(), ElementsAre("store/a can be written by its group (mode 775); "
                                          "chmod go-w store/a"));
}

TEST_F(TreeCheckTest, findsAnUnsafeFolderThatALinkPassesAndLeavesAgain) {
    makeFile(store() / "libX.so");
    makeFolder(store() / "aside");
    setMode(store() / "aside", 0775);
    fs::create_symlink("../../../store/aside/../libX.so", tree() / "libKetraPluginX.so");
    EXPECT_THAT(violations(), ElementsAre(HasSubstr("store/aside can be written")));
}

TEST_F(TreeCheckTest, findsWhatIsUnsafeInALinkedFolder) {
    makeFile(store() / "sub/libX.so");
    fs::create_symlink(store(), tree() / "more");
    setMode(store() / "sub/libX.so", 0666);
    EXPECT_THAT(violations(), ElementsAre(HasSubstr("plugins/more/sub/libX.so can be written")));
    mend(run());
    setMode(store(), 0777);
    EXPECT_THAT(violations(), ElementsAre(HasSubstr("store can be written")));
    mend(run());
    EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(TreeCheckTest, findsWhatIsUnsafeInATreeThatIsALink) {
    makeFile(store() / "libX.so");
    fs::remove_all(tree());
    fs::create_symlink(store(), tree());
    EXPECT_THAT(violations(), IsEmpty());
    setMode(store() / "libX.so", 0666);
    EXPECT_THAT(violations(), ElementsAre(HasSubstr("libX.so can be written")));
}

TEST_F(OwnerTest, findsALinkOfAStrangerThoughItsTargetIsSafe) {
    makeFile(store() / "libX.so");
    fs::create_symlink(store() / "libX.so", store() / "between.so");
    fs::create_symlink(store() / "between.so", tree() / "libKetraPluginX.so");
    for (const fs::path& link : {tree() / "libKetraPluginX.so", store() / "between.so"}) {
        give(link, kStranger);
        const auto findings = run();
        ASSERT_EQ(findings.violations.size(), 1U) << link;
        EXPECT_EQ(findings.violations[0].path, link);
        EXPECT_THAT(findings.violations[0].fault,
                    HasSubstr("is a link that belongs to user 65534"));
        EXPECT_EQ(findings.violations[0].remedy, "chown -h root " + link.string());
        mend(findings);
        EXPECT_THAT(violations(), IsEmpty());
    }
}

TEST_F(OwnerTest, findsTheTargetOfALinkThatBelongsToAStranger) {
    makeFile(store() / "libX.so");
    fs::create_symlink(store() / "libX.so", tree() / "libKetraPluginX.so");
    give(store() / "libX.so", kStranger);
    EXPECT_THAT(violations(), ElementsAre(HasSubstr("store/libX.so belongs to user 65534")));
}

TEST_F(TreeCheckTest, endsOnLinksThatLeadInACircle) {
    fs::create_symlink("self", tree() / "self");
    fs::create_symlink("b", tree() / "a");
    fs::create_symlink("a", tree() / "b");
    fs::create_symlink("..", tree() / "vendor/up");
    fs::create_symlink(root(), tree() / "root");
    EXPECT_THAT(violations(), IsEmpty());
    // what the last of them leads to is part of the tree now
    makeFile(root() / "notes");
    setMode(root() / "notes", 0666);
    EXPECT_THAT(violations(), ElementsAre(HasSubstr("plugins/root/notes can be written")));
}

TEST_F(TreeCheckTest, doesNotMindALinkThatLeadsNowhere) {
    fs::create_symlink("missing", tree() / "a");
    fs::create_symlink("/nonexistent/missing", tree() / "b");
    fs::create_symlink(store(), tree() / "c");
    fs::create_symlink("libKetraPluginA.so/below", tree() / "d");
    EXPECT_THAT(violations(), IsEmpty());
}

// Whoever makes it between the check and the loading would have it loaded.
TEST_F(TreeCheckTest, findsALinkToWhatIsMissingWhereOthersMayMakeIt) {
    makeFolder(store());
    setMode(store(), 01777);
    fs::create_symlink(store() / "libX.so", tree() / "libKetraPluginX.so");
    EXPECT_THAT(violations(),
                ElementsAre("above/root/plugins/libKetraPluginX.so leads to where others could put "
                            "something; rm above/root/plugins/libKetraPluginX.so"));
    // once it is there, nobody else may exchange it
    makeFile(store() / "libX.so");
    EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(TreeCheckTest, findsALinkToAFolderThatOthersShare) {
    makeFolder(store());
    setMode(store(), 01777);
    fs::create_symlink(store(), tree() / "more");
    mend(run());
    EXPECT_THAT(violations(), IsEmpty());
    EXPECT_FALSE(fs::is_symlink(tree() / "more"));
    EXPECT_EQ(modeOf(store()), 01777U);
}

TEST_F(TreeCheckTest, findsALinkThatTheKernelFollowsToElsewhereThanItSays) {
    const int hidden = memfd_create("hidden", MFD_CLOEXEC);
    ASSERT_GE(hidden, 0);
    fs::create_symlink("/proc/self/fd/" + std::to_string(hidden), tree() / "libKetraPluginX.so");
    EXPECT_THAT(violations(), ElementsAre(HasSubstr("leads to what cannot be checked")));
    close(hidden);
    EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(TreeCheckTest, takesARelativeRootFromTheCurrentDirectory) {
    fs::current_path(above());
    setMode(tree(), 0775);
    EXPECT_THAT(linesOf(TreeCheck("root").run("plugins")),
                ElementsAre("above/root/plugins can be written by its group (mode 775); chmod "
                            "go-w above/root/plugins"));
    setMode(tree(), 0755);
    EXPECT_THAT(linesOf(TreeCheck("root/plugins/..").run("plugins")), IsEmpty());
    setMode(above(), 0775);
    EXPECT_THAT(linesOf(TreeCheck("./root/").run("plugins")),
                ElementsAre(HasSubstr("above can be written by its group")));
}

TEST_F(TreeCheckTest, judgesTheWayByWhichTheRootIsNamedToo) {
    makeFolder(store());
    fs::create_symlink(root(), store() / "device");
    const auto named = [this] { return linesOf(TreeCheck(store() / "device").run("plugins")); };
    EXPECT_THAT(named(), IsEmpty());
    setMode(store(), 0777);
    setMode(above(), 0777);
    EXPECT_THAT(named(),
                ElementsAre(HasSubstr("store can be written"), HasSubstr("above can be written")));
}

TEST_F(TreeCheckTest, printsRemediesThatWorkAsPastedWhateverTheName) {
    const std::vector<std::string> names{
        "a\nb",  "end\n\n",    "it's",    "-rf",      "$(touch pwned)", "`touch pwned`",
        "100%s", "back\\nsl'", "tab\t\\", "\x1b[2J'", " space ",        "*?[a-z]",
        "\"",    "größe.so",   "#~",      "a;b&c|d",  "\x01\x7f%d9"};
    for (const std::string& name : names) {
        makeFile(tree() / name / "file");
        setMode(tree() / name, 0777);
        makeFile(tree() / ("x" + name));
        setMode(tree() / ("x" + name), 0666);
    }
    fs::current_path(folder.path());
    for (std::size_t left = 2 * names.size(); left > 0;) {
        const auto findings = run();
        ASSERT_EQ(findings.violations.size() + findings.more, left);
        mend(findings);
        left -= findings.violations.size();
    }
    EXPECT_THAT(violations(), IsEmpty());
    EXPECT_FALSE(fs::exists(folder / "pwned"));
}

TEST_F(TreeCheckTest, tellsTwentyAndCountsTheRest) {
    for (int i = 0; i < 25; ++i) {
        makeFile(tree() / std::to_string(100 + i));
        setMode(tree() / std::to_string(100 + i), 0666);
    }
    const auto findings = run();
    EXPECT_FALSE(findings.safe);
    ASSERT_EQ(findings.violations.size(), 20U);
    EXPECT_EQ(findings.violations[0].path, tree() / "100");
    EXPECT_EQ(findings.violations[19].path, tree() / "119");
    EXPECT_EQ(findings.more, 5U);
}

TEST_F(TreeCheckTest, tellsEachPathOnceThoughItMakesBothTreesUnsafe) {
    makeFile(root() / "microservices/service");
    fs::create_symlink("../microservices", tree() / "services");
    fs::create_symlink("services", tree() / "again");
    setMode(root(), 0775);
    setMode(root() / "microservices/service", 0775);
    TreeCheck check(root());
    const auto first = check.run("plugins");
    EXPECT_FALSE(first.safe);
    EXPECT_EQ(first.violations.size(), 2U);
    const auto second = check.run("microservices");
    EXPECT_FALSE(second.safe);
    EXPECT_THAT(second.violations, IsEmpty());
    EXPECT_EQ(second.more, 0U);
}

TEST_F(TreeCheckTest, judgesEachTreeByItself) {
    makeFile(root() / "microservices/service");
    setMode(root() / "microservices/service", 0775);
    TreeCheck check(root());
    EXPECT_FALSE(check.run("microservices").safe);
    EXPECT_TRUE(check.run("plugins").safe);
}

TEST_F(TreeCheckTest, mentionsAPathThatIsTooLongAndGoesOn) {
    // longer than any path may be, so it is built from within
    fs::current_path(tree());
    for (int level = 0; level < 20; ++level) {
        makeFolder(std::string(250, 'd'));
        fs::current_path(std::string(250, 'd'));
    }
    fs::current_path(tree());
    setMode(tree() / "vendor", 0775);
    const test::LogCapture log;
    EXPECT_THAT(violations(), ElementsAre(HasSubstr("plugins/vendor can be written")));
    EXPECT_EQ(log.count("File name too long; passed over"), 1);
}

TEST_F(OwnerTest, mentionsAFolderThatCannotBeReadAndGoesOn) {
    makeFile(tree() / "closed/file");
    setMode(tree() / "closed", 0700);
    setMode(tree() / "vendor/libKetraPluginB.so", 0664);
    setMode(folder.path(), 0711);
    ASSERT_EQ(seteuid(kStranger), 0);
    TreeCheck::Findings findings;
    int mentioned = 0;
    {
        const test::LogCapture log;
        findings = TreeCheck(root()).run("plugins");
        mentioned = log.count("cannot check '" + (tree() / "closed").string() +
                              "': Permission denied; passed over");
    }
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(mentioned, 1);
    EXPECT_THAT(linesOf(findings), ElementsAre(HasSubstr("libKetraPluginB.so can be written")));
}

} // namespace
} // namespace ktr::host
