#include "ktr/common/FileSystem.h"

#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <Poco/Exception.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace ktr {
namespace {

namespace fs = std::filesystem;
using test::LogCapture;
using test::TempDir;
using testing::ElementsAre;
using testing::IsEmpty;

class FileSystem : public testing::Test {
protected:
    fs::path file(const std::string& name, fs::perms permissions = fs::perms::owner_read) const {
        fs::path path = folder / name;
        fs::create_directories(path.parent_path());
        std::ofstream(path) << "text";
        fs::permissions(path, permissions);
        return path;
    }

    /// The listed paths, relative to the folder.
    std::vector<std::string> list(ListFileType type = ListFileType::Regular,
                                  const std::string& filter = "") const {
        std::list<std::string> found;
        listFilesRecursively(Poco::Path(folder.path().string()), found, type, filter);
        std::vector<std::string> names;
        for (const std::string& path : found) {
            EXPECT_EQ(path.compare(0, prefix.size(), prefix), 0) << path;
            names.push_back(path.substr(prefix.size()));
        }
        return names;
    }

    const TempDir folder;
    const std::string prefix = folder.path().string() + "/";
};

class ListFiles : public FileSystem {};
class CurrentPath : public FileSystem {
protected:
    const fs::path before = fs::current_path();
    ~CurrentPath() override { fs::current_path(before); }
};

TEST_F(ListFiles, WalksDepthFirstInByteOrderOfNames) {
    file("b/inner");
    file("b/deep/est");
    file("a");
    file("c");
    file("B");
    file("b.txt");
    file("\xC3\xA4");
    EXPECT_THAT(list(), ElementsAre("B", "a", "b/deep/est", "b/inner", "b.txt", "c", "\xC3\xA4"));
}

TEST_F(ListFiles, AppendsToWhatTheListHolds) {
    file("a");
    std::list<std::string> found{"before"};
    listFilesRecursively(Poco::Path(prefix), found, ListFileType::Regular, "");
    EXPECT_THAT(found, ElementsAre("before", prefix + "a"));
}

TEST_F(ListFiles, FiltersByFileNameNotByPath) {
    file("match/other");
    file("some-match-ing");
    file("mat");
    EXPECT_THAT(list(ListFileType::Regular, "match"), ElementsAre("some-match-ing"));
}

TEST_F(ListFiles, KeepsOnlyExecutableFilesWhereAsked) {
    file("data");
    file("service", fs::perms::owner_all);
    fs::create_directory(folder / "subfolder");
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0700), 0);
    EXPECT_THAT(list(ListFileType::Executable), ElementsAre("service"));
    EXPECT_THAT(list(), ElementsAre("data", "service"));
}

TEST_F(ListFiles, ListsADistinctFileOnceWhenRegular) {
    file("libX.so.1", fs::perms::owner_all);
    fs::create_symlink("libX.so.1", folder / "libX.so");
    fs::create_hard_link(folder / "libX.so.1", folder / "z");
    EXPECT_THAT(list(), ElementsAre("libX.so"));
    EXPECT_THAT(list(ListFileType::Executable), ElementsAre("libX.so", "libX.so.1", "z"));
}

TEST_F(ListFiles, FollowsLinksToFoldersButEntersEachOnce) {
    const TempDir elsewhere;
    std::ofstream(elsewhere / "far") << "text";
    file("a/near");
    fs::create_directory_symlink(elsewhere.path(), folder / "link1");
    fs::create_directory_symlink(elsewhere.path(), folder / "link2");
    fs::create_directory_symlink(folder.path(), folder / "a/loop");
    fs::create_directory_symlink(".", folder / "self");
    EXPECT_THAT(list(ListFileType::Executable), IsEmpty());
    EXPECT_THAT(list(), ElementsAre("a/near", "link1/far"));
}

TEST_F(ListFiles, EntersALinkedFolderOnceWhateverTheKind) {
    file("a/tool", fs::perms::owner_all);
    fs::create_directory_symlink("a", folder / "b");
    EXPECT_THAT(list(ListFileType::Executable), ElementsAre("a/tool"));
}

