#include "Checks.h"

#include "ktr/MSManager.h"

#include "support/HttpClient.h"
#include "support/WaitUntil.h"

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>

#include <chrono>
#include <malloc.h>
#include <numeric>
#include <string>
#include <vector>

namespace ktr::soak {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

// the pace at which the journal is emptied
constexpr milliseconds kPoll(20);
constexpr milliseconds kLookEvery(250);
constexpr seconds kLostAfter(30);
constexpr seconds kSettleLimit(20);
constexpr seconds kQuietTime(2);
constexpr seconds kQuietLimit(30);
constexpr std::uint64_t kKib = 1024;
// Pools of up to four threads for each path, and the two that the default pool keeps.
constexpr std::uint64_t kThreadSlack = 8;
// Buffers and tables that are as large as they ever had to be.
constexpr std::uint64_t kHeapSlack = 256 * kKib;
// What the heap holds besides, to be used again, its pieces spread over many arenas; and stacks as
// deep as they ever had to be. What is lost shows in the heap, which is measured to the byte.
constexpr std::uint64_t kResidentSlackKib = 16 * kKib;

} // namespace

Checks::Checks(Device& device_, Problems& problems_, std::atomic<bool>& over_)
    : device(device_), problems(problems_), over(over_), hostWatch(device_.pid(), problems_),
      ledger(device_.shared.seed, problems_), thread([this] { run(); }) {}

void Checks::finish() {
    ending = true;
    if (thread.joinable())
        thread.join();
}

void Checks::run() {
    auto due = Clock::now();
    for (; !ending; std::this_thread::sleep_for(kPoll)) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            takeJournal(device.shared, ledger, problems);
            ledger.tellLost(kLostAfter);
        }
        if (Clock::now() < due)
            continue;
        due = Clock::now() + kLookEvery;
        hostWatch.look();
        if (!over && !device.isRunning()) {
            problems.add("the host has ended by itself");
            over = true;
        }
    }
}

void Checks::settleEvents() {
    const auto settled = [this] {
        const std::lock_guard<std::mutex> lock(mutex);
        takeJournal(device.shared, ledger, problems);
        return over || ledger.outstanding() == 0;
    };
    test::waitUntil(settled, kSettleLimit);
    const std::lock_guard<std::mutex> lock(mutex);
    ledger.tellLost();
    for (const PluginState& plugin : device.shared.plugins)
        if (plugin.altered > 0)
            problems.add(std::to_string(plugin.altered) + " events came altered");
}

Quiet Checks::measureQuiet() const {
    Quiet quiet{heap(), holdingsOf(device.pid()), reports()};
    // what was just asked may still hold its connection
    test::waitUntil(
        [&] {
            const Holdings now = holdingsOf(device.pid());
            if (now.descriptors < quiet.holdings.descriptors)
                quiet.holdings = now;
            return over.load();
        },
        kQuietTime);
    return quiet;
}

Quiet Checks::measureQuiet(const Quiet& goal) const {
    Quiet quiet{heap(), {}, reports()};
    test::waitUntil(
        [&] {
            quiet.holdings = holdingsOf(device.pid());
            return over || (quiet.holdings.descriptors <= goal.holdings.descriptors &&
                            quiet.holdings.threads <= goal.holdings.threads);
        },
        kQuietLimit);
    return quiet;
}

void Checks::compareQuiet(const Quiet& before, const Quiet& after) const {
    const std::uint64_t kept = (after.reports - before.reports) * notificationBytes();
    compare("descriptors", before.holdings.descriptors, after.holdings.descriptors, 0);
    compare("threads", before.holdings.threads, after.holdings.threads, kThreadSlack);
    compare("bytes allocated", before.heap, after.heap, kept + kHeapSlack);
    compare("KiB of own memory", before.holdings.ownKib, after.holdings.ownKib,
            kept / kKib + kResidentSlackKib);
}

void Checks::compare(const char* what, std::uint64_t before, std::uint64_t after,
                     std::uint64_t allowed) const {
    if (after > before + allowed)
        problems.add(std::string(what) + " grew from " + std::to_string(before) + " to " +
                     std::to_string(after) + ", by more than " + std::to_string(allowed));
}

std::uint64_t Checks::heap() const {
    try {
        return test::httpPost(device.port(), "/soak/0/heap")
            .json()
            ->getValue<std::uint64_t>("bytes");
    } catch (const Poco::Exception& e) {
        problems.add("the host does not tell its heap: " + e.displayText());
        return 0;
    }
}

std::uint64_t Checks::reports() const {
    const auto& plugins = device.shared.plugins;
    return std::accumulate(
        plugins.begin(), plugins.end(), std::uint64_t{0},
        [](std::uint64_t sum, const PluginState& plugin) { return sum + plugin.notifications; });
}

Ledger::Count Checks::count(std::uint32_t path) const {
    const std::lock_guard<std::mutex> lock(mutex);
    return ledger.count(path);
}

std::uint64_t notificationBytes() {
    constexpr std::size_t count = 10'000;
    const std::string guid = guidOf(0);
    std::vector<Poco::AutoPtr<MSNotification>> notifications(count);
    const auto before = mallinfo2().uordblks;
    for (auto& notification : notifications) {
        notification = new MSNotification;
        notification->setRpcIp("127.0.0.1");
        notification->setMSGuid(guid);
    }
    return (mallinfo2().uordblks - before) / count + 1;
}

} // namespace ktr::soak
