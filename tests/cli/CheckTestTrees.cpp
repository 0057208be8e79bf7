#include "CheckRun.h"

namespace ktr::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST_F(Check, PrintsEachFileWithItsFindingsAndRemediesAndTheCounts) {
    addChecked("Good");
    const std::string name = addFixture("NoUnload");
    const CheckRun found = run({root()});
    EXPECT_EQ(found.code, 1);
    EXPECT_EQ(found.text,
              (plugins() / "libKetraPluginCheckedGood.so").string() +
                  ": plugin 'checked plugin', type 42, guid 'checked', registered\n" +
                  (plugins() / name).string() +
                  ": plugin 'no unload', type 1, guid 'no-unload', registered\n"
                  "  fault: does not export PluginUnLoad [missing-entry-point]\n"
                  "    remedy: define it as: extern \"C\" KTR_API void PluginUnLoad()\n"
                  "  hint: does not say what it was built with, so that cannot be compared "
                  "[no-build-note]\n"
                  "    remedy: make its entry points by KETRA_PLUGIN, of ktr/PluginEntry.h\n"
                  "2 paths checked: 1 fault, 1 hint\n");
}

TEST_F(Check, TakesEachTreeAndFileByItself) {
    const std::string plugin = addChecked("Good");
    const std::string service = addProgram("ketra-test-check-program");
    EXPECT_EQ(checkRoot().countOfFiles(), 2U);
    for (const auto& [path, name] :
         {std::pair(plugins(), plugin), std::pair(services(), service),
          std::pair(plugins() / plugin, plugin), std::pair(services() / service, service)}) {
        const CheckRun found = check({path});
        EXPECT_EQ(found.code, 0);
        EXPECT_EQ(found.countOfFiles(), 1U);
        EXPECT_THAT(found.findings(name), IsEmpty());
    }
    EXPECT_EQ(check({plugins(), root(), plugins() / plugin, services() / service}).countOfFiles(),
              2U);
}

TEST_F(Check, TakesAFolderInATree) {
    std::filesystem::create_directories(plugins() / "a");
    std::filesystem::create_directories(services() / "b");
    const std::string plugin = addChecked("Good");
    std::filesystem::rename(plugins() / plugin, plugins() / "a" / plugin);
    addProgram("b/ketra-test-check-program");
    EXPECT_EQ(check({plugins() / "a"}).file(plugin)->getValue<std::string>("kind"), "plugin");
    EXPECT_EQ(check({(services() / "b").string() + "/"})
                  .file("ketra-test-check-program")
                  ->getValue<std::string>("kind"),
              "service");
}

TEST_F(Check, NamesWhatOthersCanChange) {
    const std::string name = addChecked("Good");
    std::filesystem::permissions(plugins() / name, std::filesystem::perms(0775));
    std::filesystem::permissions(services(), std::filesystem::perms(0777));
    const CheckRun found = checkRoot();
    EXPECT_EQ(found.code, 1);
    EXPECT_THAT(found.findings(name), ElementsAre("fault others-can-change"));
    EXPECT_THAT(found.findings("microservices"), ElementsAre("fault others-can-change"));
    EXPECT_EQ(found.file("microservices")->getValue<std::string>("kind"), "folder");
    EXPECT_THAT(found.text, HasSubstr("chmod go-w " + (plugins() / name).string()));
    EXPECT_EQ(found.faults(), 2);
}

TEST_F(Check, NamesWhatIsOnTheWayToBothTreesOnce) {
    std::filesystem::permissions(root(), std::filesystem::perms(0777));
    const CheckRun found = checkRoot();
    EXPECT_THAT(found.findings("root"), ElementsAre("fault others-can-change"));
    EXPECT_EQ(found.faults(), 1);
}

TEST_F(Check, KnowsTheHostsUser) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give files to others";
    const std::string name = addChecked("Good");
    ASSERT_EQ(chown((plugins() / name).c_str(), 12345, 0), 0);
    EXPECT_THAT(checkRoot().findings(name), ElementsAre("fault others-can-change"));
    EXPECT_EQ(check({"--user", "12345", root()}).code, 0);
    EXPECT_EQ(run({"--user", "ketra-test-nobody", root()}).code, 64);
}

TEST_F(Check, FindsNothingInEmptyTrees) {
    const CheckRun found = checkRoot();
    EXPECT_EQ(found.code, 0);
    EXPECT_EQ(found.countOfFiles(), 0U);
}

TEST_F(Check, PutsNamesThatAreNoTextIntoItsDocument) {
    write(plugins() / "libKetraPlugin\xff\n.so", "");
    const CheckRun found = checkRoot();
    EXPECT_EQ(found.code, 1);
    EXPECT_EQ(found.faults(), 1);
    const CheckRun shown = run({root()});
    EXPECT_THAT(shown.text, HasSubstr("libKetraPlugin\xff?.so"));
}

TEST_F(Check, RefusesWhatDoesNotExistWith66) {
    for (const std::string& path : {(root() / "gone").string(), std::string("/dev/null")}) {
        const CheckRun found = run({path});
        EXPECT_EQ(found.code, 66);
        EXPECT_THAT(found.text, HasSubstr("'" + path + "'"));
    }
}

TEST_F(Check, RefusesABadCallWith64) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
        {{}, "name what to check"},
        {{folder.path()}, "neither a folder 'plugins' nor 'microservices'"},
        {{"--timeout", "0", root()}, "from 1 to 3600"},
        {{"--frobnicate", root()}, "--frobnicate"},
    };
    for (const auto& [arguments, text] : cases) {
        const CheckRun found = run(arguments);
        EXPECT_EQ(found.code, 64) << found.text;
        EXPECT_THAT(found.text, HasSubstr(text));
        EXPECT_THAT(found.text, testing::StartsWith("ketra check: "));
    }
}

} // namespace
} // namespace ktr::test
