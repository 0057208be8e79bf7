#include "CheckRun.h"

#include <cstddef>
#include <elf.h>

namespace ktr::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST_F(Check, FindsNothingInAPluginThatIsInOrder) {
    const std::string name = addChecked("Good");
    const CheckRun found = checkRoot();
    EXPECT_THAT(found.findings(name), IsEmpty());
    EXPECT_EQ(found.code, 0);
    EXPECT_EQ(found.faults(), 0);
    EXPECT_EQ(found.hints(), 0);
    const auto report = found.file(name);
    EXPECT_EQ(report->getValue<std::string>("path"), plugins() / name);
    EXPECT_EQ(report->getValue<std::string>("kind"), "plugin");
    EXPECT_EQ(report->getValue<int>("type"), 42);
    EXPECT_EQ(report->getValue<std::string>("name"), "checked plugin");
    EXPECT_EQ(report->getValue<std::string>("guid"), "checked");
    EXPECT_TRUE(report->getValue<bool>("registered"));
}

TEST_F(Check, NamesEachEntryPointThatIsMissing) {
    const std::string name = addFixture("Bare");
    const CheckRun found = checkRoot();
    EXPECT_EQ(found.code, 1);
    EXPECT_EQ(found.faults(), 5);
    for (const char* entry :
         {"PluginLoad", "PluginUnLoad", "PluginType", "PluginName", "PluginGuid"})
        EXPECT_THAT(found.texts(name), HasSubstr(std::string("does not export ") + entry + "\n"));
    EXPECT_THAT(found.findings(name), Contains("fault missing-entry-point").Times(5));
    EXPECT_TRUE(found.file(name)->isNull("guid"));
    EXPECT_FALSE(found.file(name)->getValue<bool>("registered"));
}

TEST_F(Check, NamesTheOneEntryPointThatIsMissing) {
    for (const auto& [fixture, entry] :
         {std::pair("NoLoad", "PluginLoad"), std::pair("NoUnload", "PluginUnLoad"),
          std::pair("NoType", "PluginType"), std::pair("NoName", "PluginName"),
          std::pair("NoGuid", "PluginGuid")}) {
        const std::string name = addFixture(fixture);
        const CheckRun found = check({plugins() / name});
        EXPECT_EQ(found.code, 1) << name;
        EXPECT_THAT(found.findings(name),
                    ElementsAre("fault missing-entry-point", "hint no-build-note"));
        EXPECT_THAT(found.texts(name), HasSubstr(std::string("does not export ") + entry + "\n"));
    }
}

TEST_F(Check, NamesAnEntryPointThatIsNoFunction) {
    const std::string name = addChecked("Variable");
    const CheckRun found = check({"--no-load", root()});
    EXPECT_THAT(found.findings(name), ElementsAre("fault entry-point-no-function"));
    EXPECT_EQ(found.code, 1);
}

TEST_F(Check, RefusesALibraryForAnotherMachine) {
    const std::string machine = addChecked("Good");
    patch(plugins() / machine, EI_NIDENT + 2, EM_AVR);
    const std::string width = addFixture("Complete");
    patch(plugins() / width, EI_CLASS, ELFCLASS32);
    const std::string order = addFixture("Raises");
    patch(plugins() / order, EI_DATA, ELFDATA2MSB);
    const CheckRun found = checkRoot();
    EXPECT_EQ(found.code, 1);
    EXPECT_THAT(found.findings(machine), ElementsAre("fault wrong-architecture"));
    EXPECT_THAT(found.texts(machine), HasSubstr("machine 83"));
    for (const std::string& name : {width, order})
        EXPECT_THAT(found.findings(name), ElementsAre("fault wrong-architecture"));
    EXPECT_EQ(found.faults(), 3);
    EXPECT_TRUE(found.file(machine)->isNull("registered"));
}

TEST_F(Check, RefusesWhatIsNoLibrary) {
    write(plugins() / "libKetraPluginText.so", "not a library\n");
    write(plugins() / "libKetraPluginEmpty.so", "");
    install(KETRA_TEST_SERVICE, plugins() / "libKetraPluginProgram.so");
    const std::string cut = addChecked("Good");
    std::filesystem::resize_file(plugins() / cut, std::filesystem::file_size(plugins() / cut) / 4);
    write(plugins() / "libKetraPluginStart.so", readFile(plugins() / cut).substr(0, 40));
    // with no table of sections that could show it
    const std::string stripped = addChecked("OtherPoco");
    for (int at = offsetof(Elf64_Ehdr, e_shoff); at < int{offsetof(Elf64_Ehdr, e_flags)}; ++at)
        patch(plugins() / stripped, at, 0);
    std::filesystem::resize_file(plugins() / stripped, 4096);
    const CheckRun found = checkRoot();
    EXPECT_EQ(found.code, 1);
    EXPECT_THAT(found.findings(stripped), ElementsAre("fault truncated"));
    EXPECT_THAT(found.findings("libKetraPluginText.so"), ElementsAre("fault not-elf"));
    EXPECT_THAT(found.findings("libKetraPluginEmpty.so"), ElementsAre("fault not-elf"));
    EXPECT_THAT(found.findings("libKetraPluginProgram.so"), ElementsAre("fault not-shared"));
    EXPECT_THAT(found.findings(cut), ElementsAre("fault truncated"));
    EXPECT_THAT(found.findings("libKetraPluginStart.so"),
                ElementsAre(testing::AnyOf("fault truncated", "fault not-elf")));
}

