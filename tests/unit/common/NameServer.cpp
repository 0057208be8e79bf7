#include "NameServer.h"

#include <condition_variable>
#include <cstdlib>
#include <dlfcn.h>
#include <map>
#include <mutex>
#include <netdb.h>
#include <optional>
#include <sys/socket.h>

namespace ktr::test {
namespace {

/// No addresses at all: the look-up hangs.
using Answer = std::optional<std::vector<std::string>>;

struct Names {
    std::mutex mutex;
    std::condition_variable changed;
    // guarded by mutex
    std::map<std::string, Answer> answers;
    int hanging = 0;
};

Names& names() {
    // never destroyed: a look-up that was given up may outlive the tests
    static auto* const all = new Names;
    return *all;
}

int lookUpReally(const char* host, const char* service, const addrinfo* hints, addrinfo** found) {
    static const auto real =
        reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
    return real(host, service, hints, found);
}

/// A chain as the system's own, which its freeaddrinfo takes apart. Never empty: where there is no
/// address, it is an entry of a kind that nobody knows.
addrinfo* chainOf(const std::vector<std::string>& addresses) {
    addrinfo* chain = nullptr;
    addrinfo** end = &chain;
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    hints.ai_socktype = SOCK_STREAM;
    for (const std::string& address : addresses)
        if (lookUpReally(address.c_str(), nullptr, &hints, end) == 0)
            end = &(*end)->ai_next;
    if (chain == nullptr)
        chain = static_cast<addrinfo*>(std::calloc(1, sizeof(addrinfo)));
    return chain;
}

} // namespace

NameServer::~NameServer() {
    std::unique_lock<std::mutex> lock(names().mutex);
    names().answers.clear();
    names().changed.notify_all();
    names().changed.wait(lock, [] { return names().hanging == 0; });
}

void NameServer::answer(const std::string& name, const std::vector<std::string>& addresses) {
    const std::lock_guard<std::mutex> lock(names().mutex);
    names().answers[name] = addresses;
}

void NameServer::hang(const std::string& name) {
    const std::lock_guard<std::mutex> lock(names().mutex);
    names().answers[name] = std::nullopt;
}

bool NameServer::isAsked() const {
    const std::lock_guard<std::mutex> lock(names().mutex);
    return names().hanging > 0;
}

} // namespace ktr::test

// Takes the place of the system's for the libraries of this program too.
extern "C" [[gnu::visibility("default")]] int getaddrinfo(const char* host, const char* service,
                                                          const addrinfo* hints, addrinfo** found) {
    using namespace ktr::test;
    const std::string name = host == nullptr ? "" : host;
    std::unique_lock<std::mutex> lock(names().mutex);
    const auto known = names().answers.find(name);
    if (known == names().answers.end()) {
        lock.unlock();
        return lookUpReally(host, service, hints, found);
    }
    if (known->second) {
        *found = chainOf(*known->second);
        return 0;
    }
    ++names().hanging;
    names().changed.wait(lock, [&name] { return names().answers.count(name) == 0; });
    --names().hanging;
    names().changed.notify_all();
    return EAI_AGAIN;
}
