#include "RunningTool.h"

#include "ktr/Version.h"

#include <Poco/PipeStream.h>
#include <Poco/Process.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace ktr::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using testing::UnorderedElementsAre;

constexpr int kUsage = 64;
constexpr int kSystem = 71;

const std::vector<std::string> kCommands{"new", "check", "report", "run", "completion"};

/// Runs the tool to its end.
class Frame : public testing::Test {
protected:
    int run(const std::vector<std::string>& arguments, const std::string& output = "") {
        RunningTool tool(arguments, output);
        const int code = tool.waitForExit().value_or(-1);
        out = tool.out();
        err = tool.err();
        return code;
    }

    std::string out;
    std::string err;
};

TEST_F(Frame, ListsItsCommands) {
    EXPECT_EQ(run({"--help"}), 0);
    EXPECT_THAT(out, StartsWith("usage: ketra COMMAND"));
    for (const std::string& command : kCommands)
        EXPECT_THAT(out, HasSubstr("\n  " + command + " ")) << command;
    EXPECT_EQ(err, "");
}

TEST_F(Frame, TellsItsVersion) {
    EXPECT_EQ(run({"--version"}), 0);
    EXPECT_EQ(out, "ketra " KTR_VERSION "\n");
}

TEST_F(Frame, HelpsWithEachCommandWhateverElseIsAsked) {
    for (const std::string& command : kCommands) {
        EXPECT_EQ(run({command, "no-such-thing", "--help"}), 0) << command;
        EXPECT_THAT(out, StartsWith("usage: ketra " + command + " "));
        EXPECT_THAT(out, HasSubstr("\nOptions:\n"));
        EXPECT_THAT(out, HasSubstr("\nExit codes:\n  0 "));
        EXPECT_EQ(err, "");
    }
}

TEST_F(Frame, TakesAHelpBehindTwoDashesForAnOperand) {
    EXPECT_EQ(run({"completion", "--", "--help"}), kUsage);
    EXPECT_EQ(out, "");
}

TEST_F(Frame, AsksForACommand) {
    EXPECT_EQ(run({}), kUsage);
    EXPECT_EQ(err, "ketra: name a command; see 'ketra --help'\n");
    EXPECT_EQ(run({"chek"}), kUsage);
    EXPECT_EQ(err, "ketra chek: there is no command 'chek'; see 'ketra --help'\n");
}

TEST_F(Frame, RefusesOptionsThatAreNone) {
    EXPECT_EQ(run({"check", "--no-such-option", "."}), kUsage);
    EXPECT_EQ(err, "ketra check: the option --no-such-option is not known, not clear or takes no "
                   "value; see 'ketra check --help'\n");
    EXPECT_EQ(run({"check", "--json=yes", "."}), kUsage);
    EXPECT_THAT(err, HasSubstr("--json=yes is not known, not clear or takes no value"));
    EXPECT_EQ(run({"check", ".", "--timeout"}), kUsage);
    EXPECT_EQ(err, "ketra check: --timeout needs a value\n");
    EXPECT_EQ(run({"check", "--timeout", "soon", "."}), kUsage);
    EXPECT_THAT(err, HasSubstr("--timeout takes a number from "));
    EXPECT_THAT(err, HasSubstr(", not 'soon'"));
    EXPECT_EQ(out, "");
}

TEST_F(Frame, TellsWhenItsOutputIsLost) {
    EXPECT_EQ(run({"--help"}, "/dev/full"), kSystem);
    EXPECT_EQ(err, "ketra: the output could not be written\n");
}

TEST_F(Frame, KnowsOnlyOneShell) {
    EXPECT_EQ(run({"completion", "zsh"}), kUsage);
    EXPECT_EQ(err, "ketra completion: name the shell: only 'bash' is known\n");
}

/// What bash offers for the last of `words`, with the real completion, in a folder that holds
/// "plugin.so".
std::vector<std::string> offered(const std::vector<std::string>& words) {
    const TempDir folder;
    std::ofstream(folder / "plugin.so") << "";
    std::string typed;
    for (const std::string& word : words)
        typed += " '" + word + "'";
    const std::string script = "eval \"$('" KETRA "' completion bash)\"; cd '" +
                               folder.path().string() + "'; COMP_WORDS=(" + typed +
                               "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _ketra; "
                               "printf '%s\\n' \"${COMPREPLY[@]}\"";
    Poco::Pipe pipe;
    const auto bash = Poco::Process::launch("bash", {"-c", script}, nullptr, &pipe, nullptr);
    Poco::PipeInputStream output(pipe);
    std::vector<std::string> lines;
    for (std::string line; std::getline(output, line);)
        if (!line.empty())
            lines.push_back(line);
    EXPECT_EQ(bash.wait(), 0);
    return lines;
}

TEST(Completion, OffersCommandsOptionsAndFiles) {
    EXPECT_THAT(offered({"ketra", "che"}), ElementsAre("check"));
    EXPECT_THAT(offered({"ketra", "re"}), ElementsAre("report"));
    EXPECT_THAT(offered({"ketra", "check", "--no"}), ElementsAre("--no-load"));
    EXPECT_THAT(offered({"ketra", "completion", "--"}), UnorderedElementsAre("--help"));
    EXPECT_THAT(offered({"ketra", "check", "pl"}), ElementsAre("plugin.so"));
    EXPECT_THAT(offered({"ketra", "run", "--service", ""}), ElementsAre("plugin.so"));
}

TEST(ManualPage, HoldsTheHelpOfEachCommand) {
    const std::string page = readFile(KETRA_MANUAL_PAGE);
    for (const std::string command : {"NEW", "CHECK", "REPORT", "RUN", "COMPLETION"})
        EXPECT_THAT(page, HasSubstr("\n.SH COMMAND " + command + "\n.nf\nusage: ketra "))
            << command;
    EXPECT_THAT(page, HasSubstr("\n.SH NAME\nketra \\- "));
}

} // namespace
} // namespace ktr::test
