#pragma once

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace ktr::test {

/// A program that runs while the object lives; its output goes to a file.
class ChildProcess {
public:
    ChildProcess(std::vector<std::string> command, const std::string& outputFile) {
        std::vector<char*> arguments;
        arguments.reserve(command.size() + 1);
        for (std::string& argument : command)
            arguments.push_back(argument.data());
        arguments.push_back(nullptr);

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outputFile.c_str(),
                                         O_WRONLY | O_CREAT | O_APPEND, 0600);
        posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
        const int error =
            posix_spawn(&pid, arguments[0], &actions, nullptr, arguments.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (error != 0)
            throw std::runtime_error("cannot start " + command[0]);
    }
    ~ChildProcess() { end(SIGKILL); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// Sends a signal, and waits for the end; does nothing if it has ended.
    void end(int signal) {
        if (pid > 0) {
            kill(pid, signal);
            wait();
        }
    }

    /// Waits for the end; returns what waitpid said.
    int wait() {
        int status = 0;
        while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
        }
        pid = -1;
        return status;
    }

    /// Notices an end without waiting for it.
    bool isRunning() {
        if (pid > 0 && waitpid(pid, nullptr, WNOHANG) == pid)
            pid = -1;
        return pid > 0;
    }

    /// -1 once its end was noticed.
    pid_t id() const { return pid; }

    void signal(int number) const {
        if (pid > 0)
            kill(pid, number);
    }

private:
    pid_t pid = -1;
};

} // namespace ktr::test
