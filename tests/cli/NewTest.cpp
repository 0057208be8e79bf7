#include "support/ChildProcess.h"
#include "support/TempDir.h"

#include <Poco/RegularExpression.h>
#include <Poco/UUID.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <utility>
#include <vector>

namespace ktr::cli::test {
namespace {

namespace fs = std::filesystem;
using ktr::test::TempDir;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Key;

constexpr int kUsage = 64;
constexpr int kNoInput = 66;
constexpr int kSoftware = 70;
constexpr int kCannotCreate = 73;

std::string readFile(const fs::path& file) {
    std::ifstream in(file);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

struct Outcome {
    int code = -1;
    std::string output;
};

/// What the first pair of parentheses in `pattern` stands for; empty if it does not match.
std::string find(const std::string& pattern, const std::string& text) {
    std::vector<std::string> found{"", ""};
    Poco::RegularExpression(pattern).split(text, found);
    return found.size() < 2 ? "" : found[1];
}

/// What was made below a folder: the files' texts by their names.
std::map<std::string, std::string> filesOf(const fs::path& folder) {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(folder))
        if (entry.is_regular_file())
            files[entry.path().lexically_relative(folder).string()] = readFile(entry.path());
    return files;
}

class New : public testing::Test {
protected:
    Outcome run(std::vector<std::string> words, const std::string& tool = KETRA_TOOL) const {
        const std::string output = (outputs / "output").string();
        fs::remove(output);
        // the shell goes to the folder, and becomes the tool there
        std::vector<std::string> command{"/bin/sh", "-c", R"(cd "$0" && exec "$@")",
                                         work.path().string(), tool};
        command.emplace_back("new");
        command.insert(command.end(), words.begin(), words.end());
        const int status = ktr::test::ChildProcess(command, output).wait();
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(output)};
    }

    /// A copy of the tool with templates of its own.
    std::string toolWithTemplates() const {
        fs::create_directories(prefix / "bin");
        fs::create_directories(prefix / "share/ketra");
        fs::copy(KETRA_TOOL, prefix / "bin/ketra");
        // which the tool looks for beside itself
        fs::create_directory_symlink(KETRA_LIBRARIES, prefix / "lib");
        fs::copy(KETRA_TEMPLATES, templates(), fs::copy_options::recursive);
        return (prefix / "bin/ketra").string();
    }
    fs::path templates() const { return prefix / "share/ketra/templates"; }

    /// Makes a service in shell that is called hello in a fresh folder; returns its guid.
    std::string freshGuid(const std::string& folder) const {
        const Outcome made = run({"service", "hello", "--directory", folder, "--language=shell"});
        EXPECT_EQ(0, made.code) << made.output;
        return find("\nguid=(.*)\n", readFile(work / folder / "ketra-hello"));
    }

