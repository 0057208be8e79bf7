#pragma once

#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ktr::example::test {

inline std::string exampleService(const std::string& name) {
    return std::string(KETRA_EXAMPLES_DIR) + "/microservices/" + name;
}

/// A process that writes its output to a file, and that is gone when the object is.
class ServiceProcess {
public:
    /// `environment` is added to ours: "NAME=value".
    ServiceProcess(const std::string& path, const std::vector<std::string>& arguments,
                   const std::string& outputFile_, const std::vector<std::string>& environment = {})
        : outputFile(outputFile_) {
        std::vector<std::string> texts{path};
        texts.insert(texts.end(), arguments.begin(), arguments.end());
        std::vector<std::string> variables = environment;
        for (char** entry = environ; *entry != nullptr; ++entry)
            variables.emplace_back(*entry);
        start(path, pointers(texts), pointers(variables));
    }
    ~ServiceProcess() {
        if (exitCode)
            return;
        // asked first, since a script that is killed leaves its children
        signal(SIGTERM);
        if (!waitForEnd()) {
            signal(SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    }
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

    pid_t id() const { return pid; }
    void signal(int number) const { ::kill(pid, number); }

    /// The exit code, or 256 and the signal that ended it; nothing if it runs beyond the deadline.
    std::optional<int> waitForEnd(std::chrono::milliseconds deadline = std::chrono::seconds(10)) {
        ktr::test::waitUntil(
            [this] {
                int status = 0;
                if (!exitCode && ::waitpid(pid, &status, WNOHANG) == pid)
                    exitCode = WIFSIGNALED(status) ? 256 + WTERMSIG(status) : WEXITSTATUS(status);
                return exitCode.has_value();
            },
            deadline);
        return exitCode;
    }

    std::string output() const {
        std::ifstream in(outputFile);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }

private:
    static std::vector<char*> pointers(std::vector<std::string>& texts) {
        std::vector<char*> found;
        found.reserve(texts.size() + 1);
        for (std::string& text : texts)
            found.push_back(text.data());
        found.push_back(nullptr);
        return found;
    }

    void start(const std::string& path, const std::vector<char*>& arguments,
               const std::vector<char*>& environment) {
        posix_spawn_file_actions_t files{};
        posix_spawn_file_actions_init(&files);
        posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, outputFile.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_adddup2(&files, STDOUT_FILENO, STDERR_FILENO);
        const int error = ::posix_spawn(&pid, path.c_str(), &files, nullptr, arguments.data(),
                                        environment.data());
        posix_spawn_file_actions_destroy(&files);
        if (error != 0)
            throw std::runtime_error("cannot start " + path);
    }

    const std::string outputFile;
    pid_t pid = 0;
    std::optional<int> exitCode;
};

} // namespace ktr::example::test
