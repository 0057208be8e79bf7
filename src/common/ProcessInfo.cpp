#include "ProcessInfo.h"

#include "FolderNames.h"
#include "ktr/common/Logger.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace ktr {
namespace {

// A script stands behind its interpreter and the few arguments that a "#!" line may carry.
constexpr std::size_t kLeadingArguments = 5;
constexpr std::size_t kKernelNameLength = 15;
// The kernel reads no more of a script's first line.
constexpr std::size_t kFirstLineLength = 256;
// Enough for the leading arguments whatever the length of their paths.
constexpr std::size_t kArgumentsLength = 32768;

using Arguments = std::vector<std::string>;

std::string processFile(pid_t pid, const char* file) {
    return "/proc/" + std::to_string(pid) + "/" + file;
}

std::string fileName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

std::string asKernelName(const std::string& name) {
    return name.substr(0, kKernelNameLength);
}

/// At most the first `most` bytes of a file; empty if it cannot be read. Not a stream, which a
/// process that another thread starts just then would inherit.
std::string readStart(const std::string& path, std::size_t most) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (file < 0)
        return "";
    std::string text;
    std::array<char, 4096> part{};
    while (text.size() < most) {
        const ssize_t got = read(file, part.data(), std::min(part.size(), most - text.size()));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        text.append(part.data(), static_cast<std::size_t>(got));
    }
    close(file);
    return text;
}

Arguments leadingArguments(const std::string& commandLine) {
    std::istringstream text(commandLine);
    Arguments arguments;
    std::string argument;
    while (arguments.size() < kLeadingArguments && std::getline(text, argument, '\0'))
        arguments.push_back(argument);
    return arguments;
}

/// What the link to the executable tells.
struct Executable {
    /// Kernel threads and zombies have none.
    bool exists = false;
    /// Empty if it is kept from us, as another user's is.
    std::string name;
};

Executable executableOf(pid_t pid) {
    std::array<char, PATH_MAX> target;
    const ssize_t length = readlink(processFile(pid, "exe").c_str(), target.data(), target.size());
    if (length < 0)
        return {errno != ENOENT && errno != ESRCH, ""};
    std::string path(target.data(), static_cast<std::size_t>(length));
    constexpr std::string_view kDeleted = " (deleted)";
    if (path.size() > kDeleted.size() &&
        path.compare(path.size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0)
        path.resize(path.size() - kDeleted.size());
    return {true, fileName(path)};
}

/// A path as the process `pid` sees it, for us to open.
std::string seenBy(pid_t pid, const std::string& path) {
    return path.front() == '/' ? processFile(pid, "root") + path
                               : processFile(pid, "cwd") + "/" + path;
}

/// The program that a script's first line names, and the arguments that come before the script.
struct Interpreter {
    std::string name;
    Arguments arguments;
};

Interpreter parseFirstLine(const std::string& line) {
    std::istringstream words(line);
    std::string word;
    words >> word;
    Interpreter found{fileName(word), {}};
    if (found.name != "env") {
        // the kernel hands on the rest of the line as one argument
        if (std::getline(words >> std::ws, word)) {
            word.erase(word.find_last_not_of(" \t") + 1);
            found.arguments.push_back(word);
        }
        return found;
    }
    words >> word;
    if (word.compare(0, 2, "-S") == 0) {
        word.erase(0, 2);
        if (word.empty())
            words >> word;
    }
    found.name = fileName(word);
    while (words >> word)
        found.arguments.push_back(word);
    return found;
}

/// Empty name: `path` is no script.
Interpreter interpreterOf(const std::string& path) {
    struct stat status {};
    // whatever is no regular file could block whoever opens it
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
        return {};
    const std::string start = readStart(path, kFirstLineLength);
    if (start.compare(0, 2, "#!") != 0)
        return {};
    return parseFirstLine(start.substr(2, start.find('\n') - 2));
}

/// The script that the kernel was asked to execute: it names the process after the script, not
/// after the interpreter.
std::string executedScript(const Arguments& arguments, const std::string& kernelGiven) {
    for (std::size_t i = 1; i < arguments.size(); ++i)
        if (asKernelName(fileName(arguments[i])) == kernelGiven)
            return fileName(arguments[i]);
    return "";
}

/// The script that an interpreter was asked to run, by "env" or by hand. What it was asked to do
/// with the file is not visible, so the file must name that interpreter itself: an editor or a
/// search that is given the script as an argument is not the script.
std::string interpretedScript(pid_t pid, const Arguments& arguments,
                              const std::string& kernelGiven) {
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        if (arguments[i].empty())
            continue;
        const Interpreter interpreter = interpreterOf(seenBy(pid, arguments[i]));
        if (interpreter.name.empty() || interpreter.name != fileName(arguments[0]) ||
            asKernelName(interpreter.name) != kernelGiven)
            continue;
        const Arguments before(arguments.begin() + 1,
                               arguments.begin() + static_cast<std::ptrdiff_t>(i));
        if (before.empty() || before == interpreter.arguments)
            return fileName(arguments[i]);
    }
    return "";
}