TEST_F(Check, NamesAPluginThatTheHostWouldPassOverForItsName) {
    const std::string name = addChecked("Good");
    std::filesystem::rename(plugins() / name, plugins() / "libChecked.so");
    // what a plugin needs may lie beside it
    install(KETRA_CHECKED "/needed/libketra-test-needed.so", plugins() / "libketra-test-needed.so");
    CheckRun found = checkRoot();
    EXPECT_THAT(found.findings("libChecked.so"), ElementsAre("fault file-name"));
    EXPECT_EQ(found.countOfFiles(), 1U);
    EXPECT_EQ(found.code, 1);
    found = check({plugins() / "libChecked.so"});
    EXPECT_THAT(found.findings("libChecked.so"), ElementsAre("fault file-name"));
}

TEST_F(Check, NamesALibraryThatCannotBeFound) {
    const std::string name = addChecked("Needs");
    const CheckRun found = checkRoot();
    EXPECT_THAT(found.findings(name), ElementsAre("fault missing-library"));
    EXPECT_THAT(found.texts(name), HasSubstr("libketra-test-needed.so"));
    EXPECT_EQ(found.code, 1);
}

TEST_F(Check, SearchesLibrariesAsTheDynamicLinkerDoes) {
    const std::string name = addChecked("Needs");
    setenv("LD_LIBRARY_PATH", KETRA_CHECKED "/needed", 1);
    const CheckRun found = checkRoot();
    unsetenv("LD_LIBRARY_PATH");
    EXPECT_THAT(found.findings(name), IsEmpty());
    EXPECT_EQ(found.code, 0);
}

TEST_F(Check, NamesALibraryThatIsTooOld) {
    const std::string name = addChecked("Needs");
    setenv("LD_LIBRARY_PATH", KETRA_CHECKED "/older", 1);
    const CheckRun found = checkRoot();
    unsetenv("LD_LIBRARY_PATH");
    EXPECT_THAT(found.findings(name), ElementsAre("fault missing-version"));
    EXPECT_THAT(found.texts(name), HasSubstr("KETRA_TEST_2"));
    EXPECT_EQ(found.code, 1);
}

TEST_F(Check, SaysWhyTheDynamicLinkerRefusesALibrary) {
    const std::string name = addChecked("Good");
    patch(plugins() / name, offsetof(Elf64_Ehdr, e_version), 7);
    const CheckRun found = checkRoot();
    EXPECT_THAT(found.findings(name), ElementsAre("fault not-linked"));
    EXPECT_THAT(found.texts(name), HasSubstr("version"));
    EXPECT_EQ(found.code, 1);
}

TEST_F(Check, NamesASymbolThatNothingDefines) {
    const std::string name = addChecked("Unresolved");
    const CheckRun found = check({"--no-load", root()});
    EXPECT_THAT(found.findings(name), ElementsAre("fault unresolved-symbol"));
    EXPECT_THAT(found.texts(name), HasSubstr("'ketraTestUnresolved(int)'"));
    EXPECT_EQ(found.code, 1);
}

TEST_F(Check, TakesAMissingNoteForAHint) {
    const std::string name = addFixture("Complete");
    const CheckRun found = checkRoot();
    EXPECT_THAT(found.findings(name), ElementsAre("hint no-build-note"));
    EXPECT_EQ(found.hints(), 1);
    EXPECT_EQ(found.faults(), 0);
    EXPECT_EQ(found.code, 0);
}

TEST_F(Check, TakesHintsForFaultsIfAsked) {
    const std::string name = addFixture("Complete");
    const CheckRun found = check({"--strict", root()});
    EXPECT_THAT(found.findings(name), ElementsAre("fault no-build-note"));
    EXPECT_EQ(found.hints(), 0);
    EXPECT_EQ(found.faults(), 1);
    EXPECT_EQ(found.code, 1);
}

TEST_F(Check, ComparesWhatAPluginWasBuiltWith) {
    const std::string abi = addChecked("OtherAbi");
    const std::string ketra = addChecked("OtherKetra");
    const std::string poco = addChecked("OtherPoco");
    const std::string compiler = addChecked("OtherCompiler");
    const CheckRun found = check({"--no-load", root()});
    EXPECT_THAT(found.findings(abi), ElementsAre("fault other-cxx11-abi"));
    EXPECT_THAT(found.findings(ketra), ElementsAre("fault other-ketra"));
    EXPECT_THAT(found.findings(poco), ElementsAre("fault other-poco"));
    EXPECT_THAT(found.texts(poco), HasSubstr("POCO 1.9.4"));
    EXPECT_THAT(found.findings(compiler), ElementsAre("hint other-compiler"));
    EXPECT_THAT(found.texts(compiler), HasSubstr("'another 1.0'"));
    EXPECT_EQ(found.code, 1);
    EXPECT_EQ(check({"--no-load", plugins() / compiler}).code, 0);
}

TEST_F(Check, RunsNothingOfALibraryThatItOnlyLooksInto) {
    const std::string name = addChecked("Good");
    const CheckRun found = check({"--no-load", root()});
    EXPECT_EQ(found.code, 0);
    EXPECT_TRUE(found.file(name)->isNull("registered"));
    EXPECT_TRUE(found.file(name)->isNull("guid"));
    EXPECT_FALSE(std::filesystem::exists(notes()));
    // it would have been seen
    checkRoot();
    EXPECT_THAT(readFile(notes()), HasSubstr("static\n"));
}

} // namespace
} // namespace ktr::test
