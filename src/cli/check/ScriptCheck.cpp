#include "ScriptCheck.h"

#include "SearchPath.h"

#include "host/ShellCommand.h"

#include <Poco/StringTokenizer.h>

#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace ktr::cli {
namespace {

// what the kernel looks at
constexpr std::size_t kLongestLine = 255;

std::string firstLine(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::string line(kLongestLine, '\0');
    in.read(line.data(), static_cast<std::streamsize>(line.size()));
    line.resize(static_cast<std::size_t>(in.gcount()));
    return line.substr(0, line.find('\n'));
}

bool isFile(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

/// The command that "env" is to run.
std::string commandOf(const Poco::StringTokenizer& words) {
    for (std::size_t i = 1; i < words.count(); ++i)
        if (words[i].front() != '-' && words[i].find('=') == std::string::npos)
            return words[i];
    return "";
}

void checkEnv(const Poco::StringTokenizer& words, FileReport& report) {
    const std::string command = commandOf(words);
    if (command.empty())
        report.fault("bad-interpreter",
                     "names no command behind " + words[0] + " in its first line",
                     "name the interpreter, as in: #!/bin/sh");
    else if (command.find('/') == std::string::npos && findProgram(command).empty())
        report.fault("missing-interpreter",
                     "wants to be run by " + command + ", which is not found in PATH",
                     "install it, or name another interpreter in the first line");
}

} // namespace

void checkScript(FileReport& report) {
    const std::string line = firstLine(report.path);
    if (line.rfind("#!", 0) != 0) {
        report.fault("not-a-program", "is neither an ELF file nor a script with an interpreter",
                     "begin it with a line such as #!/bin/sh, or see that it is not launched: " +
                         host::shellCommand("chmod a-x", report.path));
        return;
    }
    const Poco::StringTokenizer words(line.substr(2), " \t",
                                      Poco::StringTokenizer::TOK_IGNORE_EMPTY);
    const std::string interpreter = words.count() == 0 ? "" : words[0];
    if (line.back() == '\r')
        report.fault("script-crlf",
                     "ends its lines with CR and LF, and the CR is taken for part of the "
                     "interpreter's name or argument",
                     "take them away: " + host::shellCommand("sed -i 's/\\r$//'", report.path));
    else if (interpreter.empty())
        report.fault("bad-interpreter", "names no interpreter in its first line",
                     "name one, as in: #!/bin/sh");
    else if (interpreter.front() != '/')
        report.fault("relative-interpreter",
                     "names its interpreter '" + interpreter +
                         "' without a folder, which is sought in the current one",
                     "name it with its whole path, as in: #!/bin/sh");
    else if (!isFile(interpreter))
        report.fault("missing-interpreter",
                     "wants to be run by " + interpreter + ", which is not there",
                     "install it, or name another interpreter in the first line");
    else if (access(interpreter.c_str(), X_OK) != 0)
        report.fault("interpreter-not-executable",
                     "wants to be run by " + interpreter + ", which is not executable",
                     "make that executable, or name another interpreter in the first line");
    else if (interpreter.substr(interpreter.rfind('/') + 1) == "env")
        checkEnv(words, report);
}

} // namespace ktr::cli