/// Whether `path`, as the process sees it, leads to its executable.
bool isExecutableOf(pid_t pid, const std::string& path) {
    struct stat file {};
    struct stat executable {};
    return path.find('/') != std::string::npos && stat(seenBy(pid, path).c_str(), &file) == 0 &&
           stat(processFile(pid, "exe").c_str(), &executable) == 0 &&
           file.st_dev == executable.st_dev && file.st_ino == executable.st_ino;
}

} // namespace

std::string kernelName(pid_t pid) {
    std::string name = readStart(processFile(pid, "comm"), 64);
    // only the last line break is not part of the name
    if (!name.empty())
        name.pop_back();
    return name;
}

ProcessStatus processStatus(pid_t pid) {
    const std::string text = readStart(processFile(pid, "stat"), 1024);
    ProcessStatus status;
    // the name in front may contain spaces and brackets itself
    const std::size_t name = text.rfind(") ");
    if (name != std::string::npos && text.size() > name + 4) {
        status.state = text[name + 2];
        std::from_chars(text.data() + name + 4, text.data() + text.size(), status.parent);
    }
    return status;
}

std::vector<pid_t> allProcesses() {
    std::vector<std::string> names;
    const int error = appendNames("/proc", "", names);
    if (error != 0 && cachedLogger().error())
        cachedLogger().error(std::string("cannot list the processes in /proc: ") +
                                 std::strerror(error) + "; see that /proc is mounted",
                             __FILE__, __LINE__);
    std::vector<pid_t> found;
    for (const std::string& name : names) {
        pid_t pid = 0;
        const auto [end, failed] = std::from_chars(name.data(), name.data() + name.size(), pid);
        if (failed == std::errc() && end == name.data() + name.size())
            found.push_back(pid);
    }
    return found;
}

bool runsProgram(pid_t pid, const std::string& name) {
    const Executable executable = executableOf(pid);
    if (!executable.exists)
        return false;
    const std::string commandLine = readStart(processFile(pid, "cmdline"), kArgumentsLength);
    // most processes are done with here, before their arguments are told apart
    if (executable.name != name && commandLine.find(name) == std::string::npos)
        return false;
    const Arguments arguments = leadingArguments(commandLine);
    const bool named = std::any_of(arguments.begin(), arguments.end(),
                                   [&](const auto& text) { return fileName(text) == name; });
    // and nearly all others here, before any file that they mention is opened
    if (executable.name != name && !named)
        return false;

    const std::string kernelGiven = kernelName(pid);
    const std::string interpreted = interpretedScript(pid, arguments, kernelGiven);
    if (!interpreted.empty())
        return interpreted == name;
    if (!arguments.empty() && asKernelName(fileName(arguments[0])) == kernelGiven) {
        if (executable.name == name)
            return true;
        // Nothing better than its own word is known of a process whose executable is kept from us.
        // Ending it will most likely be refused, and that is worth a line in the log.
        return fileName(arguments[0]) == name &&
               (executable.name.empty() || isExecutableOf(pid, arguments[0]));
    }
    if (kernelGiven != asKernelName(executable.name)) {
        const std::string executed = executedScript(arguments, kernelGiven);
        if (!executed.empty())
            return executed == name;
    }
    return executable.name == name;
}

} // namespace ktr
