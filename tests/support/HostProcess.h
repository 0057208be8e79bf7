#pragma once

#include "TempDir.h"
#include "WaitUntil.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <random>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace ktr::test {

inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline std::vector<std::string> readLines(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

inline int countOf(const std::string& text, const std::string& part) {
    int count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

inline bool isAlive(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(in, text);
    const auto bracket = text.rfind(')');
    // a zombie only waits to be read
    return bracket != std::string::npos && text.compare(bracket, 3, ") Z") != 0;
}

/// Every living process whose executable lies below `folder`.
inline std::vector<pid_t> processesBelow(const std::filesystem::path& folder) {
    std::vector<pid_t> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        std::error_code gone;
        const std::string program = std::filesystem::read_symlink(entry.path() / "exe", gone);
        if (!gone && program.rfind(folder.string() + "/", 0) == 0)
            found.push_back(static_cast<pid_t>(std::stol(name)));
    }
    return found;
}

/// Copies a plugin or service to where a host may use it: built under whatever umask, it is
/// writable by its owner alone there.
inline void install(const std::filesystem::path& program, const std::filesystem::path& to) {
    using std::filesystem::perms;
    std::filesystem::copy_file(program, to);
    std::filesystem::permissions(to, perms::group_write | perms::others_write,
                                 std::filesystem::perm_options::remove);
}

/// A device's root in a temporary folder, with puppets as plugins and services
/// (tests/fixtures/host). The names of the services are unique on this machine, since a host ends
/// by name what is left of them.
class DeviceRoot {
public:
    DeviceRoot() {
        // also for what the test and its host write there later
        umask(022);
        for (const auto& part : {plugins(), services(), notes()})
            std::filesystem::create_directories(part);
    }
    /// Ends what is left of the services.
    ~DeviceRoot() {
        for (const pid_t pid : processesBelow(path()))
            kill(pid, SIGKILL);
        waitUntil([this] { return processesBelow(path()).empty(); });
    }
    DeviceRoot(const DeviceRoot&) = delete;
    DeviceRoot& operator=(const DeviceRoot&) = delete;

    std::filesystem::path path() const { return folder / "root"; }
    std::filesystem::path plugins() const { return path() / "plugins"; }
    std::filesystem::path services() const { return path() / "microservices"; }
    /// Where the services note what happens to them; also room for a test's own files.
    std::filesystem::path notes() const { return folder / "notes"; }

    void addPlugin(const std::string& guid, const std::string& conf = "") const {
        install(KETRA_PUPPET_PLUGIN, plugins() / ("libKetraPluginPuppet-" + guid + ".so"));
        std::ofstream(plugins() / (guid + ".conf")) << conf;
    }

    /// Whether plugin `guid` is held at `where` now.
    bool isHeld(const std::string& guid, const std::string& where) const {
        return std::filesystem::exists(plugins() / (guid + "." + where + ".held"));
    }
    void letGo(const std::string& guid, const std::string& where) const {
        std::ofstream(plugins() / (guid + "." + where + ".go")) << "go\n";
    }

    /// Returns the service's file name.
    std::string addService(const std::string& conf = "") {
        std::string name = "ketra-test-" + randomText() + "-puppet";
        std::ofstream(services() / (name + ".conf"))
            << conf << "\nout=" << notes().string() << "\n";
        install(KETRA_PUPPET_SERVICE, services() / name);
        return name;
    }

    /// One start of a service, as it noted it.
    struct Start {
        pid_t pid = 0;
        std::string directory;
        std::string arguments;
    };
    std::vector<Start> startsOf(const std::string& service) const {
        std::vector<Start> starts;
        for (const std::string& line : readLines(notes() / (service + ".starts"))) {
            std::istringstream in(line);
            Start start;
            in >> start.pid;
            in.ignore(1);
            std::getline(in, start.directory, '|');
            std::getline(in, start.arguments);
            starts.push_back(start);
        }
        return starts;
    }
    std::string note(const std::string& service, const std::string& kind) const {
        return readFile(notes() / (service + "." + kind));
    }

private:
    static std::string randomText() {
        std::random_device random;
        std::ostringstream text;
        text << std::hex << random() << random();
        return text.str();
    }

    TempDir folder;
};

/// The real ketra-host as a process. Its output goes to files: its services inherit it, and a pipe
/// would stay open with the last of them. Ends the host when it goes.
class HostProcess {
public:
    /// Runs ketra-host with `arguments` in a temporary directory.
    explicit HostProcess(std::vector<std::string> arguments) { spawn(std::move(arguments)); }

    /// Runs it on `root`, with a free port unless `further` holds another.
    explicit HostProcess(const DeviceRoot& root, const std::vector<std::string>& further = {}) {
        std::vector<std::string> arguments{"--root=" + root.path().string()};
        const auto isPort = [](const std::string& text) { return text.rfind("--port", 0) == 0; };
        if (std::none_of(further.begin(), further.end(), isPort))
            arguments.emplace_back("--port=0");
        arguments.insert(arguments.end(), further.begin(), further.end());
        spawn(arguments);
    }

    ~HostProcess() {
        if (status)
            return;
        kill(process, SIGTERM);
        if (waitForExit(std::chrono::seconds(15)))
            return;
        kill(process, SIGKILL);
        waitForExit(std::chrono::seconds(15));
    }
    HostProcess(const HostProcess&) = delete;
    HostProcess& operator=(const HostProcess&) = delete;

    pid_t pid() const { return process; }
    std::filesystem::path directory() const { return folder.path(); }
    std::string out() const { return readFile(folder / "out"); }
    std::string err() const { return readFile(folder / "err"); }

    void signal(int number) const { kill(process, number); }

    /// Waits for the ready line; false if it does not come or the host ends.
    bool waitReady() {
        const std::string ready = "ketra-host ready on http://";
        waitUntil([&] { return hasExited() || out().find(ready) != std::string::npos; },
                  std::chrono::seconds(30));
        const std::string text = out();
        const auto at = text.find(ready);
        if (at == std::string::npos)
            return false;
        const auto end = text.find('\n', at);
        const auto colon = text.rfind(':', end);
        servedPort = static_cast<unsigned short>(std::stoi(text.substr(colon + 1)));
        return true;
    }

    /// The port of the ready line.
    unsigned short port() const { return servedPort; }

    /// Waits until `text` was logged (`times` times) to standard error.
    bool waitLogged(const std::string& text, int times = 1) const {
        return waitUntil([&] { return countOf(err(), text) >= times; }, std::chrono::seconds(20));
    }

    /// Waits until SIGTERM is blocked, which is the first thing that the host does.
    bool waitSignalsBlocked() const {
        return waitUntil([this] {
            for (const std::string& line :
                 readLines("/proc/" + std::to_string(process) + "/status"))
                if (line.rfind("SigBlk:", 0) == 0)
                    return (std::stoull(line.substr(7), nullptr, 16) & (1ULL << (SIGTERM - 1))) !=
                           0;
            return false;
        });
    }

    /// The exit code, or 256 + the number of the signal that ended it; none if it still runs.
    std::optional<int> waitForExit(std::chrono::milliseconds time = std::chrono::seconds(30)) {
        waitUntil([this] { return hasExited(); }, time);
        return status;
    }

private:
    void spawn(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), KETRA_HOST);
        const std::vector<char*> argv = pointersTo(arguments);

        posix_spawn_file_actions_t files;
        posix_spawn_file_actions_init(&files);
        posix_spawn_file_actions_addchdir_np(&files, folder.path().c_str());
        posix_spawn_file_actions_addopen(&files, 0, "/dev/zero", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&files, 1, "out", O_CREAT | O_WRONLY | O_APPEND, 0600);
        posix_spawn_file_actions_addopen(&files, 2, "err", O_CREAT | O_WRONLY | O_APPEND, 0600);
        // as a shell would start it, whatever this test has blocked
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        sigset_t none;
        sigemptyset(&none);
        sigset_t all;
        sigfillset(&all);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &all);
        const int error =
            posix_spawn(&process, KETRA_HOST, &files, &attributes, argv.data(), environ);
        posix_spawn_file_actions_destroy(&files);
        posix_spawnattr_destroy(&attributes);
        if (error != 0)
            throw std::runtime_error("cannot run " KETRA_HOST);
    }

    /// As exec wants them: with a null pointer behind the last.
    static std::vector<char*> pointersTo(std::vector<std::string>& texts) {
        std::vector<char*> pointers(texts.size() + 1, nullptr);
        std::transform(texts.begin(), texts.end(), pointers.begin(),
                       [](std::string& text) { return text.data(); });
        return pointers;
    }

    bool hasExited() {
        int result = 0;
        if (!status && waitpid(process, &result, WNOHANG) == process)
            status = WIFEXITED(result) ? WEXITSTATUS(result) : 256 + WTERMSIG(result);
        return status.has_value();
    }

    TempDir folder;
    pid_t process = 0;
    unsigned short servedPort = 0;
    std::optional<int> status;
};

} // namespace ktr::test
