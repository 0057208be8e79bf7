#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace ktr {

// What /proc tells of processes, each looked up by its id. An id may come to mean another process
// at any time: whoever must be sure holds a handle on the process before the question and checks
// it after the answer. All functions are thread-safe and throw nothing but std::bad_alloc.

/// Whether `pid` runs a program whose file name is `name`: the script's own file for a script, not
/// its interpreter; for any other process its executable, or the link that it was started through.
/// A name that is a mere argument does not count. False for a process that is gone, for a zombie
/// and for a kernel thread.
bool runsProgram(pid_t pid, const std::string& name);

/// What the kernel calls the process (15 characters at most); empty when it is gone.
std::string kernelName(pid_t pid);

struct ProcessStatus {
    /// As ps prints it: 'R', 'S', 'T', 'Z' ...; '?' when it is gone.
    char state = '?';
    /// 0 if it has none that is visible here.
    pid_t parent = 0;
};

ProcessStatus processStatus(pid_t pid);

/// The ids of all processes that are visible here. Logs an error if they cannot be listed.
std::vector<pid_t> allProcesses();

} // namespace ktr
