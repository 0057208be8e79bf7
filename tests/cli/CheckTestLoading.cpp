#include "CheckRun.h"

#include <map>

namespace ktr::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

TEST_F(Check, SaysOfEachIllBehavedPluginWhatItDoes) {
    const std::map<std::string, std::vector<std::string>> expected{
        {"EmptyGuid", {"fault empty-guid"}},
        {"NullGuid", {"fault null-guid"}},
        {"NullName", {"fault null-name"}},
        {"Stranger", {"fault not-registered"}},
        {"ThrowsPoco", {"fault throws"}},
        {"ThrowsPoco-guid", {"fault throws"}},
        {"ThrowsPoco-name", {"fault throws"}},
        {"ThrowsPoco-type", {"fault throws"}},
        {"ThrowsStd", {"fault throws"}},
        {"ThrowsStd-guid", {"fault throws"}},
        {"ThrowsStd-name", {"fault throws"}},
        {"ThrowsStd-static", {"fault crashes"}},
        {"ThrowsStd-type", {"fault throws"}},
        {"Unregisters-load", {"fault not-registered"}},
        // these are in order until their services report
        {"RegistersTwice", {}},
        {"ThrowsStd-factory", {}},
        {"ThrowsStd-start", {}},
        {"Unregisters-start", {}},
    };
    for (const auto& [fixture, rules] : expected)
        addFixture(fixture);
    const CheckRun found = checkRoot();
    EXPECT_EQ(found.code, 1);
    EXPECT_EQ(found.countOfFiles(), expected.size());
    for (const auto& [fixture, rules] : expected) {
        const std::string name = "libKetraPluginFixture" + fixture + ".so";
        std::vector<std::string> all{"hint no-build-note"};
        all.insert(all.end(), rules.begin(), rules.end());
        EXPECT_EQ(found.findings(name), all) << fixture;
    }
    EXPECT_THAT(found.texts("libKetraPluginFixtureThrowsStd-name.so"),
                HasSubstr("throws in PluginName: name failed\n"));
    EXPECT_THAT(found.texts("libKetraPluginFixtureThrowsPoco.so"),
                HasSubstr("throws in PluginLoad: Data error: load failed\n"));
    EXPECT_THAT(found.texts("libKetraPluginFixtureStranger.so"),
                HasSubstr("'other', but PluginGuid answers 'stranger'"));
    EXPECT_THAT(found.texts("libKetraPluginFixtureThrowsStd-static.so"),
                HasSubstr("while its static objects are made"));
}

class CheckDeed : public Check {
protected:
    CheckRun checkDeed(const std::string& deed, const std::string& timeout = "100") {
        name = addChecked("Good");
        setenv("KETRA_TEST_DEED", deed.c_str(), 1);
        return check({"--timeout", timeout, root()});
    }

    void expectOnly(const std::string& deed, const std::string& rule, const std::string& text) {
        const CheckRun found = checkDeed(deed);
        EXPECT_EQ(found.code, 1);
        EXPECT_THAT(found.findings(name), ElementsAre("fault " + rule));
        EXPECT_THAT(found.texts(name), HasSubstr(text));
    }

    std::string name;
};

TEST_F(CheckDeed, SurvivesAPluginThatCrashes) {
    expectOnly("crash", "crashes", "by signal 11 (Segmentation fault) in PluginLoad");
}

TEST_F(CheckDeed, SurvivesAPluginThatEndsTheProcess) {
    expectOnly("exit", "exits", "in PluginLoad");
}

TEST_F(CheckDeed, SurvivesAPluginThatThrowsWhatIsNoException) {
    expectOnly("throw-int", "throws-unknown", "in PluginLoad");
}

TEST_F(CheckDeed, SurvivesAPluginThatWritesWithoutEnd) {
    expectOnly("flood", "floods-output", "in PluginLoad");
}

TEST_F(CheckDeed, SurvivesAPluginThatRegistersWithoutEnd) {
    const CheckRun found = checkDeed("register-without-end");
    EXPECT_EQ(found.code, 1);
    EXPECT_THAT(found.findings(name), ElementsAre("fault empty-factory", "fault floods-output"));
}

TEST_F(CheckDeed, NamesAnEmptyFactory) {
    expectOnly("empty-factory", "empty-factory", "'checked'");
}

TEST_F(CheckDeed, NamesAPluginThatDoesNotRegister) {
    expectOnly("no-registration", "not-registered", "no factory is registered");
}

