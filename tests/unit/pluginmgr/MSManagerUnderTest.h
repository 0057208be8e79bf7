#pragma once

#include "ktr/MSManager.h"

#include "SystemCalls.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"
#include "support/fakes/FakeCommon.h"

#include <Poco/Exception.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace ktr::test {

constexpr auto kCritical = Poco::Message::PRIO_CRITICAL;
constexpr auto kError = Poco::Message::PRIO_ERROR;
constexpr auto kInformation = Poco::Message::PRIO_INFORMATION;
constexpr unsigned short kPort = 8123;

/// One start of a service, as it wrote it down itself.
struct Start {
    pid_t pid = 0;
    std::string arguments;
    std::string directory;
};

/// Services that are little shell scripts in a folder of their own. All of them are gone when the
/// object is.
class Services {
public:
    Services() {
        prefix = folder.path().filename().string() + "-";
        // A launch closes every descriptor up to the limit, one by one.
        getrlimit(RLIMIT_NOFILE, &formerLimit);
        const rlimit small{256, formerLimit.rlim_max};
        setrlimit(RLIMIT_NOFILE, &small);
    }
    ~Services() {
        for (const std::string& path : paths)
            for (const Start& start : starts(path))
                end(start.pid);
        setrlimit(RLIMIT_NOFILE, &formerLimit);
    }
    Services(const Services&) = delete;
    Services& operator=(const Services&) = delete;

    /// A service that notes its start and then runs `body`.
    std::string add(const std::string& name, const std::string& body) {
        std::string path = (folder / (prefix + name)).string();
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path) << "#!/bin/sh\ncd -P . && echo \"$$ $#:$1 $PWD\" >> \"$0.starts\"\n"
                            << body << "\n";
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
        paths.push_back(path);
        return path;
    }
    /// A service that stays until it is ended.
    std::string addStaying(const std::string& name) {
        std::string path = add(name, R"(read ignored < "$0.fifo")");
        mkfifo((path + ".fifo").c_str(), S_IRUSR | S_IWUSR);
        return path;
    }

    static std::vector<Start> starts(const std::string& path) {
        std::vector<Start> found;
        std::ifstream file(path + ".starts");
        for (Start start; file >> start.pid >> start.arguments >> start.directory;)
            found.push_back(start);
        return found;
    }
    /// Waits for the `count`-th start of `path` and answers it.
    static Start awaitStart(const std::string& path, std::size_t count = 1) {
        if (!waitUntil([&] { return starts(path).size() >= count; }))
            throw std::runtime_error("service was not started: " + path);
        return starts(path)[count - 1];
    }

    const TempDir folder;

private:
    static void end(pid_t pid) {
        siginfo_t state{};
        if (waitid(P_PID, static_cast<id_t>(pid), &state, WEXITED | WNOHANG | WNOWAIT) != 0)
            return; // no child of ours, or not any more
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }

    std::string prefix;
    std::vector<std::string> paths;
    rlimit formerLimit{};
};

/// Waits until the child `pid` has ended, and leaves it to be reaped.
inline void awaitExit(pid_t pid) {
    siginfo_t state{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &state, WEXITED | WNOWAIT), 0);
}

inline bool runs(pid_t pid) {
    siginfo_t state{};
    return waitid(P_PID, static_cast<id_t>(pid), &state, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           state.si_pid == 0;
}

inline std::string ownDirectory() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().string();
}

class MSManagerFixture : public testing::Test {
protected:
    MSManagerFixture() {
        fakes::reset();
        fakes::setCurrentPath(services.folder.path().string());
        manager.hostPort = kPort;
    }
    ~MSManagerFixture() override {
        system::reset();
        // the manager, which ends after this, may ask once more
        fakes::failCleanById(nullptr);
        fakes::onCleanById(nullptr);
    }

    std::string directory() const { return services.folder.path().string(); }

    ProcessProperty& launch(const std::string& path) {
        manager.launchOne(path, directory());
        return *manager.processes.back();
    }

    std::vector<std::tuple<Poco::Message::Priority, std::string>> lines() const {
        std::vector<std::tuple<Poco::Message::Priority, std::string>> found;
        for (const Poco::Message& message : log.messages()) {
            found.emplace_back(message.getPriority(), message.getText());
            EXPECT_STREQ(message.getSourceFile(), "src/pluginmgr/MSManager") << message.getText();
            EXPECT_GT(message.getSourceLine(), 0) << message.getText();
        }
        return found;
    }

    static std::string name(const std::string& path) {
        return std::filesystem::path(path).filename().string();
    }
    static std::tuple<Poco::Message::Priority, std::string> exited(const std::string& path,
                                                                   const std::string& code) {
        return {kInformation,
                "microservice " + name(path) + " exited, code: " + code + ", restart it"};
    }
    static std::tuple<Poco::Message::Priority, std::string> stopping(const std::string& path) {
        return {kInformation, "microservice " + name(path) + " running, stop it"};
    }
    static std::tuple<Poco::Message::Priority, std::string> noFork(Poco::Message::Priority priority,
                                                                   const std::string& path) {
        return {priority, "System exception: Cannot fork process for: " + path};
    }
    static std::tuple<Poco::Message::Priority, std::string> noWait(pid_t pid) {
        return {kCritical, "System exception: Cannot wait for process: " + std::to_string(pid)};
    }

    Services services; // outlives the manager, which ends them first
    const LogCapture log;
    MSManager manager;
    MSManager::ExitCodes failedRelaunches;
};

} // namespace ktr::test
