#include "State.h"

#include "ktr/common/ProcessControl.h"

#include <csignal>
#include <sys/types.h>
#include <sys/wait.h>
#include <utility>

namespace ktr {

using test::fakes::Locked;

namespace {

void endChild(pid_t pid) {
    // Only what is our child, seen without reaping it: its pid cannot be a stranger's.
    siginfo_t state{};
    if (waitid(P_PID, static_cast<id_t>(pid), &state, WEXITED | WNOHANG | WNOWAIT) != 0)
        return;
    if (getpgid(pid) == pid)
        kill(-pid, SIGKILL);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

} // namespace

void cleanProcessById(const unsigned int& pid) {
    std::function<void(unsigned int)> hook;
    {
        const Locked state;
        state->cleanedIds.push_back(pid);
        test::fakes::throwIfSet(state->cleanByIdFailure);
        hook = state->cleanByIdHook;
    }
    if (hook)
        hook(pid);
    endChild(static_cast<pid_t>(pid));
}

void cleanProcessByName(const std::string& name) {
    std::function<void(const std::string&)> hook;
    {
        const Locked state;
        state->cleanedNames.push_back(name);
        hook = state->cleanByNameHook;
    }
    if (hook)
        hook(name);
}

} // namespace ktr

namespace ktr::test::fakes {

std::vector<std::string> cleanedNames() {
    return Locked()->cleanedNames;
}

std::vector<unsigned int> cleanedIds() {
    return Locked()->cleanedIds;
}

void onCleanByName(std::function<void(const std::string&)> hook) {
    Locked()->cleanByNameHook = std::move(hook);
}

void failCleanById(std::exception_ptr failure) {
    Locked()->cleanByIdFailure = std::move(failure);
}

void onCleanById(std::function<void(unsigned int)> hook) {
    Locked()->cleanByIdHook = std::move(hook);
}

} // namespace ktr::test::fakes