TEST_F(CheckDeed, ShowsTheLastWordsOfAPluginThatCallsWhatNothingDefines) {
    const std::string unresolved = addChecked("Unresolved");
    setenv("KETRA_TEST_DEED", "unresolved", 1);
    const CheckRun found = checkRoot();
    EXPECT_THAT(found.findings(unresolved), ElementsAre("fault unresolved-symbol", "fault exits"));
    EXPECT_THAT(found.texts(unresolved), HasSubstr("symbol lookup error"));
}

TEST_F(CheckDeed, GivesAPluginThatHangsUpInTime) {
    const CheckRun found = checkDeed("hang", "1");
    EXPECT_EQ(found.code, 1);
    EXPECT_THAT(found.findings(name), ElementsAre("fault hangs"));
    EXPECT_THAT(found.texts(name), HasSubstr("within 1 s in PluginLoad"));
    ASSERT_NE(notedProcess(), 0);
    EXPECT_FALSE(isAlive(notedProcess()));
    EXPECT_TRUE(std::filesystem::is_empty(temporary()));
}

TEST_F(CheckDeed, LoadsInAFolderOfItsOwnThatGoes) {
    EXPECT_EQ(checkDeed("").code, 0);
    const std::filesystem::path folderOfPlugin = noted("folder");
    EXPECT_EQ(folderOfPlugin.parent_path(), temporary());
    EXPECT_TRUE(std::filesystem::is_empty(temporary()));
}

TEST_F(CheckDeed, LeavesNoProcessBehindThatAPluginStarted) {
    EXPECT_EQ(checkDeed("leave-a-process").code, 0);
    ASSERT_NE(notedProcess(), 0);
    EXPECT_FALSE(isAlive(notedProcess()));
}

class CheckInterrupted : public CheckDeed {
protected:
    /// Starts a check of a plugin that hangs, and ends it by `signal` then.
    int endBy(int signal) {
        name = addChecked("Good");
        setenv("KETRA_TEST_DEED", "hang", 1);
        ChildProcess tool(commandLine({"--timeout", "100", root()}), output());
        EXPECT_TRUE(waitUntil([this] { return notedProcess() != 0; }, std::chrono::seconds(60)))
            << readFile(output());
        tool.signal(signal);
        const int status = tool.wait();
        return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }
};

TEST_F(CheckInterrupted, CleansUpBeforeASignalEndsIt) {
    EXPECT_EQ(endBy(SIGTERM), SIGTERM);
    EXPECT_FALSE(isAlive(notedProcess()));
    EXPECT_TRUE(std::filesystem::is_empty(temporary()));
}

TEST_F(CheckInterrupted, ThePluginsProcessEndsWithTheTool) {
    EXPECT_EQ(endBy(SIGKILL), SIGKILL);
    EXPECT_TRUE(waitUntil([this] { return !isAlive(notedProcess()); }));
}

TEST_F(Check, NamesPluginsThatShareAGuid) {
    const std::string one = addFixture("Complete");
    const std::string other = addFixture("Twin");
    addFixture("Raises");
    const CheckRun found = checkRoot();
    EXPECT_EQ(found.code, 1);
    EXPECT_EQ(found.faults(), 2);
    EXPECT_THAT(found.findings(one), Contains("fault duplicate-guid"));
    EXPECT_THAT(found.texts(one), HasSubstr(plugins() / other));
    EXPECT_THAT(found.findings(other), Contains("fault duplicate-guid"));
    EXPECT_THAT(found.texts(other), HasSubstr(plugins() / one));
}

TEST_F(Check, TakesLinksToALibraryForOne) {
    const std::string name = addChecked("Good");
    std::filesystem::create_symlink(name, plugins() / (name + ".1"));
    std::filesystem::create_hard_link(plugins() / name, plugins() / ("libOther-" + name));
    const CheckRun found = checkRoot();
    EXPECT_EQ(found.countOfFiles(), 1U);
    EXPECT_EQ(found.code, 0) << found.text;
}

TEST_F(Check, LetsTwoDevicesHaveTheSamePlugins) {
    addChecked("Good");
    std::filesystem::copy(root(), folder / "other", std::filesystem::copy_options::recursive);
    const CheckRun found = check({root(), folder / "other"});
    EXPECT_EQ(found.countOfFiles(), 2U);
    EXPECT_EQ(found.code, 0) << found.text;
}

} // namespace
} // namespace ktr::test
