// A service of the soak: reports itself again and again, and floods its output when it is told to.

#include "Shared.h"

#include "support/HttpClient.h"

#include <Poco/Exception.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

using namespace ktr::soak;
namespace fs = std::filesystem;

constexpr std::chrono::milliseconds kPoll(20);
constexpr std::chrono::milliseconds kReportEvery(1500);
constexpr std::size_t kFloodBytes = std::size_t{4} * 1024 * 1024;
constexpr unsigned short kSomePort = 40000;

bool report(unsigned short hostPort, std::uint32_t number) {
    try {
        const auto answer = ktr::test::httpPost(hostPort, "/index/api/all/report",
                                                {{"ip", "127.0.0.1"},
                                                 {"port", std::to_string(kSomePort + number)},
                                                 {"type", "7"},
                                                 {"guid", guidOf(number)}});
        return answer.json()->getValue<int>("code") == 0;
    } catch (const Poco::Exception&) {
        // the host is short of something: later
        return false;
    }
}

void flood(std::uint32_t number) {
    std::string text;
    while (text.size() < kFloodBytes)
        text += "soak service " + std::to_string(number) + " has a lot to say\n";
    for (const int descriptor : {STDOUT_FILENO, STDERR_FILENO})
        for (std::size_t done = 0; done < text.size();) {
            const ssize_t n = write(descriptor, text.data() + done, text.size() - done);
            if (n < 0)
                break;
            done += static_cast<std::size_t>(n);
        }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2)
        return 64;
    const auto hostPort = static_cast<unsigned short>(std::stoi(argv[1]));
    const fs::path self = fs::read_symlink("/proc/self/exe");
    const std::uint32_t number = numberOf(self);
    Shared& shared = mapShared(sharedFile(self));
    ServiceState& state = shared.services.at(number);

    ++state.starts;
    state.startedAt = monotonicTime();
    state.pid = getpid();
    std::int64_t due = 0;
    // until somebody ends the process
    for (;; std::this_thread::sleep_for(kPoll)) {
        if (state.flood) {
            flood(number);
            state.flood = false;
        }
        if (shared.noReports || monotonicTime() < due || !report(hostPort, number))
            continue;
        state.reportedAt = monotonicTime();
        due = monotonicTime() + kReportEvery.count();
    }
}
