#pragma once

#include "support/HostProcess.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <array>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace ktr::test {

/// The real command line tool as a process, whose input the test types; it makes its temporary
/// files in a folder of its own. Killed when the object goes.
class RunningTool {
public:
    /// `output`: a file, a device or, as "fd:N", a descriptor of ours; none: a file that out()
    /// reads.
    explicit RunningTool(const std::vector<std::string>& arguments,
                         const std::string& output = "") {
        std::filesystem::create_directory(temporary());
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) != 0)
            throw std::runtime_error("no pipe");
        input = ends[1];
        spawn(arguments, ends[0], output);
        close(ends[0]);
    }
    ~RunningTool() {
        endInput();
        if (!status) {
            kill(process, SIGKILL);
            waitForExit();
        }
        // the last thing that goes, however the tool ended
        waitUntil([this] { return isTidy(); });
    }
    RunningTool(const RunningTool&) = delete;
    RunningTool& operator=(const RunningTool&) = delete;

    void type(const std::string& text) const {
        for (std::size_t done = 0; done < text.size();) {
            const ssize_t written = write(input, text.data() + done, text.size() - done);
            if (written < 0)
                throw std::runtime_error("the tool does not read");
            done += static_cast<std::size_t>(written);
        }
    }
    void endInput() {
        if (input >= 0)
            close(input);
        input = -1;
    }

    pid_t pid() const { return process; }
    void signal(int number) const { kill(process, number); }

    std::string out() const { return readFile(folder / "out"); }
    std::string err() const { return readFile(folder / "err"); }
    std::vector<std::string> outLines() const { return readLines(folder / "out"); }
    bool waitOut(const std::string& text, int times = 1) const {
        return waitUntil([&] { return countOf(out(), text) >= times; }, std::chrono::seconds(30));
    }
    bool waitErr(const std::string& text, int times = 1) const {
        return waitUntil([&] { return countOf(err(), text) >= times; }, std::chrono::seconds(30));
    }

    std::filesystem::path temporary() const { return folder / "tmp"; }
    /// Nothing temporary is left.
    bool isTidy() const { return std::filesystem::is_empty(temporary()); }

    /// The exit code, or 256 + the number of the signal that ended it; none if it still runs.
    std::optional<int> waitForExit(std::chrono::milliseconds time = std::chrono::seconds(40)) {
        waitUntil([this] { return hasExited(); }, time);
        return status;
    }
    bool hasExited() {
        int result = 0;
        if (!status && waitpid(process, &result, WNOHANG) == process)
            status = WIFEXITED(result) ? WEXITSTATUS(result) : 256 + WTERMSIG(result);
        return status.has_value();
    }

private:
    void spawn(const std::vector<std::string>& arguments, int reads, const std::string& output) {
        std::vector<std::string> words{KETRA};
        words.insert(words.end(), arguments.begin(), arguments.end());
        std::vector<std::string> variables{"TMPDIR=" + temporary().string()};
        for (char** each = environ; *each != nullptr; ++each)
            if (std::string(*each).rfind("TMPDIR=", 0) != 0)
                variables.emplace_back(*each);

        posix_spawn_file_actions_t files;
        posix_spawn_file_actions_init(&files);
        posix_spawn_file_actions_adddup2(&files, reads, 0);
        const std::string to = output.empty() ? (folder / "out").string() : output;
        if (to.rfind("fd:", 0) == 0)
            posix_spawn_file_actions_adddup2(&files, std::stoi(to.substr(3)), 1);
        else
            posix_spawn_file_actions_addopen(&files, 1, to.c_str(), O_CREAT | O_WRONLY | O_APPEND,
                                             0600);
        posix_spawn_file_actions_addopen(&files, 2, (folder / "err").c_str(),
                                         O_CREAT | O_WRONLY | O_APPEND, 0600);
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        sigset_t signals;
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&attributes, &signals);
        sigfillset(&signals);
        posix_spawnattr_setsigdefault(&attributes, &signals);
        const int error = posix_spawn(&process, KETRA, &files, &attributes,
                                      pointersTo(words).data(), pointersTo(variables).data());
        posix_spawn_file_actions_destroy(&files);
        posix_spawnattr_destroy(&attributes);
        if (error != 0)
            throw std::runtime_error("cannot run " KETRA);
    }

    static std::vector<char*> pointersTo(std::vector<std::string>& texts) {
        std::vector<char*> pointers;
        pointers.reserve(texts.size() + 1);
        for (std::string& text : texts)
            pointers.push_back(text.data());
        pointers.push_back(nullptr);
        return pointers;
    }

    TempDir folder;
    int input = -1;
    pid_t process = 0;
    std::optional<int> status;
};

} // namespace ktr::test
