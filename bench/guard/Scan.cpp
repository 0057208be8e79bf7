#include "Count.h"
#include "Host.h"
#include "Paths.h"

#include "ktr/Export.h"
#include "ktr/MSManager.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace ktr::bench {
namespace {

/// Stands in for the second that supervision sleeps after each scan, so that scans can be had by
/// number. Open at first: everybody sleeps as usual.
class Gate {
public:
    /// False if the caller is to sleep: the gate is open, or the caller is who closes it.
    bool hold() {
        std::unique_lock<std::mutex> lock(mutex);
        if (!closed || std::this_thread::get_id() == owner)
            return false;
        waiting = true;
        if (passes == 0)
            changed.notify_all();
        changed.wait(lock, [this] { return passes > 0 || !closed; });
        waiting = false;
        --passes;
        return true;
    }

    /// Returns when supervision has passed so often and has come again.
    void let(int times) {
        std::unique_lock<std::mutex> lock(mutex);
        passes = times;
        changed.notify_all();
        if (!changed.wait_for(lock, std::chrono::seconds(30),
                              [this] { return waiting && passes == 0; }))
            throw std::runtime_error("supervision sleeps by something else than nanosleep by now; "
                                     "that is to be replaced here");
    }

    void close() {
        const std::lock_guard<std::mutex> lock(mutex);
        owner = std::this_thread::get_id();
        closed = true;
    }

    void open() {
        const std::lock_guard<std::mutex> lock(mutex);
        closed = false;
        changed.notify_all();
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::thread::id owner;
    bool closed = false;
    bool waiting = false;
    int passes = 0;
};

Gate s_gate;

struct Closed {
    Closed() { s_gate.close(); }
    ~Closed() { s_gate.open(); }
    Closed(const Closed&) = delete;
    Closed& operator=(const Closed&) = delete;
};

/// Services that stay for as long as they are let, and this process lives.
class Services {
public:
    /// Named after `root`, whose name nothing else on the machine bears.
    Services(const std::filesystem::path& root, int count) {
        getrlimit(RLIMIT_NOFILE, &formerLimit);
        // a launch closes every descriptor up to the limit, one by one
        const rlimit low{256, formerLimit.rlim_max};
        setrlimit(RLIMIT_NOFILE, &low);
        const std::string fifo = root / "fifo";
        mkfifo(fifo.c_str(), S_IRUSR | S_IWUSR);
        // while it is open for writing, nobody reads its end
        writer = open(fifo.c_str(), O_RDWR | O_CLOEXEC);
        for (int i = 0; i < count; ++i) {
            const std::filesystem::path file =
                root / "microservices" / (root.filename().string() + "-" + std::to_string(i));
            std::ofstream(file) << "#!/bin/sh\nread ignored < " << fifo << "\n";
            std::filesystem::permissions(file, std::filesystem::perms::owner_all);
        }
    }
    ~Services() {
        close(writer);
        setrlimit(RLIMIT_NOFILE, &formerLimit);
    }
    Services(const Services&) = delete;
    Services& operator=(const Services&) = delete;

private:
    rlimit formerLimit{};
    int writer = -1;
};

} // namespace

void countScan() {
    constexpr int services = 50;
    constexpr int scans = 20;
    const Host host;
    const Services these(host.root.path(), services);
    const Closed gate;
    MSManager::instance().start("127.0.0.1", 0);
    s_gate.let(1);
    count(scans, [] { s_gate.let(scans); });
}

} // namespace ktr::bench

/// Found before the C library's by everything in the process.
extern "C" KTR_API int nanosleep(const timespec* time, timespec* left) {
    if (ktr::bench::s_gate.hold())
        return 0;
    errno = clock_nanosleep(CLOCK_REALTIME, 0, time, left);
    return errno == 0 ? 0 : -1;
}
