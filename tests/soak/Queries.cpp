#include "Queries.h"

#include "support/HttpClient.h"
#include "support/WaitUntil.h"

#include <Poco/Exception.h>

#include <random>

namespace ktr::soak {
namespace {

constexpr std::uint32_t kThreads = 2;
// the pace of the load
constexpr std::chrono::milliseconds kPause(30);
constexpr int kNotFound = 404;

} // namespace

Queries::Queries(Device& device_, Problems& problems_) : device(device_), problems(problems_) {
    for (std::uint32_t i = 0; i < kThreads; ++i)
        threads.emplace_back([this, i] { run(device.shared.seed + i); });
}

Queries::~Queries() {
    ending = true;
    for (std::thread& thread : threads)
        thread.join();
}

void Queries::pause() {
    paused = true;
    test::waitUntil([this] { return busy == 0; }, kPatience * 3);
}

void Queries::resume() {
    paused = false;
}

void Queries::run(std::uint32_t seed) {
    std::minstd_rand random(seed + 1);
    while (!ending) {
        std::this_thread::sleep_for(kPause);
        ++busy;
        const auto plugin = static_cast<std::uint32_t>(random() % kPlugins);
        if (!paused && !ask(plugin) && !ending)
            problems.add("plugin " + std::to_string(plugin) + " did not answer on its route");
        --busy;
    }
}

bool Queries::ask(std::uint32_t plugin) {
    const std::string value = std::to_string(answers) + " & more?";
    const auto end = std::chrono::steady_clock::now() + kPatience;
    do {
        const Outcome outcome = askOnce(plugin, value);
        if (outcome == Outcome::answered)
            ++answers;
        if (outcome != Outcome::again)
            return true;
        ++repeats;
        std::this_thread::sleep_for(kPause);
    } while (!ending && std::chrono::steady_clock::now() < end);
    return false;
}

Queries::Outcome Queries::askOnce(std::uint32_t plugin, const std::string& value) {
    try {
        const auto answer = test::httpPost(
            device.port(), "/soak/" + std::to_string(plugin) + "/ask", {{"value", value}});
        if (answer.status == kNotFound)
            return Outcome::again;
        const auto said = answer.json();
        const bool right = answer.status == 200 &&
                           said->optValue<std::string>("plugin", "") == guidOf(plugin) &&
                           said->optValue<std::string>("value", "") == value;
        if (!right)
            problems.add("plugin " + std::to_string(plugin) + " gave a wrong answer: " +
                         std::to_string(answer.status) + " " + answer.body);
        return right ? Outcome::answered : Outcome::wrong;
    } catch (const Poco::Exception&) {
        // the host is short of connections or descriptors
        return Outcome::again;
    }
}

} // namespace ktr::soak