    TempDir work;
    TempDir outputs;
    TempDir prefix;
};

void expectFilledIn(const std::map<std::string, std::string>& files) {
    const std::string placeholder = "(@\\w*@)";
    for (const auto& [name, text] : files) {
        EXPECT_EQ("", find(placeholder, name));
        EXPECT_EQ("", find(placeholder, text)) << name;
        EXPECT_FALSE(text.empty()) << name;
        EXPECT_NE(".in", fs::path(name).extension());
    }
}

TEST_F(New, makesAPluginWithItsService) {
    const Outcome made = run({"plugin", "hello-world"});
    ASSERT_EQ(0, made.code) << made.output;
    auto files = filesOf(work / "hello-world");
    expectFilledIn(files);
    for (const char* name : {"CMakeLists.txt", "HelloWorldPlugin.cpp", "README.md", ".gitignore",
                             "ketra-hello-world", "test/HelloWorldPluginTest.cpp"})
        EXPECT_THAT(files, Contains(Key(name)));
    EXPECT_THAT(files["CMakeLists.txt"],
                HasSubstr("ketra_add_plugin(KetraPluginHelloWorld HelloWorldPlugin.cpp)"));
    EXPECT_THAT(files["README.md"], HasSubstr(KETRA_VERSION));
}

TEST_F(New, givesPluginAndServiceOneGuid) {
    ASSERT_EQ(0, run({"plugin", "hello"}).code);
    auto files = filesOf(work / "hello");
    const std::string guid =
        find(R"x(KETRA_PLUGIN\(HelloPlugin, 1, "hello", "(.*)"\);)x", files["HelloPlugin.cpp"]);
    EXPECT_EQ(36U, guid.size());
    EXPECT_THAT(files["ketra-hello"], HasSubstr("guid=" + guid + "\n"));
}

TEST_F(New, makesAServiceInCpp) {
    const Outcome made = run({"service", "hello-world"});
    ASSERT_EQ(0, made.code) << made.output;
    const auto files = filesOf(work / "hello-world");
    expectFilledIn(files);
    for (const char* name :
         {"CMakeLists.txt", "main.cpp", "README.md", "test/HelloWorldServiceTest.cpp"})
        EXPECT_THAT(files, Contains(Key(name)));
    EXPECT_THAT(files.at("CMakeLists.txt"), HasSubstr("add_executable(ketra-hello-world "));
}

TEST_F(New, makesAServiceInShell) {
    const Outcome made = run({"service", "hello-world", "--language", "shell"});
    ASSERT_EQ(0, made.code) << made.output;
    const auto files = filesOf(work / "hello-world");
    expectFilledIn(files);
    for (const char* name :
         {"CMakeLists.txt", "ketra-hello-world", "README.md", "test/service-test"})
        EXPECT_THAT(files, Contains(Key(name)));
    EXPECT_THAT(files, testing::Not(Contains(Key("main.cpp"))));
}

TEST_F(New, makesScriptsExecutableAndNothingElse) {
    ASSERT_EQ(0, run({"plugin", "hello"}).code);
    for (const auto& entry : fs::recursive_directory_iterator(work / "hello")) {
        if (!entry.is_regular_file())
            continue;
        const bool executable =
            (entry.status().permissions() & fs::perms::owner_exec) != fs::perms::none;
        EXPECT_EQ(readFile(entry.path()).rfind("#!", 0) == 0, executable) << entry.path();
    }
}

TEST_F(New, takesAFreshRandomGuidEachTime) {
    const std::string first = freshGuid("one");
    const std::string second = freshGuid("two");
    EXPECT_NE(first, second);
    for (const std::string& guid : {first, second}) {
        Poco::UUID parsed;
        EXPECT_TRUE(parsed.tryParse(guid)) << guid;
        EXPECT_EQ(Poco::UUID::UUID_RANDOM, parsed.version());
        EXPECT_EQ(parsed.toString(), guid);
    }
}

TEST_F(New, takesTheGuidOfAPluginForAService) {
    const std::string guid = "5b96fd8a-5dfa-4914-9762-b139a8ed62bd";
    ASSERT_EQ(0, run({"service", "hello", "--guid", guid}).code);
    EXPECT_THAT(readFile(work / "hello/main.cpp"), HasSubstr("\"" + guid + "\""));
}

TEST_F(New, refusesWhatIsNoGuidInLowerCase) {
    for (const char* guid :
         {"", "x", "5B96FD8A-5DFA-4914-9762-B139A8ED62BD", "5b96fd8a5dfa49149762b139a8ed62bd",
          "5b96fd8a-5dfa-4914-9762-b139a8ed62b", "@name@"}) {
        const Outcome refused = run({"service", "hello", "--guid", guid});
        EXPECT_EQ(kUsage, refused.code) << guid;
        EXPECT_THAT(refused.output, HasSubstr("UUID in lower case")) << guid;
    }
    EXPECT_THAT(filesOf(work.path()), IsEmpty());
}

TEST_F(New, takesNamesOfLettersDigitsAndSeparators) {
    const std::vector<std::pair<std::string, std::string>> names{
        {"a", "A"},
        {"hello_world", "HelloWorld"},
        {"my-2nd_plugin", "My2ndPlugin"},
        {"HTTP-", "HTTP"},
        {std::string(40, 'x'), "X" + std::string(39, 'x')}};
    for (const auto& [name, className] : names) {
        EXPECT_EQ(0, run({"plugin", name}).code) << name;
        EXPECT_TRUE(fs::exists(work / name / (className + "Plugin.cpp"))) << name;
        EXPECT_TRUE(fs::exists(work / name / ("ketra-" + name))) << name;
    }
}

TEST_F(New, refusesOtherNamesWithTheRule) {
    const std::vector<std::string> names{"",        "1a",
                                         "-",       "_a",
                                         "a b",     "a.b",
                                         "a/b",     "../a",
                                         "a@name@", "gr\xc3\xbc\xc3\x9f",
                                         "a\nb",    std::string(41, 'x')};
    for (const std::string& name : names) {
        const Outcome refused = run({"plugin", "--", name});
        EXPECT_EQ(kUsage, refused.code) << name;
        EXPECT_THAT(
            refused.output,
            HasSubstr("begins with a letter and has at most 40 letters, digits, '-' and '_'"))
            << name;
    }
    EXPECT_THAT(filesOf(work.path()), IsEmpty());
}

TEST_F(New, refusesTheNameWhoseServiceWouldEndTheHost) {
    const Outcome refused = run({"service", "host"});
    EXPECT_EQ(kUsage, refused.code);
    EXPECT_THAT(refused.output, HasSubstr("ketra-host"));
    EXPECT_EQ(0, run({"service", "hosts"}).code);
}

TEST_F(New, refusesWhatItDoesNotMake) {
    const std::vector<std::vector<std::string>> lines{
        {},
        {"plugin"},
        {"host", "hello"},
        {"plugin", "hello", "more"},
        {"plugin", "hello", "--language", "shell"},
        {"plugin", "hello", "--guid", "5b96fd8a-5dfa-4914-9762-b139a8ed62bd"},
        {"service", "hello", "--language", "perl"},
        {"service", "hello", "--directory"}};
    for (const auto& line : lines)
        EXPECT_EQ(kUsage, run(line).code) << testing::PrintToString(line);
    EXPECT_THAT(filesOf(work.path()), IsEmpty());
}

TEST_F(New, makesTheFolderThatIsNamedAndTheWayThere) {
    ASSERT_EQ(0, run({"plugin", "hello", "--directory", "a/b/c/"}).code);
    EXPECT_TRUE(fs::exists(work / "a/b/c/HelloPlugin.cpp"));
}

TEST_F(New, usesAFolderThatIsEmpty) {
    fs::create_directory(work / "folder");
    fs::create_directory_symlink("folder", work / "link");
    ASSERT_EQ(0, run({"plugin", "hello", "--directory", "link"}).code);
    EXPECT_TRUE(fs::exists(work / "folder/HelloPlugin.cpp"));
}

TEST_F(New, usesTheFolderInWhichItIsCalled) {
    ASSERT_EQ(0, run({"plugin", "hello", "--directory", "."}).code);
    EXPECT_TRUE(fs::exists(work / "HelloPlugin.cpp"));
}

TEST_F(New, leavesAFolderThatIsNotEmptyAsItIs) {
    fs::create_directory(work / "hello");
    std::ofstream(work / "hello/CMakeLists.txt") << "mine";
    const Outcome refused = run({"plugin", "hello"});
    EXPECT_EQ(kCannotCreate, refused.code);
    EXPECT_THAT(refused.output, HasSubstr("--directory"));
    const std::map<std::string, std::string> before{{"CMakeLists.txt", "mine"}};
    EXPECT_EQ(before, filesOf(work / "hello"));
}

TEST_F(New, leavesAFileThatBearsTheNameAsItIs) {
    std::ofstream(work / "hello") << "mine";
    EXPECT_EQ(kCannotCreate, run({"plugin", "hello"}).code);
    EXPECT_EQ(kCannotCreate, run({"plugin", "hello", "--directory", "hello/below"}).code);
    EXPECT_EQ("mine", readFile(work / "hello"));
}

TEST_F(New, takesBackWhatItMadeWhenItFailsInTheMiddle) {
    const std::string tool = toolWithTemplates();
    // the last of the layers, so that others are made before
    std::ofstream(templates() / "service-shell/bad.in") << "@unknown@";
    const Outcome failed =
        run({"service", "hello", "--language", "shell", "--directory", "a/b"}, tool);
    EXPECT_EQ(kSoftware, failed.code);
    EXPECT_THAT(failed.output, HasSubstr("bad.in: the placeholder @unknown@ is not known"));
    EXPECT_TRUE(fs::is_empty(work.path()));
}

TEST_F(New, leavesTheEmptyFolderThatWasThereWhenItFails) {
    const std::string tool = toolWithTemplates();
    std::ofstream(templates() / "plugin/.gitignore.in") << "again";
    fs::create_directory(work / "hello");
    EXPECT_EQ(kCannotCreate, run({"plugin", "hello"}, tool).code);
    EXPECT_TRUE(fs::is_empty(work / "hello"));
}

TEST_F(New, namesThePackageThatBringsTheTemplates) {
    const std::string tool = toolWithTemplates();
    fs::remove_all(templates());
    const Outcome failed = run({"plugin", "hello"}, tool);
    EXPECT_EQ(kNoInput, failed.code);
    EXPECT_THAT(failed.output, HasSubstr("install the package ketra-dev"));
    EXPECT_TRUE(fs::is_empty(work.path()));
}

TEST_F(New, replacesNothingInWhatItFillsIn) {
    const std::string tool = toolWithTemplates();
    std::ofstream(templates() / "common/mail.in") << "@name@@Class@ a@b @ @@ @guid";
    ASSERT_EQ(0, run({"service", "hello"}, tool).code);
    EXPECT_EQ("helloHello a@b @ @@ @guid", readFile(work / "hello/mail"));
}

} // namespace
} // namespace ktr::cli::test
