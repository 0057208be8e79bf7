#pragma once

#include "common/JsonServer.h"

#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace ktr::example::test {

/// Takes reports as the host does, and refuses the first ones with code -1.
class FakeHost {
public:
    using Report = std::map<std::string, std::string>;

    explicit FakeHost(int refusals_ = 0) : refusals(refusals_) {}

    unsigned short port() const { return server.port(); }

    std::vector<Report> reports() {
        const std::lock_guard<std::mutex> lock(mutex);
        return taken;
    }
    std::size_t count() { return reports().size(); }
    /// The port that the last report named.
    unsigned short reportedPort() {
        return static_cast<unsigned short>(std::stoul(reports().back().at("port")));
    }

private:
    JsonAnswer take(const JsonRequest& request) {
        const std::lock_guard<std::mutex> lock(mutex);
        taken.push_back(request.query);
        return static_cast<int>(taken.size()) > refusals ? success() : failure(200, "not yet");
    }

    const int refusals;
    std::mutex mutex;
    std::vector<Report> taken;
    const JsonServer server{{{"GET /index/api/all/report",
                              [this](const JsonRequest& request) { return take(request); }}}};
};

} // namespace ktr::example::test
