// The whole source, so that its file-local functions can be reached: they run between fork and
// exec.
#include "../../../src/pluginmgr/ServiceLaunch.cpp" // NOLINT(bugprone-suspicious-include): see above

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>

// Takes the place of the C library's, which is linked in statically: nothing of this program can
// register a fork handler.
extern "C" int pthread_atfork(void (* /*prepare*/)(), void (* /*parent*/)(),
                              void (* /*child*/)()) noexcept {
    return ENOMEM;
}

namespace ktr {
namespace {

/// Each of these tests is on its own in a child process, whose state it may change.
class ServiceLaunchDeathTest : public testing::Test {
protected:
    static void blockAndIgnore() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, nullptr);
        for (const int number : {SIGPIPE, SIGHUP, SIGTERM})
            signal(number, SIG_IGN); // NOLINT(bugprone-signal-handler): none is set
    }
    static bool signalsAreReset() {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        for (int number = 1; number < NSIG; ++number) {
            struct sigaction action {};
            if (sigismember(&mask, number) == 1)
                return false;
            if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_DFL)
                return false;
        }
        return true;
    }
    static bool readsFromNull() {
        return std::filesystem::read_symlink("/proc/self/fd/0") == "/dev/null";
    }
    [[noreturn]] static void end(bool asExpected) { std::exit(asExpected ? 0 : 1); }
};

TEST_F(ServiceLaunchDeathTest, PreparesTheChildThatBecomesAService) {
    EXPECT_EXIT(
        {
            blockAndIgnore();
            launching = true;
            prepareChild();
            end(signalsAreReset() && readsFromNull() && getpgrp() == getpid());
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(ServiceLaunchDeathTest, OpensItsInputWhereTheHostHasNone) {
    EXPECT_EXIT(
        {
            close(STDIN_FILENO);
            launching = true;
            prepareChild();
            end(readsFromNull());
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(ServiceLaunchDeathTest, KeepsNoSecondDescriptorOfItsInput) {
    EXPECT_EXIT(
        {
            const int lowest = dup(STDOUT_FILENO);
            close(lowest);
            readFromNull();
            end(dup(STDOUT_FILENO) == lowest);
        },
        testing::ExitedWithCode(0), "");
}

// What a service printed went into the first file that it opened.
TEST_F(ServiceLaunchDeathTest, ReplacesOutputsThatTheHostLost) {
    EXPECT_EXIT(
        {
            close(STDOUT_FILENO);
            fcntl(STDERR_FILENO, F_SETFD, FD_CLOEXEC);
            launching = true;
            prepareChild();
            bool replaced = true;
            for (const char* output : {"/proc/self/fd/1", "/proc/self/fd/2"})
                replaced = replaced && std::filesystem::read_symlink(output) == "/dev/null";
            end(replaced && fcntl(STDERR_FILENO, F_GETFD) == 0);
        },
        testing::ExitedWithCode(0), "");
}

using Pipe = std::array<int, 2>;

TEST_F(ServiceLaunchDeathTest, KeepsTheOutputsOfTheHost) {
    EXPECT_EXIT(
        {
            Pipe pipe{};
            end(::pipe(pipe.data()) == 0 && dup2(pipe[1], STDOUT_FILENO) == STDOUT_FILENO && [] {
                launching = true;
                prepareChild();
                return std::filesystem::read_symlink("/proc/self/fd/1") != "/dev/null";
            }());
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(ServiceLaunchDeathTest, LeavesOtherChildrenAsTheyAre) {
    EXPECT_EXIT(
        {
            blockAndIgnore();
            const pid_t group = getpgrp();
            prepareChild();
            end(!signalsAreReset() && getpgrp() == group);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(ServiceLaunchDeathTest, ThrowsWithoutAForkHandler) {
    EXPECT_EXIT(
        {
            try {
                launchService("/no/service", {}, "/");
            } catch (const Poco::SystemException& e) {
                end(!launching && e.code() == ENOMEM &&
                    e.displayText() == "System exception: Cannot register the fork handler for: "
                                       "/no/service");
            }
            end(false);
        },
        testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace ktr