TEST_F(ListFiles, LeavesOutLinksThatLeadNowhere) {
    const LogCapture log;
    fs::create_symlink("missing", folder / "dangling");
    fs::create_symlink("circle", folder / "circle");
    file("x");
    EXPECT_THAT(list(), ElementsAre("x"));
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(ListFiles, TakesNamesAsTheBytesTheyAre) {
    const std::string odd = "two words\nline\xFF\xFE";
    file(odd);
    EXPECT_THAT(list(), ElementsAre(odd));
}

TEST_F(ListFiles, YieldsNothingForAMissingFolder) {
    const LogCapture log;
    std::list<std::string> found;
    listFilesRecursively(Poco::Path(prefix + "missing"), found, ListFileType::Regular, "");
    listFilesRecursively(Poco::Path(), found, ListFileType::Regular, "");
    EXPECT_THAT(found, IsEmpty());
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(ListFiles, WarnsAboutAFileInPlaceOfTheFolder) {
    const LogCapture log;
    std::list<std::string> found;
    const std::string path = file("x").string();
    listFilesRecursively(Poco::Path(path), found, ListFileType::Regular, "");
    EXPECT_THAT(found, IsEmpty());
    EXPECT_THAT(log.texts(Poco::Message::PRIO_WARNING),
                ElementsAre("cannot list '" + path + "': Not a directory; passed over"));
}

TEST_F(ListFiles, WarnsAboutAFolderThatCannotBeLookedAt) {
    const LogCapture log;
    std::list<std::string> found;
    const std::string path = prefix + std::string(NAME_MAX + 1, 'x');
    listFilesRecursively(Poco::Path(path), found, ListFileType::Regular, "");
    EXPECT_THAT(found, IsEmpty());
    EXPECT_THAT(log.texts(Poco::Message::PRIO_WARNING),
                ElementsAre("cannot list '" + path + "': File name too long; passed over"));
}

/// Runs `body` in a process of its own that has no right to pass over permissions.
bool holdsWithoutPrivileges(const std::function<bool()>& body) {
    const pid_t child = fork();
    if (child == 0) {
        const bool dropped = geteuid() != 0 || setresuid(65534, 65534, 65534) == 0;
        _exit(dropped && body() ? 0 : 1);
    }
    int status = -1;
    return waitpid(child, &status, 0) == child && status == 0;
}

TEST_F(ListFiles, WarnsOnceAboutAFolderThatCannotBeReadAndGoesOn) {
    file("after", fs::perms::all);
    file("closed/a");
    file("closed/b");
    file("unsearchable/a");
    file("unsearchable/b");
    fs::permissions(folder.path(), fs::perms::all);
    fs::permissions(folder / "closed", fs::perms(0111));
    fs::permissions(folder / "unsearchable", fs::perms(0444));
    EXPECT_TRUE(holdsWithoutPrivileges([this] {
        const LogCapture log;
        return list() == std::vector<std::string>{"after"} &&
               log.texts(Poco::Message::PRIO_WARNING) ==
                   std::vector<std::string>{"cannot list '" + prefix +
                                                "closed': Permission denied; passed over",
                                            "cannot list '" + prefix +
                                                "unsearchable': Permission denied; passed over"} &&
               log.messages().size() == 2;
    }));
    fs::permissions(folder / "closed", fs::perms::owner_all);
    fs::permissions(folder / "unsearchable", fs::perms::owner_all);
}

TEST_F(ListFiles, KeepsExecutableWhatTheProcessItselfMayExecute) {
    file("for-all", fs::perms::all);
    file("for-nobody", fs::perms::others_read | fs::perms::owner_read);
    fs::permissions(folder.path(), fs::perms::all);
    EXPECT_TRUE(holdsWithoutPrivileges(
        [this] { return list(ListFileType::Executable) == std::vector<std::string>{"for-all"}; }));
}

TEST_F(ListFiles, WalksADeepTreeWithFewDescriptors) {
    fs::path deep = folder.path();
    for (int i = 0; i < 1000; ++i)
        deep /= "d";
    fs::create_directories(deep);
    std::ofstream(deep / "file") << "text";
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit few{64, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    const std::vector<std::string> found = list();
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_THAT(found, ElementsAre((deep / "file").string().substr(prefix.size())));
}

TEST_F(ListFiles, WarnsAboutAPathThatIsTooLongAndGoesOn) {
    const LogCapture log;
    file("z");
    const std::string name(200, 'd');
    fs::path top = folder / name;
    fs::create_directory(top);
    // longer than any path may be, so it is built from within
    const fs::path before = fs::current_path();
    fs::current_path(top);
    for (int i = 0; i < 25; ++i) {
        fs::create_directory(name);
        fs::current_path(name);
    }
    fs::current_path(before);
    EXPECT_THAT(list(), ElementsAre("z"));
    EXPECT_EQ(log.texts(Poco::Message::PRIO_WARNING).size(), 1U);
    EXPECT_EQ(log.count("File name too long"), 1);
}

TEST_F(CurrentPath, IsTheCurrentDirectory) {
    fs::current_path(folder.path());
    EXPECT_EQ(getCurrentPath(), folder.path().string());
    EXPECT_EQ(getCurrentChildPath("plugins"), prefix + "plugins");
}

TEST_F(CurrentPath, HasOneSeparatorAtTheRoot) {
    fs::current_path("/");
    EXPECT_EQ(getCurrentPath(), "/");
    EXPECT_EQ(getCurrentChildPath("plugins"), "/plugins");
}

TEST_F(CurrentPath, ResolvesARelativeFolder) {
    file("plugins/libX.so");
    fs::current_path(folder.path());
    std::list<std::string> found;
    listFilesRecursively(Poco::Path("plugins"), found, ListFileType::Regular, "");
    EXPECT_THAT(found, ElementsAre(prefix + "plugins/libX.so"));
}

TEST_F(CurrentPath, ThrowsWhenItWasDeleted) {
    fs::create_directory(folder / "gone");
    fs::current_path(folder / "gone");
    fs::remove(folder / "gone");
    EXPECT_THROW(getCurrentPath(), Poco::SystemException);
    EXPECT_THROW(getCurrentChildPath("plugins"), Poco::SystemException);
}

} // namespace
} // namespace ktr
