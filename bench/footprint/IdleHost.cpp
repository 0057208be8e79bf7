#include "IdleHost.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>

namespace ktr::bench {
namespace {

namespace fs = std::filesystem;

/// The value, in bytes, of the line that begins with `name`.
double valueOf(const std::string& name, const fs::path& file) {
    constexpr double kKibi = 1024;
    for (const std::string& line : test::readLines(file))
        if (line.rfind(name + ":", 0) == 0)
            return std::stod(line.substr(name.size() + 1)) * kKibi;
    throw std::runtime_error(file.string() + " holds no " + name);
}

bool isSleeping(const fs::path& thread) {
    // the state follows the name, which may hold anything
    const std::string text = test::readFile(thread / "stat");
    return text.find(") S ", text.rfind(')')) != std::string::npos;
}

} // namespace

IdleHost::IdleHost() : host(root) {
    if (!host.waitReady() || !test::waitUntil([this] { return isAtRest(); }))
        throw std::runtime_error("the host does not come up and to rest: " + host.err());
}

fs::path IdleHost::proc() const {
    return "/proc/" + std::to_string(host.pid());
}

bool IdleHost::isAtRest() const {
    const fs::directory_iterator threads(proc() / "task");
    return std::all_of(begin(threads), end(threads),
                       [](const auto& thread) { return isSleeping(thread.path()); });
}

IdleHost::Memory IdleHost::memory() const {
    const fs::path file = proc() / "smaps_rollup";
    return {valueOf("Rss", file), valueOf("Anonymous", file)};
}

IdleHost::Threads IdleHost::threads() const {
    const std::string program = test::readFile(proc() / "comm");
    Threads threads;
    for (const auto& thread : fs::directory_iterator(proc() / "task")) {
        ++threads.all;
        const bool isMain = thread.path().filename() == std::to_string(host.pid());
        if (!isMain && test::readFile(thread.path() / "comm") == program)
            ++threads.nameless;
    }
    return threads;
}

int IdleHost::descriptors() const {
    return static_cast<int>(std::distance(fs::directory_iterator(proc() / "fd"), {}));
}

int IdleHost::libraries() const {
    std::set<std::string> found;
    for (const std::string& line : test::readLines(proc() / "maps")) {
        const auto path = line.find('/');
        if (path != std::string::npos && line.find(".so", path) != std::string::npos)
            found.insert(line.substr(path));
    }
    return static_cast<int>(found.size());
}

} // namespace ktr::bench
