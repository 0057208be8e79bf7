#include "ChildProcesses.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <sys/types.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace ktr::host {
namespace {

struct CloseDirectory {
    void operator()(DIR* dir) const { closedir(dir); }
};

struct Child {
    pid_t pid = 0;
    pid_t parent = 0;
    pid_t group = 0;
};

Child readProcess(const char* name) {
    Child child;
    std::ifstream in(std::string("/proc/") + name + "/stat");
    std::string text;
    std::getline(in, text);
    // the name in brackets may hold anything, so what follows is found from the end
    const auto bracket = text.rfind(')');
    if (bracket == std::string::npos)
        return child;
    std::istringstream rest(text.substr(bracket + 1));
    char state = 0;
    rest >> state >> child.parent >> child.group;
    child.pid = static_cast<pid_t>(std::strtol(name, nullptr, 10));
    return child;
}

std::vector<Child> childProcesses() {
    std::vector<Child> found;
    const std::unique_ptr<DIR, CloseDirectory> proc(opendir("/proc"));
    if (!proc)
        return found;
    while (const dirent* entry = readdir(proc.get())) {
        if (entry->d_name[0] < '1' || entry->d_name[0] > '9')
            continue;
        const Child child = readProcess(entry->d_name);
        if (child.pid > 1 && child.parent == getpid())
            found.push_back(child);
    }
    return found;
}

} // namespace

void killChildProcesses() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    std::vector<Child> children = childProcesses();
    // again and again: one may be launched at this very moment
    while (!children.empty() && std::chrono::steady_clock::now() < end) {
        for (const Child& child : children) {
            kill(child.group == child.pid ? -child.pid : child.pid, SIGKILL);
            waitpid(child.pid, nullptr, WNOHANG);
        }
        // nothing wakes who waits for processes that may be killed but not yet launched
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        children = childProcesses();
    }
}

} // namespace ktr::host
