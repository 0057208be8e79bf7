#include "Commands.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <csignal>
#include <iostream>

namespace ktr::cli {
namespace {

void printHelp() {
    std::cout << "usage: ketra COMMAND [OPTION...] [OPERAND...]\n"
                 "\n"
                 "Helps to write, check, try and run plugins and microservices of ketra-host.\n"
                 "\n"
                 "Commands:\n";
    for (const Command& command : commands())
        std::cout << "  " << command.name << std::string(12 - command.name.size(), ' ')
                  << command.summary << "\n";
    std::cout << "\n"
                 "Options:\n"
                 "  --help      show this and exit\n"
                 "  --version   show the version and exit\n"
                 "\n"
                 "'ketra COMMAND --help' shows a command's options and exit codes.\n";
}

const Command& commandCalled(const std::string& name) {
    const auto at = std::find_if(commands().begin(), commands().end(),
                                 [&](const Command& command) { return command.name == name; });
    if (at == commands().end())
        throw Failure(ExitUsage, "there is no command '" + name + "'; see 'ketra --help'");
    return *at;
}

int runCommandOf(std::vector<std::string> words) {
    const Command& command = commandCalled(words.front());
    words.erase(words.begin());
    const auto end = std::find(words.begin(), words.end(), "--");
    if (std::find(words.begin(), end, "--help") != end) {
        std::cout << command.help();
        return ExitSuccess;
    }
    return command.run(command.parse(words));
}

int runAll(const std::vector<std::string>& words) {
    if (words.empty())
        throw Failure(ExitUsage, "name a command; see 'ketra --help'");
    if (words.front() == "--help")
        printHelp();
    else if (words.front() == "--version")
        std::cout << "ketra " KETRA_VERSION "\n";
    else
        return runCommandOf(words);
    return ExitSuccess;
}

/// Also tells of output that got lost, as on a full disk.
int finish(int code) {
    if (std::cout.flush())
        return code;
    std::cerr << "ketra: the output could not be written\n";
    return ExitSystem;
}

} // namespace
} // namespace ktr::cli

int main(int argc, char** argv) {
    using namespace ktr::cli;
    const std::vector<std::string> words(argv + 1, argv + argc);
    const std::string name = words.empty() ? "ketra" : "ketra " + words.front();
    // a peer or reader that goes is an error like others
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return finish(runAll(words));
    } catch (const Failure& e) {
        std::cerr << name << ": " << e.what() << "\n";
        return e.exitCode();
    } catch (const Poco::Exception& e) {
        std::cerr << name << ": " << e.displayText() << "\n";
    } catch (const std::exception& e) {
        std::cerr << name << ": " << e.what() << "\n";
    }
    return ExitSoftware;
}
