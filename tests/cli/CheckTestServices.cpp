#include "CheckRun.h"

#include <cstdlib>
#include <elf.h>

namespace ktr::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST_F(Check, FindsNothingInServicesThatAreInOrder) {
    const std::vector<std::string> names{
        addProgram("ketra-test-check-program"),
        addScript("ketra-test-check-script", "#!/bin/sh\nexit 0\n"),
        addScript("ketra-test-check-blanks", "#! /bin/sh -e\nexit 0\n"),
        addScript("ketra-test-check-env", "#!/usr/bin/env -S -i A=1 sh -e\nexit 0\n"),
    };
    // what services have beside them
    write(services() / "settings.conf", "key = value\n");
    const CheckRun found = checkRoot();
    for (const std::string& name : names) {
        EXPECT_THAT(found.findings(name), IsEmpty()) << name << ": " << found.texts(name);
        EXPECT_EQ(found.file(name)->getValue<std::string>("kind"), "service");
    }
    EXPECT_EQ(found.countOfFiles(), names.size());
    EXPECT_EQ(found.code, 0);
}

TEST_F(Check, SaysWhatIsWrongWithTheFirstLineOfAScript) {
    write(folder / "no-program", "");
    const std::vector<std::tuple<std::string, std::string, std::string>> cases{
        {"missing", "#!/no/such/interpreter\n", "missing-interpreter"},
        {"folder", "#!/tmp\n", "missing-interpreter"},
        {"idle", "#!" + (folder / "no-program").string() + "\n", "interpreter-not-executable"},
        {"crlf", "#!/bin/sh\r\nexit 0\r\n", "script-crlf"},
        {"crlf-argument", "#!/bin/sh -e\r\nexit 0\r\n", "script-crlf"},
        {"relative", "#!sh\n", "relative-interpreter"},
        {"none", "#! \n", "bad-interpreter"},
        {"cut", "#!", "bad-interpreter"},
        {"env", "#!/usr/bin/env ketra-test-no-such-command\n", "missing-interpreter"},
        {"env-of-nothing", "#!/usr/bin/env -S\n", "bad-interpreter"},
        {"text", "exit 0\n", "not-a-program"},
        {"empty", "", "not-a-program"},
    };
    for (const auto& [name, text, rule] : cases)
        addScript("ketra-test-check-" + name, text);
    const CheckRun found = checkRoot();
    EXPECT_EQ(found.code, 1);
    for (const auto& [name, text, rule] : cases)
        EXPECT_THAT(found.findings("ketra-test-check-" + name), ElementsAre("fault " + rule))
            << name;
}

TEST_F(Check, GivesRemediesThatWorkAsTheyAre) {
    const std::string name = addScript("ketra-test-check-crlf it's", "#!/bin/sh\r\nexit 0\r\n");
    const CheckRun found = checkRoot();
    ASSERT_THAT(found.findings(name), ElementsAre("fault script-crlf"));
    const auto remedy =
        found.file(name)->getArray("findings")->getObject(0)->getValue<std::string>("remedy");
    ASSERT_EQ(std::system(remedy.substr(remedy.find(": ") + 2).c_str()), 0);
    EXPECT_THAT(checkRoot().findings(name), IsEmpty());
}

TEST_F(Check, HintsAtAProgramThatIsNotExecutable) {
    const std::string program = addProgram("ketra-test-check-program");
    std::filesystem::permissions(services() / program, std::filesystem::perms(0644));
    write(services() / "ketra-test-check-script", "#!/bin/sh\n");
    const CheckRun found = checkRoot();
    EXPECT_THAT(found.findings(program), ElementsAre("hint not-executable"));
    EXPECT_THAT(found.findings("ketra-test-check-script"), ElementsAre("hint not-executable"));
    EXPECT_EQ(found.code, 0);
}

TEST_F(Check, RefusesAServiceForAnotherMachine) {
    const std::string name = addProgram("ketra-test-check-program");
    patch(services() / name, EI_NIDENT + 2, EM_AVR);
    const CheckRun found = checkRoot();
    EXPECT_THAT(found.findings(name), ElementsAre("fault wrong-architecture"));
    EXPECT_EQ(found.code, 1);
}

TEST_F(Check, RefusesALibraryAmongTheServices) {
    install(KETRA_CHECKED "/needed/libketra-test-needed.so", services() / "libneeded.so");
    std::filesystem::permissions(services() / "libneeded.so", std::filesystem::perms(0755));
    CheckRun found = checkRoot();
    EXPECT_THAT(found.findings("libneeded.so"), ElementsAre("fault not-a-program"));
    EXPECT_EQ(found.code, 1);
    // it may well lie there
    std::filesystem::permissions(services() / "libneeded.so", std::filesystem::perms(0644));
    found = checkRoot();
    EXPECT_EQ(found.countOfFiles(), 0U);
    EXPECT_EQ(found.code, 0);
}

TEST_F(Check, NamesALibraryThatAServiceMisses) {
    const std::string name = "ketra-test-check-needy";
    install(KETRA_CHECKED "/ketra-test-needy-service", services() / name);
    const CheckRun found = checkRoot();
    EXPECT_THAT(found.findings(name), ElementsAre("fault missing-library"));
    EXPECT_THAT(found.texts(name), HasSubstr("libketra-test-needed.so"));
    EXPECT_EQ(found.code, 1);
}

TEST_F(Check, RefusesAProgramThatEndsEarly) {
    const std::string name = addProgram("ketra-test-check-program");
    std::filesystem::resize_file(services() / name,
                                 std::filesystem::file_size(services() / name) / 4);
    EXPECT_THAT(checkRoot().findings(name), ElementsAre("fault truncated"));
}

TEST_F(Check, NamesServicesThatShareAFileName) {
    std::filesystem::create_directory(services() / "a");
    std::filesystem::create_directory(services() / "b");
    for (const char* name :
         {"a/ketra-test-check-twin", "b/ketra-test-check-twin", "b/ketra-test-check-one"})
        addProgram(name);
    const CheckRun found = run({root()});
    EXPECT_EQ(found.code, 1);
    EXPECT_THAT(found.text, HasSubstr("has the file name of " +
                                      (services() / "b/ketra-test-check-twin").string()));
    EXPECT_THAT(found.text, HasSubstr("has the file name of " +
                                      (services() / "a/ketra-test-check-twin").string()));
    EXPECT_THAT(found.text, HasSubstr("3 paths checked: 2 faults, 0 hints\n"));
}

TEST_F(Check, RefusesTheNameOfAnotherProgram) {
    const std::string name = addProgram("sleep");
    CheckRun found = checkRoot();
    EXPECT_THAT(found.findings(name), ElementsAre("fault common-name"));
    EXPECT_THAT(found.texts(name), HasSubstr("/sleep"));
    EXPECT_EQ(found.code, 1);
    // that program itself it may be
    std::filesystem::remove(services() / name);
    std::filesystem::create_symlink("/usr/bin/sleep", services() / name);
    EXPECT_EQ(checkRoot().code, 0);
}

} // namespace
} // namespace ktr::test
